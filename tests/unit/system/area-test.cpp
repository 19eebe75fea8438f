#include "system/area.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "integration/script-policy.h"
#include "support.h"

namespace fs = std::filesystem;

class Area : public testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories(directory / "app/sub");
        fs::create_directories(directory / "app2");
        test::write_text(directory / "app/file", "old", 0640);
        test::write_text(directory / "app/sub/script", "x", 0640);
        test::write_text(directory / "app2/secret", "secret", 0600);
        fs::create_symlink("../app2", directory / "app/out");
        fs::create_symlink("sub", directory / "app/in");
        fs::create_symlink("../app2/secret", directory / "app/secret");
        fs::create_symlink("sub/script", directory / "app/script");
        area.emplace(std::move(*open_area(directory / "app", error)));
    }

    [[nodiscard]] std::string app(const std::string& name) const { return directory / ("app/" + name); }

    test::TemporaryDirectory directory;
    std::optional<AreaDirectory> area;
    ErrorSlot error;
};

TEST_F(Area, IsReachedThroughALinkOfTheSystemButNoOther) {
    fs::create_symlink("app", directory / "link");
    const auto linked = open_area(directory / "link", error);
    ASSERT_TRUE(linked);
    EXPECT_EQ(linked->path_of("x"), directory / "link/x");
    EXPECT_TRUE(open_area_directory(*linked, "sub", error));
    EXPECT_FALSE(open_area_directory(*linked, "in", error));
    EXPECT_EQ(test::describe(error),
              "10 src/system/area.cpp:N: Failed opening " + (directory / "link/in") + ": Not a directory");
    error.clear();
    EXPECT_FALSE(open_area(directory / "none", error));
    EXPECT_EQ(test::describe(error), "10 src/system/area.cpp:N: Failed opening " + (directory / "none") +
                                         ": No such file or directory");
}

TEST_F(Area, GetsDirectoriesOfTheSystemButNotInThePlaceOfALink) {
    EXPECT_TRUE(make_area_directory(*area, "conf", error));
    EXPECT_TRUE(make_area_directory(*area, "conf", error));
    EXPECT_EQ(test::mode_of(app("conf")), 0755U);
    EXPECT_FALSE(make_area_directory(*area, "out", error));
    EXPECT_EQ(test::describe(error), "1 Attempt to use reserved directory '" + app("out") + "' as a symlink");
    error.clear();
    EXPECT_FALSE(make_area_directory(*area, "file", error));
    EXPECT_EQ(test::describe(error),
              "10 src/system/area.cpp:N: Failed opening " + app("file") + ": Not a directory");
}

TEST_F(Area, StaysTheDirectoryThatWasOpenedWhateverTakesItsPlace) {
    fs::rename(directory / "app", directory / "moved");
    fs::create_symlink("app2", directory / "app");
    ASSERT_TRUE(write_area_file(*area, "file", "new", error));
    EXPECT_EQ(test::tree_of(directory / "app2"), std::vector<std::string>{"secret"});
    EXPECT_EQ(test::read_text(directory / "moved/file"), "new");
    EXPECT_EQ(test::mode_of(directory / "moved/file"), 0644U);
    ASSERT_TRUE(remove_area_file(*area, "file", error));
    EXPECT_FALSE(test::name_exists(directory / "moved/file"));
}

TEST_F(Area, HasItsLinksReplacedAndRemovedNotFollowed) {
    ASSERT_TRUE(write_area_file(*area, "secret", "new", error));
    EXPECT_EQ(test::read_text(directory / "app2/secret"), "secret");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(app("secret"))));
    ASSERT_TRUE(remove_area_file(*area, "script", error));
    EXPECT_TRUE(test::name_exists(app("sub/script")));
    EXPECT_TRUE(remove_area_file(*area, "none", error));
    EXPECT_FALSE(remove_area_file(*area, "sub", error));
    EXPECT_EQ(test::describe(error),
              "10 src/system/area.cpp:N: Failed removing " + app("sub") + ": Is a directory");
}

TEST_F(Area, NamesTheFileThatCouldNotBeWritten) {
    const std::vector<std::string> before = test::tree_of(directory / "app");
    EXPECT_FALSE(write_area_file(*area, "sub", "new", error));
    const std::string text = test::describe(error);
    const std::string place = "10 src/system/area.cpp:N: Failed writing to file: " + app("sub") + ": ";
    EXPECT_TRUE(text.starts_with(place + "rename " + app(".filesync-"))) << text;
    EXPECT_TRUE(text.ends_with(": Is a directory")) << text;
    EXPECT_EQ(test::tree_of(directory / "app"), before);
}

TEST_F(Area, GivesAwayALinkItself) {
    SKIP_UNLESS_ROOT();
    ASSERT_TRUE(set_area_owner(*area, "secret", 7, 8, error));
    struct stat status {};
    ASSERT_EQ(lstat(app("secret").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 7U);
    ASSERT_EQ(stat(app("secret").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 0U);
    EXPECT_FALSE(set_area_owner(*area, "none", 7, 8, error));
    EXPECT_EQ(test::describe(error), "10 src/system/area.cpp:N: Failed setting ownership of " + app("none") +
                                         ": No such file or directory");
}

TEST_F(Area, TellsTheKindOfAnEntryAndNotOfWhatALinkLeadsTo) {
    EXPECT_EQ(area_entry_kind(*area, "sub"), mode_t{S_IFDIR});
    EXPECT_EQ(area_entry_kind(*area, "file"), mode_t{S_IFREG});
    EXPECT_EQ(area_entry_kind(*area, "in"), mode_t{S_IFLNK});
    EXPECT_EQ(area_entry_kind(*area, "none"), mode_t{0});
}

TEST_F(Area, IsClearedOfAnEntryWhateverItIs) {
    for (const char* name : {"file", "sub", "out", "secret", "none"}) {
        EXPECT_TRUE(clear_area_entry(*area, name, error)) << name;
        EXPECT_EQ(area_entry_kind(*area, name), mode_t{0}) << name;
    }
    EXPECT_EQ(test::read_text(directory / "app2/secret"), "secret");
}

TEST_F(Area, NamesTheDirectoryThatCouldNotBeClearedAsPeopleKnowIt) {
    const test::LogCapture log;
    if (!test::is_root())
        GTEST_SKIP() << "needs somebody who may do less";
    ASSERT_EQ(chmod(directory.path().c_str(), 0755), 0);
    const test::ChildResult child = test::run_child([this] {
        if (setuid(65534) != 0 || clear_area_entry(*area, "sub", error))
            _exit(1);
        std::puts(test::describe(error).c_str());
    });
    EXPECT_EQ(child.output, "10 src/system/tree.cpp:N: Failed recursive removal of " + app("sub") + "\n");
    EXPECT_TRUE(test::name_exists(app("sub/script")));
}

TEST_F(Area, FindsRegularFilesOnlyAndWaitsForNothing) {
    ASSERT_EQ(mkfifo(app("pipe").c_str(), 0600), 0);
    for (const char* name : {"secret", "script", "sub", "in", "pipe", "none"})
        EXPECT_FALSE(find_area_file(*area, name)) << name;
    const auto file = find_area_file(*area, "file");
    ASSERT_TRUE(file);
    EXPECT_EQ(file->path(), app("file"));
    EXPECT_TRUE(file->flush(error));
    // It is this very file, whatever has its name by now.
    fs::rename(app("secret"), app("file"));
    EXPECT_EQ(test::read_text(file->access_path()), "old");
}

TEST_F(Area, GetsAFileOfRootsOwnOnlyWhereThereIsNoEntry) {
    const auto made = make_area_file(*area, "new", error);
    ASSERT_TRUE(made);
    test::write_text(made->access_path(), "text", 0600);
    EXPECT_EQ(test::read_text(app("new")), "text");
    EXPECT_EQ(test::mode_of(app("new")), 0600U);
    for (const char* name : {"new", "secret", "sub"}) {
        EXPECT_FALSE(make_area_file(*area, name, error)) << name;
        EXPECT_EQ(test::describe(error),
                  "10 src/system/area.cpp:N: Failed creating file " + app(name) + ": File exists");
        error.clear();
    }
    EXPECT_EQ(test::read_text(directory / "app2/secret"), "secret");
}

TEST_F(Area, HasAFileRenamedOverAnotherAndOverALink) {
    EXPECT_TRUE(flush_and_rename_area_file(*area, "file", "secret", error));
    EXPECT_EQ(test::read_text(app("secret")), "old");
    EXPECT_TRUE(flush_area_directory(*area, error));
    for (const char* name : {"none", "out", "sub"}) {
        EXPECT_TRUE(flush_and_rename_area_file(*area, name, "target", error)) << name;
        EXPECT_FALSE(test::name_exists(app("target"))) << name;
    }
    EXPECT_FALSE(flush_and_rename_area_file(*area, "secret", "sub", error));
    EXPECT_EQ(test::describe(error), "10 src/system/area.cpp:N: Failed renaming " + app("secret") + " to " +
                                         app("sub") + ": Is a directory");
    EXPECT_EQ(test::read_text(directory / "app2/secret"), "secret");
}

TEST_F(Area, HasPathsThatOtherProgramsCanUse) {
    const auto made = make_area_file(*area, "new", error);
    ASSERT_TRUE(made);
    test::shell("cp -fdr '" + area->access_path("file") + "' '" + made->access_path() + "'");
    EXPECT_EQ(test::read_text(app("new")), "old");
}

TEST_F(Area, GivesFailuresUpWithThePathsThatPeopleKnow) {
    ErrorSlot failure;
    velkctl_error_set(failure, VELKCTL_ERROR_SIGNATURE, "From %s to %s and %s",
                      area->access_path("a").c_str(), area->access_path("b").c_str(), "/c");
    move_with_known_paths(failure, {{area->access_path(""), area->path_of("")}, {"/c", "/known"}}, error);
    EXPECT_EQ(test::describe(error), "2 From " + app("a") + " to " + app("b") + " and /known");
}

TEST_F(Area, OpensAFileThroughLinksThatStayInside) {
    const auto file = open_area_file(*area, "script", "Failed setting permissions for", error);
    ASSERT_TRUE(file);
    ASSERT_TRUE(file->set_mode(0755, error));
    EXPECT_EQ(test::mode_of(app("sub/script")), 0755U);
}

TEST_F(Area, OpensNoFileOutside) {
    for (const char* name : {"secret", "out/secret", "../app2/secret", "sub/../../app2/secret"}) {
        EXPECT_FALSE(open_area_file(*area, name, "Failed setting permissions for", error)) << name;
        EXPECT_EQ(test::describe(error),
                  "1 Path " + app(name) + " is outside of application directory " + (directory / "app"));
        error.clear();
    }
    EXPECT_FALSE(open_area_file(*area, "none", "Failed setting permissions for", error));
    EXPECT_EQ(test::describe(error), "10 src/system/area.cpp:N: Failed setting permissions for " +
                                         app("none") + ": No such file or directory");
}

TEST_F(Area, GetsEmptyFilesWithAnExactModeAndKeepsExistingOnes) {
    const mode_t old = umask(077);
    EXPECT_TRUE(create_area_file(*area, "sub/new", 0750, geteuid(), getegid(), error));
    umask(old);
    EXPECT_EQ(test::mode_of(app("sub/new")), 0750U);
    EXPECT_EQ(test::read_text(app("sub/new")), "");
    EXPECT_TRUE(create_area_file(*area, "file", 0750, geteuid(), getegid(), error));
    EXPECT_EQ(test::read_text(app("file")), "old");
    EXPECT_EQ(test::mode_of(app("file")), 0640U);
}

TEST_F(Area, GetsNoFileBehindALink) {
    for (const char* name : {"out/new", "in/new", "../app2/new"}) {
        EXPECT_FALSE(create_area_file(*area, name, 0750, geteuid(), getegid(), error)) << name;
        EXPECT_EQ(test::describe(error).find("10 src/system/area.cpp:N: Failed creating file " + app(name)),
                  0U);
        error.clear();
    }
    EXPECT_EQ(test::tree_of(directory / "app2"), std::vector<std::string>{"secret"});
}

TEST_F(Area, GetsALinkUnlessTheNameIsTaken) {
    EXPECT_TRUE(make_area_link_if_absent(*area, "/target", "fresh", error));
    EXPECT_EQ(fs::read_symlink(app("fresh")), "/target");
    EXPECT_TRUE(make_area_link_if_absent(*area, "/target", "file", error));
    EXPECT_EQ(test::read_text(app("file")), "old");
}

TEST_F(Area, LosesFilesOfTheSystemOnlyWhereTheSystemPutThem) {
    EXPECT_TRUE(remove_file_in_application(directory / "app", "out", "secret", error));
    EXPECT_TRUE(remove_file_in_application(directory / "app", "none", "secret", error));
    EXPECT_TRUE(remove_file_in_application(directory / "none", "sub", "secret", error));
    EXPECT_TRUE(test::name_exists(directory / "app2/secret"));
    EXPECT_TRUE(remove_file_in_application(directory / "app", "sub", "script", error));
    EXPECT_FALSE(test::name_exists(app("sub/script")));
}

// --- the treatment of scripts ---

class InstallScript : public Area {
  protected:
    std::string prepare(const InstallScriptPolicy& policy, const std::string& script) {
        error.clear();
        return prepare_install_script(policy, *area, script, error) ? "done" : test::describe(error);
    }
};

TEST_F(InstallScript, IsMadeExecutableByTheShippedPolicy) {
    EXPECT_EQ(prepare(install_script_policy(), "sub/script"), "done");
    EXPECT_EQ(test::mode_of(app("sub/script")), 0755U);
}

TEST_F(InstallScript, MustBeExecutableAlreadyByTheStrictPolicy) {
    EXPECT_EQ(prepare(STRICT_SCRIPT_POLICY, "sub/script"),
              "1 Install script 'sub/script' is not set as executable.");
    EXPECT_EQ(test::mode_of(app("sub/script")), 0640U);
    ASSERT_EQ(chmod(app("sub/script").c_str(), 0500), 0);
    EXPECT_EQ(prepare(STRICT_SCRIPT_POLICY, "sub/script"), "done");
    EXPECT_EQ(prepare(STRICT_SCRIPT_POLICY, "sub"), "1 Install script 'sub' is not set as executable.");
}

TEST_F(InstallScript, MustBeARegularFileInsideTheTree) {
    const std::string place = "10 src/system/area.cpp:N: Failed setting permissions for ";
    EXPECT_EQ(prepare(SHIPPED_SCRIPT_POLICY, "secret"),
              "1 Path " + app("secret") + " is outside of application directory " + (directory / "app"));
    EXPECT_EQ(prepare(SHIPPED_SCRIPT_POLICY, "sub"), place + app("sub") + ": Is a directory");
    ASSERT_EQ(mkfifo(app("fifo").c_str(), 0600), 0);
    EXPECT_EQ(prepare(SHIPPED_SCRIPT_POLICY, "fifo"), place + app("fifo") + ": Invalid argument");
    EXPECT_EQ(prepare(SHIPPED_SCRIPT_POLICY, "none"),
              "10 The manifest lists an install script, 'none', but the file is missing.");
    EXPECT_EQ(test::mode_of(directory / "app2/secret"), 0600U);
}

TEST(InstallScriptTimeout, IsCappedByTheStrictPolicyOnly) {
    EXPECT_EQ(effective_script_timeout(install_script_policy(), 100000), 100000);
    EXPECT_EQ(effective_script_timeout(STRICT_SCRIPT_POLICY, 331), 330);
    EXPECT_EQ(effective_script_timeout(STRICT_SCRIPT_POLICY, 330), 330);
    EXPECT_EQ(effective_script_timeout(STRICT_SCRIPT_POLICY, 1), 1);
}
