#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string_view>

#include "base/handles.h"
#include "platform/libfilesync.h"
#include "support.h"

using testing::ElementsAre;
using testing::EndsWith;
using testing::StartsWith;

static bool put(const std::string& path, std::string_view text, int mode, GErrorSlot* error,
                FilesyncMode sync = FILESYNC_FULL) {
    return filesync_set_file_contents_with_sync_mode(path.c_str(), text.data(), text.size(), sync, mode,
                                                     error->out());
}

class Filesync : public testing::Test {
  protected:
    test::TemporaryDirectory directory;
    GErrorSlot error;
};

TEST_F(Filesync, MakesAFileWithItsContentsAndMode) {
    ASSERT_TRUE(put(directory / "file", "text", 0640, &error)) << error.message();
    EXPECT_EQ(test::read_text(directory / "file"), "text");
    EXPECT_EQ(test::mode_of(directory / "file"), 0640U);
    EXPECT_THAT(test::tree_of(directory.path()), ElementsAre("file"));
}

TEST_F(Filesync, GivesTheExactModeWhateverTheUmask) {
    const test::ChildResult child = test::run_child([this] {
        umask(0777);
        put(directory / "file", "text", 0755, &error);
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_EQ(test::mode_of(directory / "file"), 0755U);
}

TEST_F(Filesync, ReplacesContentsAndModeOfAnExistingFile) {
    test::write_text(directory / "file", "a much longer old text", 0600);
    ASSERT_TRUE(put(directory / "file", "new", 0644, &error)) << error.message();
    EXPECT_EQ(test::read_text(directory / "file"), "new");
    EXPECT_EQ(test::mode_of(directory / "file"), 0644U);
}

TEST_F(Filesync, LeavesAnOpenReaderTheOldFile) {
    test::write_text(directory / "file", "old");
    const FilePtr reader(std::fopen((directory / "file").c_str(), "r"));
    ASSERT_TRUE(put(directory / "file", "new", 0644, &error));
    char text[8] = "";
    EXPECT_EQ(std::fread(text, 1, sizeof text - 1, reader.get()), 3U);
    EXPECT_STREQ(text, "old");
}

TEST_F(Filesync, KeepsZeroBytesAndEmptyContents) {
    ASSERT_TRUE(put(directory / "zeros", std::string_view("a\0b", 3), 0644, &error));
    EXPECT_EQ(test::read_text(directory / "zeros"), std::string("a\0b", 3));
    ASSERT_TRUE(put(directory / "empty", "", 0644, &error));
    EXPECT_EQ(test::read_text(directory / "empty"), "");
}

TEST_F(Filesync, WritesWithoutSyncToo) {
    ASSERT_TRUE(put(directory / "file", "text", 0644, &error, FILESYNC_NONE));
    EXPECT_EQ(test::read_text(directory / "file"), "text");
}

TEST_F(Filesync, ReplacesALinkAndNeverWritesThroughIt) {
    test::write_text(directory / "victim", "untouched");
    ASSERT_EQ(symlink((directory / "victim").c_str(), (directory / "link").c_str()), 0);
    ASSERT_TRUE(put(directory / "link", "mine", 0644, &error));
    EXPECT_EQ(test::read_text(directory / "victim"), "untouched");
    EXPECT_EQ(test::read_text(directory / "link"), "mine");
    struct stat status {};
    ASSERT_EQ(lstat((directory / "link").c_str(), &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
}

TEST_F(Filesync, TakesANameAsLongAsNamesCanBe) {
    const std::string name(255, 'n');
    ASSERT_TRUE(put(directory / name, "text", 0644, &error)) << error.message();
    EXPECT_EQ(test::read_text(directory / name), "text");
}

TEST_F(Filesync, TakesAPathWithoutADirectory) {
    const test::ScopedWorkingDirectory here(directory.path());
    ASSERT_TRUE(put("file", "text", 0644, &error)) << error.message();
    EXPECT_EQ(test::read_text(directory / "file"), "text");
}

TEST_F(Filesync, FailsWithTheSystemsTextWhereThereIsNoDirectory) {
    EXPECT_FALSE(put(directory / "absent/file", "text", 0644, &error));
    EXPECT_TRUE(g_error_matches(error.get(), G_FILE_ERROR, G_FILE_ERROR_NOENT));
    EXPECT_THAT(error.message(), StartsWith("create " + directory.path() + "/absent/"));
    EXPECT_THAT(error.message(), EndsWith(": No such file or directory"));
}

TEST_F(Filesync, LeavesNothingBehindWhenTheTargetCannotBeReplaced) {
    ASSERT_EQ(mkdir((directory / "target").c_str(), 0755), 0);
    EXPECT_FALSE(put(directory / "target", "text", 0644, &error));
    EXPECT_TRUE(g_error_matches(error.get(), G_FILE_ERROR, G_FILE_ERROR_ISDIR));
    EXPECT_THAT(error.message(), EndsWith(": Is a directory"));
    EXPECT_THAT(test::tree_of(directory.path()), ElementsAre("target"));
}

TEST_F(Filesync, LeavesTheOldFileAndNothingElseWhenWritingFails) {
    test::write_text(directory / "file", "old");
    const test::ChildResult child = test::run_child([this] {
        // A limit on the size of files makes the write fail, in this child only.
        rlimit old_limit{};
        getrlimit(RLIMIT_FSIZE, &old_limit);
        const rlimit limit{16, old_limit.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
        signal(SIGXFSZ, SIG_IGN);
        const std::string text(64, 'x');
        const bool is_written = put(directory / "file", text, 0644, &error);
        setrlimit(RLIMIT_FSIZE, &old_limit);  // the child's own output is limited too
        std::fprintf(stderr, "%d %s", is_written, error.message());
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_THAT(child.errors, StartsWith("0 write " + directory.path()));
    EXPECT_THAT(child.errors, EndsWith(": File too large"));
    EXPECT_EQ(test::read_text(directory / "file"), "old");
    EXPECT_THAT(test::tree_of(directory.path()), ElementsAre("file"));
}

TEST_F(Filesync, FailsWithoutAnErrorSlotToo) {
    EXPECT_FALSE(filesync_set_file_contents_with_sync_mode((directory / "absent/file").c_str(), "x", 1,
                                                           FILESYNC_FULL, 0644, nullptr));
}
