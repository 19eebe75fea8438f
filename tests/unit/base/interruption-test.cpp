#include "base/interruption.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <ctime>

#include "base/descriptors.h"
#include "support.h"

using test::describe;
using test::run_child;

// Each in a process of its own: what is kept is kept for the rest of the process.

static void print(const std::string& line) { (void)write_all(STDOUT_FILENO, line + "\n"); }

static void pause_ms(long milliseconds) {
    timespec left{0, milliseconds * 1'000'000};
    while (nanosleep(&left, &left) != 0) {
    }
}

TEST(Interruption, FailsOneStepAndIsCarriedOutAtTheEnd) {
    const test::ChildResult result = run_child([] {
        ErrorSlot error;
        hold_interruptions();
        print(fail_when_interrupted(error) ? "failed" : "goes on");
        raise(SIGTERM);
        print(interruption_requested() ? "requested" : "not requested");
        print(fail_when_interrupted(error) ? "failed" : "goes on");
        print(describe(error));
        error.clear();
        print(fail_when_interrupted(error) ? "failed" : "goes on");
        carry_out_interruption();
    });
    EXPECT_EQ(result.signal, SIGTERM);
    EXPECT_EQ(result.output, "goes on\nrequested\nfailed\n10 Interrupted by signal 15\ngoes on\n");
}

TEST(Interruption, WithoutOneNothingIsCarriedOut) {
    const test::ChildResult result = run_child([] {
        hold_interruptions();
        carry_out_interruption();
    });
    EXPECT_EQ(result.signal, 0);
}

TEST(Interruption, TheFirstOfSeveralAtOnceIsCarriedOut) {
    const test::ChildResult result = run_child([] {
        hold_interruptions();
        raise(SIGHUP);
        raise(SIGTERM);
        raise(SIGINT);
        print("here");
        carry_out_interruption();
    });
    EXPECT_EQ(result.signal, SIGHUP);
    EXPECT_EQ(result.output, "here\n");
}

// On a busy machine the second may come too late; then there is a next one.
TEST(Interruption, OfSomebodyImpatientEndsTheProcessAtOnce) {
    const test::ChildResult result = run_child([] {
        hold_interruptions();
        for (int i = 0; i < 100; i++) {
            raise(SIGINT);
            pause_ms(300);
        }
    });
    EXPECT_EQ(result.signal, SIGINT);
}

TEST(Interruption, OfWhatTheCallerIgnoresIsIgnored) {
    const test::ChildResult result = run_child([] {
        std::signal(SIGHUP, SIG_IGN);
        hold_interruptions();
        raise(SIGHUP);
        print(interruption_requested() ? "requested" : "not requested");
        carry_out_interruption();
    });
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.output, "not requested\n");
}

TEST(Interruption, WaitsForWhatMustBeFinished) {
    const test::ChildResult result = run_child([] {
        ErrorSlot error;
        hold_interruptions();
        {
            const Uninterrupted shield;
            raise(SIGINT);
            print(fail_when_interrupted(error) ? "failed" : "goes on");
        }
        print(fail_when_interrupted(error) ? "failed" : "goes on");
    });
    EXPECT_EQ(result.output, "goes on\nfailed\n");
}

/** A child that waits until it is ended; what is started has the signal's default from the beginning. */
static pid_t sleeper() {
    std::signal(SIGTERM, SIG_DFL);
    const pid_t pid = fork();
    while (pid == 0)
        pause();
    return pid;
}

static void end(pid_t pid) {
    int status = 0;
    kill(pid, SIGKILL);
    (void)wait_for_child(pid, &status);
}

TEST(Interruption, EndsTheChildAtWorkWheneverItComes) {
    for (const bool before : {true, false}) {
        const test::ChildResult result = run_child([before] {
            ErrorSlot error;
            hold_interruptions();
            const pid_t pid = sleeper();
            if (before)
                raise(SIGINT);
            pass_on_to(pid);
            if (!before)
                raise(SIGINT);
            int status = 0;
            print(wait_for_child(pid, &status) ? "ended" : "unknown");
            print(fail_when_child_interrupted(status, error) ? "failed" : "goes on");
        });
        EXPECT_EQ(result.output, "ended\nfailed\n");
    }
}

TEST(Interruption, LeavesAChildAloneThatMustFinish) {
    const test::ChildResult result = run_child([] {
        hold_interruptions();
        const Uninterrupted shield;
        const pid_t pid = sleeper();
        pass_on_to(pid);
        raise(SIGINT);
        int status = 0;
        print(waitpid(pid, &status, WNOHANG) == 0 ? "at work" : "ended");
        end(pid);
    });
    EXPECT_EQ(result.output, "at work\n");
}

static bool is_blocked(int number) {
    sigset_t blocked;
    sigprocmask(SIG_SETMASK, nullptr, &blocked);
    return sigismember(&blocked, number) == 1;
}

TEST(StartShielded, BlocksWhatIsNotToReachAChild) {
    const test::ChildResult result = run_child([] {
        std::signal(SIGHUP, SIG_IGN);
        hold_interruptions();
        {
            const StartShielded shield;
            print(is_blocked(SIGHUP) && !is_blocked(SIGINT) ? "what the caller ignores" : "else");
        }
        const Uninterrupted finishing;
        {
            const StartShielded shield;
            print(is_blocked(SIGHUP) && is_blocked(SIGINT) && is_blocked(SIGTERM) ? "all" : "else");
        }
        print(is_blocked(SIGHUP) || is_blocked(SIGINT) ? "still" : "none");
    });
    EXPECT_EQ(result.output, "what the caller ignores\nall\nnone\n");
}
