#include "base/caller.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>

#include "support.h"

using test::run_child;

TEST(PutCallerRight, LeavesNoStandardDescriptorMissing) {
    const test::ChildResult result = run_child([] {
        close(0);
        close(2);
        put_caller_right();
        const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
        char byte = 0;
        std::printf("%d %zd %zd\n", next > 2 ? 1 : 0, read(0, &byte, 1), write(2, "x", 1));
    });
    EXPECT_EQ(result.output, "1 0 1\n");
}

TEST(FinishStandardOutput, SaysThatNobodyGetsWhatIsPrintedOnAMissingDescriptor) {
    const test::ChildResult result = run_child([] {
        close(1);
        put_caller_right();
        const int silent = finish_standard_output();
        std::printf("answer");
        std::fprintf(stderr, "%d %d %zd", silent, finish_standard_output() == EBADF, write(1, "x", 1));
    });
    EXPECT_EQ(result.errors, "0 1 1");
}

TEST(FinishStandardOutput, SaysWhenTheDiskIsFull) {
    const test::ChildResult result = run_child([] {
        dup2(open("/dev/full", O_WRONLY | O_CLOEXEC), 1);
        put_caller_right();
        std::printf("answer");
        std::fprintf(stderr, "%d", finish_standard_output() == ENOSPC);
    });
    EXPECT_EQ(result.errors, "1");
}

TEST(PutCallerRight, UnblocksAllSignalsAndIgnoresThoseOnlyByWhichProgramsAreEndedAndStopped) {
    const test::ChildResult result = run_child([] {
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_SETMASK, &all, nullptr);
        for (const int number : {SIGCHLD, SIGPIPE, SIGALRM, SIGXCPU, SIGHUP, SIGINT, SIGTSTP})
            std::signal(number, SIG_IGN);
        put_caller_right();
        sigset_t blocked;
        sigprocmask(SIG_SETMASK, nullptr, &blocked);
        std::printf("%d", sigisemptyset(&blocked));
        for (const int number : {SIGCHLD, SIGPIPE, SIGALRM, SIGXCPU, SIGHUP, SIGINT, SIGTSTP}) {
            struct sigaction action {};
            sigaction(number, nullptr, &action);
            std::printf(" %s", action.sa_handler == SIG_IGN   ? "ignored"
                               : action.sa_handler == SIG_DFL ? "default"
                                                              : "handled");
        }
    });
    EXPECT_EQ(result.output, "1 default handled default default ignored ignored ignored");
}
