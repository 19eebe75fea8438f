#include "base/descriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "base/handles.h"
#include "support.h"

/** A pipe that holds the text and ends behind it. */
static UniqueFd pipe_with(std::string_view text) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const UniqueFd writing(ends[1]);
    EXPECT_TRUE(write_all(writing.get(), text));
    return UniqueFd(ends[0]);
}

/** A child that ends with this status. */
static pid_t child_that_exits(int status) {
    const pid_t pid = fork();
    if (pid == 0)
        _exit(status);
    return pid;
}

TEST(WriteAll, SaysWhenSomethingCannotBeWritten) {
    const UniqueFd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    EXPECT_FALSE(write_all(full.get(), "text"));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_TRUE(write_all(full.get(), ""));
}

TEST(ReadAll, ReadsToTheEndBehindWhatIsThere) {
    std::string text = "before ";
    EXPECT_TRUE(read_all(pipe_with("the text").get(), &text));
    EXPECT_EQ(text, "before the text");
}

TEST(ReadAll, SaysWhenReadingFails) {
    std::string text;
    const UniqueFd directory(open("/", O_RDONLY | O_CLOEXEC));
    EXPECT_FALSE(read_all(directory.get(), &text));
    EXPECT_EQ(errno, EISDIR);
}

TEST(ReadAll, StopsBehindTheLimit) {
    std::string text;
    EXPECT_TRUE(read_all(pipe_with("12345").get(), &text, 5));
    const UniqueFd endless(open("/dev/zero", O_RDONLY | O_CLOEXEC));
    EXPECT_FALSE(read_all(endless.get(), &text, 5));
    EXPECT_EQ(errno, EFBIG);
}

TEST(ReadEnds, KeepsAllOfAShortTextAndTheStartAndTheEndOfALongOne) {
    for (const auto& [whole, kept] :
         {std::pair("", ""), {"123", "123"}, {"12345", "12345"}, {"1234567", "12567"}}) {
        std::string text;
        EXPECT_TRUE(read_ends(pipe_with(whole).get(), &text, 2, 3));
        EXPECT_EQ(text, kept);
    }
}

TEST(ReadEnds, SaysWhenReadingFails) {
    std::string text;
    const UniqueFd directory(open("/", O_RDONLY | O_CLOEXEC));
    EXPECT_FALSE(read_ends(directory.get(), &text, 2, 3));
}

TEST(WaitForChild, TellsHowItEnded) {
    int status = 0;
    EXPECT_TRUE(wait_for_child(child_that_exits(7), &status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);  // it was reaped
}

TEST(WaitForChild, FailsWhenNobodyCanTellHowItEnded) {
    std::signal(SIGCHLD, SIG_IGN);
    int status = -1;
    EXPECT_FALSE(wait_for_child(child_that_exits(7), &status));
    EXPECT_EQ(errno, ECHILD);
    std::signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(status, -1);
    EXPECT_FALSE(wait_for_child(getpid(), &status));
    EXPECT_EQ(errno, ECHILD);
}
