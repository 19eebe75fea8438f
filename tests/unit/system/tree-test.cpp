#include "system/tree.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "base/handles.h"
#include "support.h"
#include "system/file.h"

using test::describe;
using testing::ElementsAre;
using testing::HasSubstr;

namespace fs = std::filesystem;

class Tree : public testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories(directory / "tree/sub/deep");
        fs::create_directories(directory / "outside");
        test::write_text(directory / "tree/file", "");
        test::write_text(directory / "tree/sub/deep/file", "");
        test::write_text(directory / "outside/kept", "");
        fs::create_symlink(directory / "outside", directory / "tree/link");
        fs::create_symlink("nowhere", directory / "tree/dangling");
        ASSERT_EQ(mkfifo((directory / "tree/fifo").c_str(), 0600), 0);
    }

    /** The visited entries, with a mark on directories. */
    std::vector<std::string> visit(int* result) {
        std::vector<std::string> visited;
        *result = walk_tree(directory / "tree", {.with_paths = true}, [&](const TreeEntry& entry) {
            visited.push_back("tree" + entry.below + (entry.is_directory ? "/" : ""));
            struct stat status {};
            EXPECT_EQ(fstatat(entry.directory, entry.name.c_str(), &status, AT_SYMLINK_NOFOLLOW), 0);
            EXPECT_EQ(status.st_ino, entry.status.st_ino);
            EXPECT_EQ(S_ISDIR(entry.status.st_mode), entry.is_directory);
            EXPECT_EQ(entry.fd >= 0, entry.is_directory);
            EXPECT_TRUE(("/" + entry.below).ends_with(entry.level > 0 ? entry.name : "/"));
            return true;
        });
        return visited;
    }

    /** A chain of directories below the tree, however long its path. */
    void make_chain(int levels, const std::string& name, bool forked = false) {
        const test::ScopedWorkingDirectory here(directory / "tree");
        for (int level = 0; level < levels; level++) {
            ASSERT_EQ(mkdir(name.c_str(), 0755), 0);
            if (forked) {
                ASSERT_EQ(mkdir("fork", 0755), 0);
            }
            ASSERT_EQ(chdir(name.c_str()), 0);
        }
    }

    test::TemporaryDirectory directory;
    test::LogCapture log;
    ErrorSlot error;
};

TEST_F(Tree, IsWalkedWithDirectoriesFirstAndLinksNotFollowed) {
    int result = -1;
    const std::vector<std::string> visited = visit(&result);
    EXPECT_EQ(result, 0);
    EXPECT_THAT(visited,
                testing::UnorderedElementsAre("tree/", "tree/file", "tree/link", "tree/dangling", "tree/fifo",
                                              "tree/sub/", "tree/sub/deep/", "tree/sub/deep/file"));
    EXPECT_EQ(visited.front(), "tree/");
    EXPECT_LT(std::find(visited.begin(), visited.end(), "tree/sub/"),
              std::find(visited.begin(), visited.end(), "tree/sub/deep/file"));
}

TEST_F(Tree, TellsNoPathsUnlessAsked) {
    EXPECT_EQ(walk_tree(directory / "tree", {},
                        [](const TreeEntry& entry) {
                            EXPECT_EQ(entry.below, "");
                            return true;
                        }),
              0);
}

TEST_F(Tree, TellsTheLevelOfEachEntry) {
    std::vector<size_t> levels;
    EXPECT_EQ(walk_tree(directory / "tree/sub", {},
                        [&](const TreeEntry& entry) {
                            levels.push_back(entry.level);
                            return true;
                        }),
              0);
    EXPECT_THAT(levels, ElementsAre(0, 1, 2));
}

TEST_F(Tree, IsLeftWhereAVisitStopsTheWalk) {
    int visits = 0;
    EXPECT_EQ(walk_tree(directory / "tree", {}, [&](const TreeEntry&) { return ++visits < 2; }), ECANCELED);
    EXPECT_EQ(visits, 2);
}

TEST_F(Tree, ThatIsAbsentIsAnError) {
    EXPECT_EQ(walk_tree(directory / "absent", {}, [](const TreeEntry&) { return true; }), ENOENT);
}

TEST_F(Tree, LeavesTheWorkingDirectoryAsItWas) {
    const test::ScopedWorkingDirectory here(directory / "outside");
    int result = -1;
    visit(&result);
    EXPECT_EQ(fs::current_path(), directory / "outside");
}

TEST_F(Tree, GetsMode0751OnItsDirectoriesAlone) {
    const mode_t outside = test::mode_of(directory / "outside");
    ASSERT_EQ(chmod((directory / "tree/sub").c_str(), 0), 0);
    const UniqueFd tree(open((directory / "tree").c_str(), O_RDONLY | O_DIRECTORY));
    EXPECT_EQ(set_dir_mode_recursive(tree.get()), 0);
    for (const char* name : {"tree", "tree/sub", "tree/sub/deep"})
        EXPECT_EQ(test::mode_of(directory / name), 0751U) << name;
    EXPECT_EQ(test::mode_of(directory / "tree/file"), 0644U);
    EXPECT_EQ(test::mode_of(directory / "tree/sub/deep/file"), 0644U);
    EXPECT_EQ(test::mode_of(directory / "outside"), outside);
    EXPECT_EQ(set_dir_mode_recursive(-1), EBADF);
}

TEST_F(Tree, ReportsADirectoryWhoseModeCannotBeSet) {
    if (!test::can_make_immutable(directory.path()))
        GTEST_SKIP() << "needs the immutable attribute";
    ASSERT_TRUE(set_immutable(directory / "tree/sub", true, error));
    const UniqueFd tree(open((directory / "tree").c_str(), O_RDONLY | O_DIRECTORY));
    EXPECT_EQ(set_dir_mode_recursive(tree.get()), EPERM);
    EXPECT_TRUE(set_immutable(directory / "tree/sub", false, error));
}

TEST_F(Tree, IsRemovedAndNothingBehindItsLinks) {
    EXPECT_TRUE(remove_recursive(directory / "tree", error)) << error.message();
    EXPECT_THAT(test::tree_of(directory.path()), ElementsAre("outside", "outside/kept"));
    EXPECT_EQ(log.text(), "");
}

TEST_F(Tree, OfAPlainFileIsLeftAlone) {
    EXPECT_TRUE(remove_recursive(directory / "tree/file", error));
    EXPECT_TRUE(test::name_exists(directory / "tree/file"));
}

TEST_F(Tree, ThatIsAbsentCountsAsRemoved) {
    EXPECT_TRUE(remove_recursive(directory / "absent", error));
    EXPECT_TRUE(remove_recursive(directory / "tree/file/below", error));
    EXPECT_EQ(describe(error), "none");
}

TEST_F(Tree, BehindALinkIsLeftAlone) {
    EXPECT_TRUE(remove_recursive(directory / "tree/link", error));
    EXPECT_TRUE(test::name_exists(directory / "tree/link"));
    EXPECT_TRUE(test::name_exists(directory / "outside/kept"));
}

TEST_F(Tree, WithImmutableFilesIsRemoved) {
    if (!test::can_make_immutable(directory.path()))
        GTEST_SKIP() << "needs the immutable attribute";
    ASSERT_TRUE(set_immutable(directory / "tree/file", true, error));
    ASSERT_TRUE(set_immutable(directory / "tree/sub/deep/file", true, error));
    EXPECT_TRUE(remove_recursive(directory / "tree", error)) << error.message();
    EXPECT_FALSE(test::name_exists(directory / "tree"));
    EXPECT_EQ(log.text(), "");
}

TEST_F(Tree, WithImmutableFilesIsRemovedByARelativePathToo) {
    if (!test::can_make_immutable(directory.path()))
        GTEST_SKIP() << "needs the immutable attribute";
    const test::ScopedWorkingDirectory here(directory.path());
    ASSERT_TRUE(set_immutable(directory / "tree/sub/deep/file", true, error));
    EXPECT_TRUE(remove_recursive("tree", error)) << error.message();
    EXPECT_FALSE(test::name_exists(directory / "tree"));
    EXPECT_EQ(log.text(), "");
}

TEST_F(Tree, WithImmutableDirectoriesIsRemoved) {
    if (!test::can_make_immutable(directory.path()))
        GTEST_SKIP() << "needs the immutable attribute";
    for (const char* name : {"tree/sub/deep/file", "tree/sub/deep", "tree"})
        ASSERT_TRUE(set_immutable(directory / name, true, error));
    EXPECT_TRUE(remove_recursive(directory / "tree", error)) << error.message();
    EXPECT_FALSE(test::name_exists(directory / "tree"));
    EXPECT_EQ(log.text(), "");
}

TEST_F(Tree, InAnImmutableDirectoryLosesOnlyItsContents) {
    if (!test::can_make_immutable(directory.path()))
        GTEST_SKIP() << "needs the immutable attribute";
    ASSERT_TRUE(set_immutable(directory / "tree", true, error));
    EXPECT_FALSE(remove_recursive(directory / "tree/sub", error));
    EXPECT_TRUE(test::name_exists(directory / "tree/sub"));
    error.clear();
    EXPECT_TRUE(set_immutable(directory / "tree", false, error));
}

TEST_F(Tree, DeeperThanAPathCanBeLongIsWalkedAndRemoved) {
    for (const bool forked : {false, true}) {
        fs::create_directories(directory / "tree");
        make_chain(300, std::string(200, 'd'), forked);
        size_t directories = 0;
        size_t deepest = 0;
        EXPECT_EQ(walk_tree(directory / "tree", {.with_paths = true},
                            [&](const TreeEntry& entry) {
                                directories += entry.is_directory ? 1 : 0;
                                deepest = std::max(deepest, entry.below.size());
                                return true;
                            }),
                  0);
        EXPECT_EQ(directories, forked ? 601U : 303U);
        EXPECT_EQ(deepest, 300U * 201);
        EXPECT_TRUE(remove_recursive(directory / "tree", error)) << error.message();
        EXPECT_FALSE(test::name_exists(directory / "tree"));
    }
    EXPECT_EQ(log.text(), "");
}

TEST_F(Tree, DeepInItKeepsFewDirectoriesOpen) {
    make_chain(200, "d", true);
    const test::ChildResult child = test::run_child([this] {
        const rlimit few{24, 24};
        setrlimit(RLIMIT_NOFILE, &few);
        if (!remove_recursive(directory / "tree", error))
            _exit(1);
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_FALSE(test::name_exists(directory / "tree"));
}

TEST_F(Tree, ThatCannotBeRemovedStopsTheWalkAndWarnsWithTheReason) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs somebody who may do less";
    ASSERT_EQ(chmod(directory.path().c_str(), 0755), 0);
    const test::ChildResult child = test::run_child([this] {
        if (setuid(65534) != 0 || remove_recursive(directory / "tree", error))
            _exit(1);
        std::puts(describe(error).c_str());
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_EQ(child.output,
              "10 src/system/tree.cpp:N: Failed recursive removal of " + (directory / "tree") + "\n");
    EXPECT_TRUE(test::name_exists(directory / "tree/sub/deep/file"));
    const std::string lines = test::without_line_numbers(log.text());
    EXPECT_THAT(lines, HasSubstr("src/system/mounts.cpp:N: Failed to "));
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'),
              lines.find("Assume overlay") == std::string::npos ? 1 : 2);
}
