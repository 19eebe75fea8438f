#include "system/user-processes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "base/descriptors.h"
#include "support.h"

static constexpr uid_t kUser = 47200;  // of nobody

/** A process whose real, effective and saved ids are these, and which heeds nothing. */
static pid_t process_as(uid_t real, uid_t effective, uid_t saved) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe(ends), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        if (setresuid(real, effective, saved) != 0)
            _exit(1);
        std::signal(SIGTERM, SIG_IGN);
        (void)write_all(ends[1], "x");
        while (true)
            pause();
    }
    char byte = 0;
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
    close(ends[0]);
    close(ends[1]);
    return pid;
}

TEST(EndProcessesOfUser, EndsAllThatRunAsTheUserAndNobodyElses) {
    SKIP_UNLESS_ROOT();
    const test::LogCapture log;
    const pid_t own[] = {process_as(kUser, kUser, kUser), process_as(kUser, 0, 0),
                         process_as(0, kUser, kUser)};
    const pid_t other = process_as(kUser + 1, kUser + 1, kUser + 1);
    EXPECT_EQ(count_processes_of_user(kUser), 3);
    end_processes_of_user(kUser, "somebody");
    EXPECT_EQ(count_processes_of_user(kUser), 0);
    EXPECT_EQ(count_processes_of_user(kUser + 1), 1);
    EXPECT_EQ(log.text(), "");
    for (const pid_t pid : own) {  // they are only waited for
        int status = 0;
        ASSERT_TRUE(wait_for_child(pid, &status));
        EXPECT_EQ(WTERMSIG(status), SIGKILL);
    }
    int status = 0;
    kill(other, SIGKILL);
    ASSERT_TRUE(wait_for_child(other, &status));
}

TEST(EndProcessesOfUser, SaysNothingWhereThereIsNone) {
    const test::LogCapture log;
    end_processes_of_user(kUser, "somebody");
    EXPECT_EQ(log.text(), "");
}

// Root's own, of which only the file-system id is the user's, no call as the user reaches.
TEST(EndProcessesOfUser, WarnsOfThoseThatStay) {
    SKIP_UNLESS_ROOT();
    const test::LogCapture log;
    const pid_t pid = process_as(0, kUser, 0);
    end_processes_of_user(kUser, "somebody");
    int status = 0;
    kill(pid, SIGKILL);
    ASSERT_TRUE(wait_for_child(pid, &status));
    EXPECT_EQ(log.text(), "1 processes of user somebody could not be killed\n");
}

TEST(EndProcessesOfUserDeathTest, RefusesRoot) { EXPECT_DEATH(end_processes_of_user(0, "root"), "uid != 0"); }
