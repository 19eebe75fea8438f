#include "system/file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>

#include "base/handles.h"
#include "support.h"

using test::describe;
using testing::ElementsAre;
using testing::EndsWith;
using testing::StartsWith;

namespace fs = std::filesystem;

static std::string file_error(const std::string& text) { return "10 src/system/file.cpp:N: " + text; }

class File : public testing::Test {
  protected:
    test::TemporaryDirectory directory;
    const std::string file = directory / "file";
    const std::string absent = directory / "absent";
    const std::string below_absent = absent + "/x";
    ErrorSlot error;
};

// --- Contents ---

TEST_F(File, IsReadWhole) {
    for (const size_t size : {0U, 1U, 1023U, 1024U, 1025U, 2048U, 100'000U}) {
        test::write_text(file, std::string(size, 'x'));
        EXPECT_EQ(read_file(file, error), std::string(size, 'x'));
    }
    test::write_text(file, std::string("a\0b", 3));
    EXPECT_EQ(read_file(file, error), std::string("a\0b", 3));
    EXPECT_EQ(describe(error), "none");
}

TEST_F(File, ThatCannotBeReadIsAnError) {
    EXPECT_FALSE(read_file(absent, error));
    EXPECT_EQ(describe(error), file_error("Failed opening " + absent + ": No such file or directory"));
    error.clear();
    EXPECT_FALSE(read_file(directory.path(), error));
    EXPECT_EQ(describe(error), file_error("Failed opening " + directory.path() + ": Is a directory"));
    EXPECT_FALSE(read_file(absent, nullptr));
}

TEST_F(File, ThatDoesNotFitTheMemoryIsAnError) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's own memory does not fit the limit";
#endif
    test::write_text(file, "");
    ASSERT_EQ(truncate(file.c_str(), off_t{1} << 30), 0);
    const test::ChildResult result = test::run_child([this] {
        const rlimit little{256 << 20, 256 << 20};
        setrlimit(RLIMIT_AS, &little);
        const bool is_read = read_file(file, error).has_value();
        std::fprintf(stdout, "%d %s", is_read, describe(error).c_str());
    });
    EXPECT_THAT(
        result.output,
        testing::MatchesRegex(
            "0 10 src/system/file\\.cpp:N: Failed to allocate [0-9]+ bytes when reading from " + file));
}

TEST_F(File, IsWrittenWithModeWhateverTheUmask) {
    const test::ChildResult child = test::run_child([this] {
        umask(0077);
        if (!write_file(directory / "text", "a\n", error) ||
            !write_executable_file(directory / "program", "b\n", error) ||
            !write_file_len(directory / "counted", "c\0d", 3, error))
            _exit(1);
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_EQ(test::read_text(directory / "text"), "a\n");
    EXPECT_EQ(test::mode_of(directory / "text"), 0644U);
    EXPECT_EQ(test::read_text(directory / "program"), "b\n");
    EXPECT_EQ(test::mode_of(directory / "program"), 0755U);
    EXPECT_EQ(test::read_text(directory / "counted"), std::string("c\0d", 3));
    EXPECT_EQ(test::mode_of(directory / "counted"), 0644U);
    EXPECT_THAT(test::tree_of(directory.path()), ElementsAre("counted", "program", "text"));
}

TEST_F(File, IsReplacedAndNotWrittenThroughALink) {
    test::write_text(file, "victim");
    fs::create_symlink(file, directory / "link");
    EXPECT_TRUE(write_file(directory / "link", "mine", error));
    EXPECT_EQ(test::read_text(file), "victim");
    EXPECT_EQ(test::read_text(directory / "link"), "mine");
    EXPECT_TRUE(is_regular_file_no_follow(directory / "link"));
}

TEST_F(File, ThatCannotBeWrittenIsAnError) {
    const std::string start = file_error("Failed writing to file: " + below_absent + ": ");
    EXPECT_FALSE(write_file(below_absent, "x", error));
    EXPECT_THAT(describe(error), StartsWith(start));
    EXPECT_THAT(error.message(), EndsWith(": No such file or directory"));
    error.clear();
    EXPECT_FALSE(write_executable_file(below_absent, "x", error));
    EXPECT_THAT(describe(error), StartsWith(start));
    error.clear();
    EXPECT_FALSE(write_file_len(below_absent, "x", 1, error));
    EXPECT_THAT(describe(error), StartsWith(start));
    EXPECT_FALSE(write_file(below_absent, "x", nullptr));
}

TEST_F(File, GrowsAtItsEnd) {
    test::write_text(file, "one\n", 0600);
    EXPECT_TRUE(append_to_file(file, "two\n", error));
    EXPECT_TRUE(append_to_file(file, "", error));
    EXPECT_EQ(test::read_text(file), "one\ntwo\n");
    EXPECT_EQ(test::mode_of(file), 0600U);
}

TEST_F(File, ThatIsAbsentCannotGrow) {
    EXPECT_FALSE(append_to_file(absent, "x", error));
    EXPECT_EQ(describe(error), file_error("Failed opening " + absent + ": No such file or directory"));
    EXPECT_FALSE(test::name_exists(absent));
}

TEST_F(File, ThatCannotTakeMoreIsNoErrorForAppending) {
    test::write_text(file, "0123456789abcdef");
    const test::ChildResult child = test::run_child([this] {
        const rlimit limit{16, 16};
        setrlimit(RLIMIT_FSIZE, &limit);
        signal(SIGXFSZ, SIG_IGN);
        if (!append_to_file(file, "more", error))
            _exit(1);
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_EQ(test::read_text(file), "0123456789abcdef");
}

TEST_F(File, AndDirectoryCanBeFlushed) {
    test::write_text(file, "x");
    EXPECT_TRUE(flush_path(file, error));
    EXPECT_TRUE(flush_path(directory.path(), error));
    EXPECT_FALSE(flush_path(absent, error));
    EXPECT_EQ(describe(error), file_error("Failed flushing " + absent + ": No such file or directory"));
}

TEST_F(File, ThatCannotBeSyncedIsAFlushError) {
    ASSERT_EQ(mkfifo((directory / "fifo").c_str(), 0600), 0);
    const UniqueFd both(
        open((directory / "fifo").c_str(), O_RDWR | O_CLOEXEC));  // so that opening does not block
    EXPECT_FALSE(flush_path(directory / "fifo", error));
    EXPECT_EQ(describe(error), file_error("Failed flushing " + (directory / "fifo") + ": Invalid argument"));
}

TEST_F(File, IsFlushedAndRenamedOverAnother) {
    test::write_text(file, "new");
    test::write_text(directory / "target", "old");
    EXPECT_TRUE(flush_and_rename(file, directory / "target", error));
    EXPECT_EQ(test::read_text(directory / "target"), "new");
    EXPECT_FALSE(test::name_exists(file));
}

TEST_F(File, ThatCannotBeRenamedStays) {
    test::write_text(file, "x");
    EXPECT_FALSE(flush_and_rename(file, below_absent, error));
    EXPECT_EQ(describe(error),
              file_error("Failed renaming " + file + " to " + below_absent + ": No such file or directory"));
    EXPECT_TRUE(test::name_exists(file));
    error.clear();
    EXPECT_FALSE(flush_and_rename(absent, directory / "target", error));
    EXPECT_EQ(describe(error), file_error("Failed flushing " + absent + ": No such file or directory"));
}

TEST_F(File, IsRenamedOnlyIfPresent) {
    EXPECT_TRUE(flush_and_rename_if_present(absent, directory / "target", error));
    EXPECT_FALSE(test::name_exists(directory / "target"));
    fs::create_symlink("nowhere", directory / "dangling");
    EXPECT_TRUE(flush_and_rename_if_present(directory / "dangling", directory / "target", error));
    EXPECT_FALSE(test::name_exists(directory / "target"));
    test::write_text(file, "x");
    EXPECT_TRUE(flush_and_rename_if_present(file, directory / "target", error));
    fs::create_directory(directory / "sub");
    EXPECT_TRUE(flush_and_rename_if_present(directory / "sub", directory / "moved", error));
    EXPECT_THAT(test::tree_of(directory.path()), ElementsAre("dangling", "moved", "target"));
    EXPECT_FALSE(flush_and_rename_if_present(directory / "target", below_absent, error));
    EXPECT_EQ(describe(error), file_error("Failed renaming " + (directory / "target") + " to " +
                                          below_absent + ": No such file or directory"));
}

TEST_F(File, IsCopiedWithLinksAsLinks) {
    fs::create_directories(directory / "from/sub");
    test::write_text(directory / "from/sub/file", "x", 0640);
    fs::create_symlink("sub/file", directory / "from/link");
    EXPECT_TRUE(copy_path(directory / "from", directory / "to", error)) << error.message();
    EXPECT_THAT(test::tree_of(directory / "to"), ElementsAre("link", "sub", "sub/file"));
    EXPECT_TRUE(is_symlink(directory / "to/link"));
    EXPECT_EQ(test::read_text(directory / "to/link"), "x");
}

TEST_F(File, ThatCannotBeCopiedIsTheCommandsError) {
    const test::ChildResult result = test::run_child([this] {
        errno = 0;
        const bool is_copied = copy_path(absent, directory / "to", error);
        std::fprintf(stdout, "%d %s", is_copied, describe(error).c_str());
    });
    EXPECT_EQ(result.output, "0 10 src/system/subprocess.cpp:N: Failed running \"cp -fdr '" + absent + "' '" +
                                 (directory / "to") + "'\"");
    EXPECT_THAT(result.errors, StartsWith("cp: "));
    EXPECT_FALSE(copy_path(directory / "a b", directory / "to", error));
    EXPECT_EQ(describe(error), "10 Illegal argument to shell command: " + (directory / "a b"));
}

TEST_F(File, IsCopiedOnlyIfPresent) {
    EXPECT_TRUE(copy_path_if_present(absent, directory / "to", error));
    EXPECT_FALSE(test::name_exists(directory / "to"));
    test::write_text(file, "x");
    EXPECT_TRUE(copy_path_if_present(file, directory / "to", error));
    EXPECT_EQ(test::read_text(directory / "to"), "x");
}

// --- Owner and mode ---

/** A file and a link to it; only root may give files away. */
class Owner : public File {
  protected:
    void SetUp() override {
        SKIP_UNLESS_ROOT();
        test::write_text(file, "x");
        fs::create_symlink(file, link);
        ASSERT_EQ(chown(file.c_str(), 1, 1), 0);
        ASSERT_EQ(lchown(link.c_str(), 1, 1), 0);
    }

    [[nodiscard]] static std::string owner_of(const std::string& path) {
        struct stat status {};
        EXPECT_EQ(lstat(path.c_str(), &status), 0);
        return std::to_string(status.st_uid) + ":" + std::to_string(status.st_gid);
    }

    const std::string link = directory / "link";
};

TEST_F(Owner, IsSetByIdsAndNotThroughALink) {
    EXPECT_TRUE(set_owner_ids(file, 12, 34, error));
    EXPECT_EQ(owner_of(file), "12:34");
    EXPECT_TRUE(set_owner_ids(link, 56, 78, error));
    EXPECT_EQ(owner_of(link), "56:78");
    EXPECT_EQ(owner_of(file), "12:34");
}

TEST_F(Owner, IsSetByUserNameOrKept) {
    EXPECT_TRUE(set_owner(link, "nobody", 34, error));
    EXPECT_EQ(owner_of(link), "65534:34");
    EXPECT_TRUE(set_owner(link, std::nullopt, 35, error));
    EXPECT_EQ(owner_of(link), "65534:35");
    EXPECT_EQ(owner_of(file), "1:1");
}

TEST_F(Owner, IsSetByNamesWithTheGroupKeptOrNot) {
    EXPECT_TRUE(set_owner_names(link, "nobody", std::nullopt, error));
    EXPECT_EQ(owner_of(link), "65534:1");
    EXPECT_TRUE(set_owner_names(link, "root", "root", error));
    EXPECT_EQ(owner_of(link), "0:0");
    EXPECT_EQ(owner_of(file), "1:1");
}

TEST_F(Owner, IsChangedByNames) {
    EXPECT_TRUE(change_owner(link, "nobody", "root", error));
    EXPECT_EQ(owner_of(link), "65534:0");
    EXPECT_EQ(owner_of(file), "1:1");
}

TEST_F(Owner, ThatDoesNotExistChangesNothing) {
    const std::string user = "10 src/system/user-database.cpp:N: User no-such-user does not exist";
    const std::string group = "10 src/system/user-database.cpp:N: Group no-such-group does not exist";
    EXPECT_FALSE(set_owner(file, "no-such-user", 0, error));
    EXPECT_EQ(describe(error), user);
    error.clear();
    EXPECT_FALSE(set_owner_names(file, "no-such-user", "root", error));
    EXPECT_EQ(describe(error), user);
    error.clear();
    EXPECT_FALSE(set_owner_names(file, "root", "no-such-group", error));
    EXPECT_EQ(describe(error), group);
    error.clear();
    EXPECT_FALSE(change_owner(file, "no-such-user", "no-such-group", error));
    EXPECT_EQ(describe(error), user);
    error.clear();
    EXPECT_FALSE(change_owner(file, "root", "no-such-group", error));
    EXPECT_EQ(describe(error), group);
    EXPECT_EQ(owner_of(file), "1:1");
}

TEST_F(Owner, OfAnAbsentFileCannotBeSet) {
    const std::string text =
        file_error("Failed setting ownership of " + absent + ": No such file or directory");
    EXPECT_FALSE(set_owner_ids(absent, 1, 1, error));
    EXPECT_EQ(describe(error), text);
    error.clear();
    EXPECT_FALSE(set_owner(absent, "root", 0, error));
    EXPECT_EQ(describe(error), text);
    error.clear();
    EXPECT_FALSE(set_owner_names(absent, "root", "root", error));
    EXPECT_EQ(describe(error), text);
    error.clear();
    EXPECT_FALSE(change_owner(absent, "nobody", "root", error));
    EXPECT_EQ(describe(error), file_error("Failed changing ownership of " + absent +
                                          " to nobody:root: No such file or directory"));
}

TEST_F(Owner, IsSetWithTheMode) {
    EXPECT_TRUE(set_owner_and_mode(file, "root", "root", 0444, error));
    EXPECT_EQ(owner_of(file), "0:0");
    EXPECT_EQ(test::mode_of(file), 0444U);
    EXPECT_FALSE(set_owner_and_mode(file, "no-such-user", "root", 0777, error));
    EXPECT_EQ(test::mode_of(file), 0444U);
}

TEST_F(File, GetsAModeExactlyWhateverTheUmask) {
    test::write_text(file, "x");
    EXPECT_TRUE(set_mode(file, 0777, error));
    EXPECT_EQ(test::mode_of(file), 0777U);
    EXPECT_FALSE(set_mode(absent, 0600, error));
    EXPECT_EQ(describe(error),
              file_error("Failed setting permissions for " + absent + ": No such file or directory"));
}

TEST_F(File, MustHaveEveryRequiredPermission) {
    test::write_text(file, "x", 0755);
    EXPECT_TRUE(check_permissions(file, 0500, false, error));
    EXPECT_TRUE(check_permissions(file, 0755, false, error));
    EXPECT_TRUE(check_permissions(file, 0, false, error));
    test::write_text(file, "x", 0644);
    EXPECT_FALSE(check_permissions(file, 0500, false, error));
    EXPECT_EQ(describe(error), file_error("File " + file + " does not have required permissions: 0644"));
}

TEST_F(File, MustHaveExactPermissions) {
    test::write_text(file, "x", 0755);
    EXPECT_TRUE(check_permissions(file, 0755, true, error));
    EXPECT_FALSE(check_permissions(file, 0500, true, error));
    EXPECT_EQ(describe(error), file_error("File " + file + " has improper permissions: 0755"));
}

TEST_F(File, IsJudgedByItsLowNinePermissionBits) {
    test::write_text(file, "x", 04755);
    EXPECT_TRUE(check_permissions(file, 0755, true, error));
    EXPECT_FALSE(check_permissions(file, 0777, true, error));
    EXPECT_EQ(describe(error), file_error("File " + file + " has improper permissions: 0755"));
}

TEST_F(File, ThatIsAbsentHasNoPermissions) {
    EXPECT_FALSE(check_permissions(absent, 0, false, error));
    EXPECT_EQ(describe(error), file_error("Failed to stat " + absent + ": No such file or directory"));
}

TEST_F(File, CanBeMadeImmutableAndMutableAgain) {
    if (!test::can_make_immutable(directory.path()))
        GTEST_SKIP() << "needs the immutable attribute";
    test::write_text(file, "x");
    EXPECT_TRUE(set_immutable(file, true, error));
    EXPECT_NE(unlink(file.c_str()), 0);
    EXPECT_TRUE(set_immutable(file, false, error));
    EXPECT_EQ(unlink(file.c_str()), 0);
}

TEST_F(File, WhoseAttributeCannotBeSetIsAnErrorWithOneText) {
    EXPECT_FALSE(set_immutable(absent, true, error));
    EXPECT_EQ(describe(error), file_error("Failed to set mutable attribute of " + absent + " to immutable"));
    error.clear();
    EXPECT_FALSE(set_immutable(absent, false, error));
    EXPECT_EQ(describe(error), file_error("Failed to set mutable attribute of " + absent + " to mutable"));
    error.clear();
    EXPECT_FALSE(set_immutable(directory / "a b", false, error));
    EXPECT_EQ(describe(error),
              file_error("Failed to set mutable attribute of " + (directory / "a b") + " to mutable"));
    EXPECT_FALSE(set_immutable(absent, true, nullptr));
}

TEST_F(File, ThatIsImmutableIsRemovedWithItsAttribute) {
    if (!test::can_make_immutable(directory.path()))
        GTEST_SKIP() << "needs the immutable attribute";
    test::write_text(file, "x");
    ASSERT_TRUE(set_immutable(file, true, error));
    EXPECT_TRUE(remove_immutable(file, error));
    EXPECT_FALSE(test::name_exists(file));
    EXPECT_FALSE(remove_immutable(file, error));
    EXPECT_EQ(describe(error), file_error("Failed to set mutable attribute of " + file + " to mutable"));
}

TEST_F(File, ThatCannotBeRemovedAlthoughMutableIsAnError) {
    if (!test::can_make_immutable(directory.path()))
        GTEST_SKIP() << "needs the immutable attribute";
    fs::create_directories(directory / "full/sub");
    EXPECT_FALSE(remove_immutable(directory / "full", error));
    EXPECT_EQ(describe(error),
              file_error("Failed to remove " + (directory / "full") + ": Directory not empty"));
}
