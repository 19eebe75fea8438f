#include "system/mounts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "support.h"
#include "system/file.h"

using test::describe;

namespace fs = std::filesystem;

/** A mount table of the test's own, naming directories of its own. */
class Mounts : public testing::Test {
  protected:
    std::string table(const std::string& text) {
        test::write_text(directory / "mounts", text);
        return directory / "mounts";
    }

    [[nodiscard]] dev_t device_of(const std::string& path) const {
        struct stat status {};
        EXPECT_EQ(stat(path.c_str(), &status), 0);
        return status.st_dev;
    }

    static std::string mount_error(const std::string& text) { return "10 src/system/mounts.cpp:N: " + text; }

    test::TemporaryDirectory directory;
    test::LogCapture log;
    ErrorSlot error;
};

TEST_F(Mounts, AreFoundByTheirExactDirectory) {
    const std::string mounts = table("proc /proc proc rw 0 0\noverlay /usr overlay rw,upperdir=/u 0 0\n");
    const std::optional<MountEntry> entry = find_mount_entry(mounts, std::string("/usr"), error);
    ASSERT_TRUE(entry) << error.message();
    EXPECT_EQ(entry->directory, "/usr");
    EXPECT_EQ(entry->type, "overlay");
    EXPECT_EQ(entry->options, "rw,upperdir=/u");
    for (const char* other : {"/usr/", "/us", "/usr/lib", ""}) {
        ErrorSlot reason;
        EXPECT_FALSE(find_mount_entry(mounts, std::string(other), reason)) << other;
        EXPECT_EQ(describe(reason),
                  mount_error(std::string("Failed to find mount entry ") + other + " amount mounts"));
    }
}

TEST_F(Mounts, TheFirstOfSeveralOnOneDirectoryCounts) {
    const std::string mounts = table("a /x ext4 ro 0 0\nb /x tmpfs rw 0 0\n");
    EXPECT_EQ(find_mount_entry(mounts, std::string("/x"), error)->type, "ext4");
}

TEST_F(Mounts, WithABlankInTheirDirectoryAreFound) {
    const std::string mounts = table("a /my\\040disk ext4 rw 0 0\n");
    EXPECT_EQ(find_mount_entry(mounts, std::string("/my disk"), error)->directory, "/my disk");
}

TEST_F(Mounts, AreFoundByTheDeviceOfTheirDirectory) {
    fs::create_directory(directory / "first");
    fs::create_directory(directory / "second");
    const std::string mounts = table("none " + (directory / "absent") + " ext4 rw 0 0\n" +  //
                                     "proc /proc proc rw 0 0\n" +                           //
                                     "one " + (directory / "first") + " ext4 rw 0 0\n" +    //
                                     "two " + (directory / "second") + " ext4 rw 0 0\n");
    const std::optional<MountEntry> entry = find_mount_entry(mounts, device_of(directory.path()), error);
    ASSERT_TRUE(entry) << error.message();
    EXPECT_EQ(entry->directory, directory / "first");
}

TEST_F(Mounts, OfAnotherDeviceAreNotFound) {
    const std::string mounts = table("proc /proc proc rw 0 0\n");
    const dev_t device = device_of(directory.path());
    EXPECT_FALSE(find_mount_entry(mounts, device, error));
    EXPECT_EQ(describe(error),
              mount_error("Failed to find device ID " + std::to_string(device) + " among mounts"));
}

TEST_F(Mounts, WithoutATableAreAnError) {
    EXPECT_FALSE(find_mount_entry(directory / "absent", std::string("/usr"), error));
    EXPECT_EQ(describe(error),
              mount_error("Failed to open " + (directory / "absent") + ": No such file or directory"));
    EXPECT_FALSE(find_mount_entry(directory / "absent", std::string("/usr"), nullptr));
}

/** A file in a directory that the table calls an overlay, and its copy in the upper layer. */
class OverlayFile : public Mounts {
  protected:
    void SetUp() override {
        fs::create_directories(directory / "merged/sub");
        fs::create_directories(directory / "upper/sub");
        test::write_text(directory / "merged/sub/file", "");
        test::write_text(directory / "upper/sub/file", "");
    }

    std::string mounted(const std::string& type, const std::string& options) {
        return table("overlay " + (directory / "merged") + " " + type + " " + options + " 0 0\n");
    }

    const std::string file = directory / "merged/sub/file";
    const std::string upper_file = directory / "upper/sub/file";
};

TEST_F(OverlayFile, IsRemovedFromTheUpperLayer) {
    const std::string mounts =
        mounted("overlay", "rw,lowerdir=/l,upperdir=" + (directory / "upper") + ",workdir=/w");
    if (!test::can_make_immutable(directory.path()))
        GTEST_SKIP() << "needs the immutable attribute";
    ASSERT_TRUE(set_immutable(upper_file, true, error));
    EXPECT_TRUE(remove_through_overlay(file, mounts, error)) << error.message();
    EXPECT_FALSE(test::name_exists(upper_file));
    EXPECT_TRUE(test::name_exists(file));
    EXPECT_EQ(log.text(), "");
}

TEST_F(OverlayFile, ThatIsADanglingLinkIsFoundByItsOwnDevice) {
    fs::create_symlink("nowhere", directory / "merged/sub/link");
    const std::string mounts = mounted("overlay", "upperdir=" + (directory / "upper"));
    // The overlay is found, although the link leads nowhere; there is just no copy in the upper layer.
    EXPECT_FALSE(remove_through_overlay(directory / "merged/sub/link", mounts, error));
    EXPECT_EQ(describe(error), mount_error("Failed to remove " + (directory / "upper/sub/link") +
                                           ": No such file or directory"));
}

TEST_F(OverlayFile, BehindALinkInTheUpperLayerIsLeft) {
    fs::create_directories(directory / "outside");
    test::write_text(directory / "outside/file", "");
    fs::remove_all(directory / "upper/sub");
    fs::create_symlink(directory / "outside", directory / "upper/sub");
    const std::string mounts = mounted("overlay", "upperdir=" + (directory / "upper"));
    EXPECT_FALSE(remove_through_overlay(file, mounts, error));
    EXPECT_EQ(describe(error), mount_error("Failed to remove " + upper_file + ": Not a directory"));
    EXPECT_TRUE(test::name_exists(directory / "outside/file"));
}

TEST_F(OverlayFile, ThatIsAbsentHasNoDevice) {
    EXPECT_FALSE(remove_through_overlay(directory / "absent", mounted("overlay", "upperdir=/u"), error));
    EXPECT_EQ(describe(error), mount_error("Failed to find device ID of " + (directory / "absent") +
                                           ": No such file or directory"));
}

TEST_F(OverlayFile, OnAnUnknownDeviceIsLookedForOnUsr) {
    EXPECT_FALSE(remove_through_overlay(file, table("proc /proc proc rw 0 0\n"), error));
    EXPECT_EQ(describe(error), mount_error("Failed to find mount entry /usr amount mounts"));
    EXPECT_EQ(log.text(), "Assume overlay is /usr\n");
}

TEST_F(OverlayFile, IsLeftWhereTheMountIsNoOverlay) {
    EXPECT_FALSE(remove_through_overlay(file, mounted("ext4", "rw"), error));
    EXPECT_EQ(describe(error),
              mount_error("Failed to remove " + file + ": Expected " + (directory / "merged") +
                          " to be of type 'overlay' but it was 'ext4'"));
}

TEST_F(OverlayFile, IsLeftWhereTheOptionsHoldNoUpperDirectory) {
    for (const char* options : {"ro,lowerdir=/l", "upperdir", "xupperdir=/u", "upperdirs=/u"}) {
        ErrorSlot reason;
        EXPECT_FALSE(remove_through_overlay(file, mounted("overlay", options), reason)) << options;
        EXPECT_EQ(describe(reason),
                  mount_error("Failed to remove " + file + ": Could not find upperdir in mount options for " +
                              (directory / "merged")));
    }
    EXPECT_TRUE(test::name_exists(upper_file));
}

TEST_F(OverlayFile, BesideTheMountIsLeft) {
    // The same device, and a name that only begins like the mount's.
    test::write_text(directory / "merged-not", "");
    EXPECT_FALSE(remove_through_overlay(directory / "merged-not", mounted("overlay", "upperdir=/u"), error));
    EXPECT_EQ(describe(error), mount_error("Failed to remove " + (directory / "merged-not") +
                                           ": It does not lie on the overlay " + (directory / "merged")));
}
