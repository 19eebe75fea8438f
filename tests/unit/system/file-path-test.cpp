#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <filesystem>

#include "support.h"
#include "system/file.h"

using test::describe;
using testing::ElementsAre;
using testing::EndsWith;

namespace fs = std::filesystem;

static std::string file_error(const std::string& text) { return "10 src/system/file.cpp:N: " + text; }

/** A directory with one entry of each kind. */
class Entry : public testing::Test {
  protected:
    void SetUp() override {
        test::write_text(file, "x");
        fs::create_directory(sub);
        fs::create_symlink(file, link);
        fs::create_symlink(sub, directory_link);
        fs::create_symlink("nowhere", dangling);
    }

    test::TemporaryDirectory directory;
    const std::string file = directory / "file";
    const std::string sub = directory / "sub";
    const std::string link = directory / "link";
    const std::string directory_link = directory / "directory-link";
    const std::string dangling = directory / "dangling";
    const std::string absent = directory / "absent";
    const std::string below_file = file + "/x";
    ErrorSlot error;
};

// --- Questions ---

TEST_F(Entry, IsOfOneKind) {
    const auto kinds = [](const std::string& path) {
        return std::string(is_directory(path) ? "d" : "-") + (is_directory_no_follow(path) ? "D" : "-") +
               (is_regular_file(path) ? "f" : "-") + (is_regular_file_no_follow(path) ? "F" : "-") +
               (is_directory_or_regular_file(path) ? "e" : "-") + (is_symlink(path) ? "l" : "-");
    };
    ASSERT_EQ(mkfifo((directory / "fifo").c_str(), 0600), 0);
    EXPECT_EQ(kinds(sub), "dD--e-");
    EXPECT_EQ(kinds(file), "--fFe-");
    EXPECT_EQ(kinds(link), "--f-el");
    EXPECT_EQ(kinds(directory_link), "d---el");
    EXPECT_EQ(kinds(dangling), "-----l");
    EXPECT_EQ(kinds(directory / "fifo"), "------");
    EXPECT_EQ(kinds(absent), "------");
    EXPECT_EQ(kinds(below_file), "------");
    EXPECT_EQ(kinds(""), "------");
}

TEST_F(Entry, ExistsOrNotWithoutAnError) {
    EXPECT_TRUE(path_exists(file, error));
    EXPECT_TRUE(path_exists(sub, error));
    EXPECT_TRUE(path_exists(link, error));
    EXPECT_FALSE(path_exists(dangling, error));
    EXPECT_FALSE(path_exists(absent, error));
    EXPECT_FALSE(path_exists(absent + "/x", error));
    EXPECT_EQ(describe(error), "none");
}

TEST_F(Entry, WhoseExistenceCannotBeToldIsAnError) {
    EXPECT_FALSE(path_exists(below_file, error));
    EXPECT_EQ(describe(error),
              file_error("Failed to check existence of " + below_file + ": Not a directory"));
    EXPECT_FALSE(path_exists(below_file, nullptr));
}

TEST_F(Entry, CanBeRequired) {
    EXPECT_TRUE(require_path(file, error));
    EXPECT_EQ(describe(error), "none");
    EXPECT_FALSE(require_path(absent, error));
    EXPECT_EQ(describe(error), file_error("Path not found: " + absent));
    error.clear();
    EXPECT_FALSE(require_path(below_file, error));
    EXPECT_EQ(describe(error),
              file_error("Failed to check existence of " + below_file + ": Not a directory"));
    EXPECT_FALSE(require_path(absent, nullptr));
    EXPECT_FALSE(require_path(below_file, nullptr));
}

// --- Links and removal ---

TEST_F(Entry, IsLinkedToByANewName) {
    EXPECT_TRUE(make_symlink("some/target", directory / "new", error));
    EXPECT_EQ(fs::read_symlink(directory / "new"), "some/target");
    for (const std::string& existing : {file, link, dangling, sub}) {
        ErrorSlot reason;
        EXPECT_FALSE(make_symlink("some/target", existing, reason));
        EXPECT_EQ(describe(reason), file_error("Failed creating symbolic link from " + existing +
                                               " to some/target: error File exists"));
    }
    EXPECT_EQ(fs::read_symlink(link), file);
}

TEST_F(Entry, IsLinkedToByANameThatMayExist) {
    EXPECT_TRUE(make_symlink_if_absent("some/target", directory / "new", error));
    EXPECT_EQ(fs::read_symlink(directory / "new"), "some/target");
    for (const std::string& existing : {file, link, dangling, sub})
        EXPECT_TRUE(make_symlink_if_absent("some/target", existing, error)) << existing;
    EXPECT_EQ(fs::read_symlink(dangling), "nowhere");
    EXPECT_FALSE(make_symlink_if_absent("some/target", absent + "/x", error));
    EXPECT_EQ(describe(error), file_error("Failed creating symbolic link from " + absent +
                                          "/x to some/target: error No such file or directory"));
}

TEST_F(Entry, IsComparedWithTheTextOfALink) {
    EXPECT_TRUE(is_symlink_target_equal_to(link, file));
    EXPECT_FALSE(is_symlink_target_equal_to(link, file + "/"));
    EXPECT_FALSE(is_symlink_target_equal_to(link, directory.path()));
    EXPECT_FALSE(is_symlink_target_equal_to(link, file + "x"));
    EXPECT_FALSE(is_symlink_target_equal_to(file, file));
    EXPECT_FALSE(is_symlink_target_equal_to(absent, file));
}

TEST_F(Entry, IsComparedWithTheFirst1023BytesOfALink) {
    const std::string target = "/" + std::string(1022, 't');
    fs::create_symlink(target, directory / "fits");
    fs::create_symlink(target + "more", directory / "longer");
    EXPECT_TRUE(is_symlink_target_equal_to(directory / "fits", target));
    EXPECT_FALSE(is_symlink_target_equal_to(directory / "longer", target + "more"));
}

TEST_F(Entry, IsComparedWithAnAbsoluteTargetOnly) {
    const test::ChildResult result =
        test::run_child([this] { (void)is_symlink_target_equal_to(link, "file"); });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.errors, EndsWith("Assertion `is_absolute_path(target_to_compare_with)' failed.\n"));
}

TEST_F(Entry, ThatIsAFileOrLinkIsRemovedAlone) {
    EXPECT_TRUE(remove_file(link, error));
    EXPECT_TRUE(remove_file(dangling, error));
    EXPECT_TRUE(test::name_exists(file));
    EXPECT_TRUE(remove_file(file, error));
    EXPECT_TRUE(remove_file(file, error));
    EXPECT_THAT(test::tree_of(directory.path()), ElementsAre("directory-link", "sub"));
    EXPECT_EQ(describe(error), "none");
}

TEST_F(Entry, ThatIsADirectoryIsNoFileToRemove) {
    EXPECT_FALSE(remove_file(sub, error));
    EXPECT_EQ(describe(error), file_error("Failed removing " + sub + ": Is a directory"));
    EXPECT_TRUE(test::name_exists(sub));
}

TEST_F(Entry, IsRemovedOnlyIfALink) {
    for (const std::string& path : {file, sub, link, directory_link, dangling, absent})
        EXPECT_TRUE(remove_if_symlink(path, error)) << path;
    EXPECT_THAT(test::tree_of(directory.path()), ElementsAre("file", "sub"));
}

TEST_F(Entry, IsRemovedOnlyIfAnEmptyDirectory) {
    for (const std::string& path : {file, sub, link, directory_link, dangling, absent})
        EXPECT_TRUE(remove_empty_dir(path, error)) << path;
    EXPECT_THAT(test::tree_of(directory.path()), ElementsAre("dangling", "directory-link", "file", "link"));
}

TEST_F(Entry, IsRemovedIfALinkOrAnEmptyDirectory) {
    for (const std::string& path : {file, sub, link, directory_link, dangling, absent})
        EXPECT_TRUE(remove_link_or_empty_dir(path, error)) << path;
    EXPECT_THAT(test::tree_of(directory.path()), ElementsAre("file"));
}

TEST_F(Entry, ThatIsAFullDirectoryStays) {
    test::write_text(sub + "/inner", "");
    const std::string text =
        file_error("Failed to remove non-empty directory " + sub + ": Directory not empty");
    EXPECT_FALSE(remove_empty_dir(sub, error));
    EXPECT_EQ(describe(error), text);
    error.clear();
    EXPECT_FALSE(remove_link_or_empty_dir(sub, error));
    EXPECT_EQ(describe(error), text);
    EXPECT_TRUE(test::name_exists(sub + "/inner"));
}

// --- Directories ---

TEST_F(Entry, IsMadeADirectoryWithAMode) {
    const test::ChildResult child = test::run_child([this] {
        umask(022);
        if (!make_dir(directory / "new", 0750, error) || !make_dir(directory / "masked", 0776, error))
            _exit(1);
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_EQ(test::mode_of(directory / "new"), 0750U);
    EXPECT_EQ(test::mode_of(directory / "masked"), 0754U);
}

TEST_F(Entry, ThatExistsCountsAsMade) {
    const mode_t mode = test::mode_of(sub);
    for (const std::string& path : {sub, file, link, dangling})
        EXPECT_TRUE(make_dir(path, 0700, error)) << path;
    EXPECT_EQ(test::mode_of(sub), mode);
    EXPECT_TRUE(make_dirs(sub, error));
    EXPECT_TRUE(make_dirs(directory_link, error));
}

TEST_F(Entry, ThatCannotBeMadeADirectoryIsAnError) {
    EXPECT_FALSE(make_dir(absent + "/x", 0755, error));
    EXPECT_EQ(describe(error),
              file_error("Could not create directory " + absent + "/x: No such file or directory"));
    error.clear();
    EXPECT_FALSE(make_dirs(below_file, error));
    EXPECT_EQ(describe(error), file_error("Could not create directory " + below_file + ": Not a directory"));
    error.clear();
    EXPECT_FALSE(make_dirs_group(below_file, error));
    EXPECT_EQ(describe(error), file_error("Could not create directory " + below_file + ": Not a directory"));
    error.clear();
    EXPECT_FALSE(make_dirs_owned(below_file, 1, 1, error));
    EXPECT_EQ(describe(error), file_error("Could not create directory " + below_file + ": Not a directory"));
}

TEST_F(Entry, IsMadeWithItsParents) {
    const test::ChildResult child = test::run_child([this] {
        umask(0);
        if (!make_dirs(directory / "a/b", error) || !make_dirs_group(directory / "g/h", error))
            _exit(1);
    });
    EXPECT_EQ(child.exit_status, 0);
    for (const char* name : {"a", "a/b"})
        EXPECT_EQ(test::mode_of(directory / name), 0755U) << name;
    for (const char* name : {"g", "g/h"})
        EXPECT_EQ(test::mode_of(directory / name), 0775U) << name;
}

TEST_F(Entry, IsMadeWithItsParentsAndGivenAway) {
    SKIP_UNLESS_ROOT();
    EXPECT_TRUE(make_dirs_owned(directory / "a/b", 12, 34, error));
    struct stat parent {};
    struct stat inner {};
    ASSERT_EQ(stat((directory / "a").c_str(), &parent), 0);
    ASSERT_EQ(stat((directory / "a/b").c_str(), &inner), 0);
    EXPECT_EQ(inner.st_uid, 12U);
    EXPECT_EQ(inner.st_gid, 34U);
    EXPECT_EQ(inner.st_mode & 07777, 0751U);
    EXPECT_EQ(parent.st_uid, 0U);
    EXPECT_EQ(parent.st_mode & 07777, 0751U);
}

TEST_F(Entry, IsMadeReservedUnlessItIsALink) {
    EXPECT_TRUE(make_reserved_dir(directory / "new", 0755, error));
    EXPECT_TRUE(make_reserved_dir(directory / "new", 0775, error));
    EXPECT_TRUE(make_reserved_dir(sub, 0776, error));
    EXPECT_EQ(test::mode_of(directory / "new"), 0755U);
    for (const std::string& path : {link, directory_link, dangling}) {
        ErrorSlot reason;
        EXPECT_FALSE(make_reserved_dir(path, 0755, reason));
        EXPECT_EQ(describe(reason), "1 Attempt to use reserved directory '" + path + "' as a symlink");
        reason.clear();
        EXPECT_FALSE(make_reserved_dir_owned(path, 1, 1, reason));
        EXPECT_EQ(describe(reason), "1 Attempt to use reserved directory '" + path + "' as a symlink");
    }
    EXPECT_FALSE(make_reserved_dir(absent + "/x", 0755, error));
    EXPECT_EQ(describe(error),
              file_error("Could not create directory " + absent + "/x: No such file or directory"));
}

TEST_F(Entry, IsMadeReservedAndGivenAwayAlsoWhenItExists) {
    SKIP_UNLESS_ROOT();
    for (const std::string& path : {directory / "new", sub}) {
        EXPECT_TRUE(make_reserved_dir_owned(path, 12, 34, error));
        struct stat status {};
        ASSERT_EQ(stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, 12U);
        EXPECT_EQ(status.st_gid, 34U);
        EXPECT_EQ(status.st_mode & 07777, 0755U);
    }
}

TEST_F(Entry, GetsTheDirectoryPartOfItsPath) {
    std::string part = "untouched";
    EXPECT_TRUE(create_dir_part_of_path(directory / "a/b/file", 0750, &part, error));
    EXPECT_EQ(part, directory / "a/b");
    EXPECT_EQ(test::mode_of(directory / "a"), 0750U);
    EXPECT_EQ(test::mode_of(directory / "a/b"), 0750U);
    EXPECT_FALSE(test::name_exists(directory / "a/b/file"));
    EXPECT_TRUE(create_dir_part_of_path("/file", 0750, &part, error));
    EXPECT_EQ(part, "");
    part = "untouched";
    EXPECT_FALSE(create_dir_part_of_path(below_file + "/y", 0750, &part, error));
    EXPECT_EQ(describe(error), file_error("Could not create directory " + below_file + ": Not a directory"));
    EXPECT_EQ(part, "untouched");
}

TEST_F(Entry, WithAPathTooLongEndsTheProcess) {
    const test::ChildResult result = test::run_child([this] {
        std::string part;
        (void)create_dir_part_of_path(std::string(PATH_MAX, 'x'), 0755, &part, error);
    });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.errors, EndsWith("Assertion `result < sizeof(path_tmp)' failed.\n"));
}

TEST_F(Entry, ThatIsADirectoryCanBeWorkedIn) {
    const test::ScopedWorkingDirectory here(directory.path());
    EXPECT_EQ(current_dir(error), directory.path());
    EXPECT_TRUE(change_dir(sub, error));
    EXPECT_EQ(current_dir(error), sub);
    EXPECT_FALSE(change_dir(file, error));
    EXPECT_EQ(describe(error), file_error("Failed changing directory to " + file + ": Not a directory"));
    error.clear();
    fs::remove(sub);
    EXPECT_EQ(current_dir(error), "");
    EXPECT_EQ(describe(error), file_error("Failed to get working directory: No such file or directory"));
}

TEST_F(Entry, ThatWasEnteredIsLeftAgain) {
    const test::ScopedWorkingDirectory here(directory.path());
    WorkingDirectory working_directory;
    EXPECT_TRUE(working_directory.remember(error));
    EXPECT_FALSE(working_directory.enter(file, error));
    EXPECT_EQ(describe(error), file_error("Failed changing directory to " + file + ": Not a directory"));
    EXPECT_EQ(fs::current_path(), directory.path());
    error.clear();
    EXPECT_TRUE(working_directory.enter(sub, error));
    EXPECT_EQ(fs::current_path(), sub);
    EXPECT_TRUE(working_directory.leave(error));
    EXPECT_EQ(fs::current_path(), directory.path());
    EXPECT_TRUE(working_directory.leave(error));
}

TEST_F(Entry, ThatWasEnteredIsLeftAtTheEndOfTheScope) {
    const test::ScopedWorkingDirectory here(directory.path());
    {
        WorkingDirectory working_directory;
        EXPECT_TRUE(working_directory.remember(error) && working_directory.enter(sub, error));
        EXPECT_EQ(fs::current_path(), sub);
    }
    EXPECT_EQ(fs::current_path(), directory.path());
}

TEST_F(Entry, ThatWasEnteredIsLeftAlsoForADirectoryThatIsGone) {
    const test::ScopedWorkingDirectory here(directory.path());
    EXPECT_TRUE(change_dir(sub, error));
    fs::remove(sub);
    struct stat before {};
    struct stat after {};
    EXPECT_EQ(stat(".", &before), 0);
    WorkingDirectory working_directory;
    EXPECT_TRUE(working_directory.remember(error) && working_directory.enter(directory.path(), error));
    EXPECT_TRUE(working_directory.leave(error));
    EXPECT_EQ(stat(".", &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
}

TEST_F(Entry, IsNotEnteredBeforeTheWayBackIsKnown) {
    EXPECT_DEATH((void)WorkingDirectory().enter(sub, error), "`former_' failed");
}

// --- Path texts ---

TEST(PathText, IsSplitAtItsLastSlash) {
    EXPECT_EQ(dir_name("/a/b/c"), "/a/b");
    EXPECT_EQ(dir_name("a/b"), "a");
    EXPECT_EQ(dir_name("a/"), "a");
    EXPECT_EQ(dir_name("/a"), "");
    EXPECT_EQ(dir_name("a"), std::nullopt);
    EXPECT_EQ(dir_name(""), std::nullopt);
    EXPECT_EQ(base_name("/a/b/c"), "c");
    EXPECT_EQ(base_name("a/"), "");
    EXPECT_EQ(base_name("a"), "a");
    EXPECT_EQ(base_name(""), "");
}

TEST(PathText, IsAbsoluteWhenItBeginsWithASlash) {
    EXPECT_TRUE(is_absolute_path("/a"));
    EXPECT_TRUE(is_absolute_path("/"));
    EXPECT_FALSE(is_absolute_path("a/b"));
    EXPECT_FALSE(is_absolute_path(""));
}

TEST(PathText, IsResolvedInADirectory) {
    EXPECT_EQ(resolve_in_dir("/store/App", "x/y"), "/store/App/x/y");
    EXPECT_EQ(resolve_in_dir("/store/App", "/x"), "/store/App/x");
    EXPECT_EQ(resolve_in_dir("/store/App", "./x/../y//z/"), "/store/App/y/z");
    EXPECT_EQ(resolve_in_dir("/store/App", ""), "/store/App");
    EXPECT_EQ(resolve_in_dir("/store/App", "/"), "/store/App");
    EXPECT_EQ(resolve_in_dir("/store/App", "x/.."), "/store/App");
    EXPECT_EQ(resolve_in_dir("/store/App", "../App/x"), "/store/App/x");
    EXPECT_EQ(resolve_in_dir("/store/App", "..x"), "/store/App/..x");
    EXPECT_EQ(resolve_in_dir("/store/App/", "x"), "/store/App/x");
    EXPECT_EQ(resolve_in_dir("/store/App/", ""), "/store/App");
    EXPECT_EQ(resolve_in_dir("/", "x"), "/x");
}

TEST(PathText, ThatLeadsOutOfItsDirectoryIsRefused) {
    for (const char* path :
         {"..", "../x", "x/../..", "/../x", "../App2/x", "../App2", "//x", "../../store", "/.."})
        EXPECT_EQ(resolve_in_dir("/store/App", path), std::nullopt) << path;
}

TEST(PathText, IsResolvedInAnAbsoluteDirectoryOnly) {
    const test::ChildResult result = test::run_child([] { (void)resolve_in_dir("store", "x"); });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.errors, EndsWith("Assertion `is_absolute_path(directory)' failed.\n"));
}

TEST_F(Entry, HasACanonicalPathWhenItExists) {
    EXPECT_EQ(canonical_path(directory / "sub/../link", error), file);
    EXPECT_EQ(canonical_path(sub + "/", error), sub);
    EXPECT_FALSE(canonical_path(absent, error));
    EXPECT_EQ(describe(error), "10 Path is not a valid canonicalizable path: " + absent);
}

/** An application directory beside others, with links in it. */
class AppPath : public testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories(app + "/sub");
        fs::create_directories(directory / "App2");
        test::write_text(app + "/file", "");
        fs::create_symlink(directory / "App2", app + "/out");
        fs::create_symlink(app + "/sub", app + "/in");
        fs::create_symlink(directory / "later", app + "/to-nothing");
    }

    bool check(const std::string& path) {
        error.clear();
        return check_path_in_app_dir(path, app, error);
    }

    [[nodiscard]] std::string outside(const std::string& path) const {
        return "1 Path " + path + " is outside of application directory " + app;
    }

    test::TemporaryDirectory directory;
    const std::string app = directory / "App";
    ErrorSlot error;
};

TEST_F(AppPath, MayNameWhatExistsAndWhatDoesNot) {
    for (const char* path :
         {"/file", "/sub", "/sub/new", "/new/er/file", "/in/file", "/sub/../file", "/..new"})
        EXPECT_TRUE(check(app + path)) << error.message();
}

TEST_F(AppPath, MustLieBelowTheDirectoryAndNotBeIt) {
    for (const std::string& path :
         {app, app + "/", app + "/sub/..", directory / "App2", directory / "App2/new", directory / "Apple",
          directory / "new", app + "/../App2", app + "/../new"}) {
        EXPECT_FALSE(check(path)) << path;
        EXPECT_EQ(describe(error), outside(path));
    }
}

TEST_F(AppPath, MustNotLeadOutThroughALink) {
    for (const char* path : {"/out", "/out/file", "/out/new/file"}) {
        EXPECT_FALSE(check(app + path)) << path;
        EXPECT_EQ(describe(error), outside(app + path));
    }
}

TEST_F(AppPath, MustNotLeadOutThroughALinkToWhatIsMadeLater) {
    for (const char* path : {"/to-nothing", "/to-nothing/file"}) {
        EXPECT_FALSE(check(app + path)) << path;
        EXPECT_EQ(describe(error), outside(app + path));
    }
}

TEST_F(AppPath, MustNotLeadOutThroughDotsBehindWhatDoesNotExist) {
    for (const char* path : {"/new/../../App2/x", "/new/.."}) {
        EXPECT_FALSE(check(app + path)) << path;
        EXPECT_EQ(describe(error), outside(app + path));
    }
}

TEST_F(AppPath, MayBeReachedThroughALinkToTheDirectory) {
    fs::create_symlink(app, directory / "Link");
    EXPECT_TRUE(check_path_in_app_dir(directory / "Link/file", directory / "Link", error)) << error.message();
    EXPECT_TRUE(check_path_in_app_dir(directory / "Link/new", directory / "Link", error)) << error.message();
    EXPECT_FALSE(check_path_in_app_dir(directory / "Link/out/x", directory / "Link", error));
}

TEST_F(AppPath, LiesBelowTheRootDirectoryWhereverItIs) {
    EXPECT_TRUE(check_path_in_app_dir(app + "/file", "/", error)) << error.message();
    EXPECT_TRUE(check_path_in_app_dir(app + "/new", "/", error)) << error.message();
}

TEST_F(AppPath, WhoseExistenceCannotBeToldIsAnError) {
    EXPECT_FALSE(check(app + "/file/x"));
    EXPECT_EQ(describe(error),
              file_error("Failed to check existence of " + app + "/file/x: Not a directory"));
}

TEST_F(AppPath, WithoutAnyExistingPartIsRefusedWithoutAMessage) {
    EXPECT_FALSE(check("no-such-name"));
    EXPECT_EQ(describe(error), "none");
    EXPECT_FALSE(check("/no-such-directory-at-all/x"));
    EXPECT_EQ(describe(error), "none");
    EXPECT_FALSE(check_path_in_app_dir(directory / "App2", app, nullptr));
}
