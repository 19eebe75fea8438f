#include "system/script.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <iterator>
#include <utility>

#include "support.h"

using test::describe;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

static constexpr ScriptRunOptions kLenient{false, false, false, false, 10};
static constexpr const char* kNobody = "nobody";

/** A directory that holds one script, run as the user nobody. */
class Script : public testing::Test {
  protected:
    void SetUp() override {
        SKIP_UNLESS_ROOT();
        // Where the script may write.
        ASSERT_EQ(mkdir((directory / "data").c_str(), 0755), 0);
        ASSERT_EQ(chmod((directory / "data").c_str(), 0777), 0);
    }

    void write_script(const std::string& body, mode_t mode = 0755) {
        test::write_text(directory / "script", "#!/bin/sh\n" + body + "\n", mode);
    }

    bool run(const ScriptRunOptions& options = kLenient, const std::string& user = kNobody) {
        return run_script_as_user("script", directory.path(), user, options, error);
    }

    static std::string runner_error(const std::string& text) { return "10 src/system/script.cpp:N: " + text; }
    [[nodiscard]] std::string exit_error(int code) const {
        return runner_error("Script " + (directory / "script") +
                            " failed with exit code: " + std::to_string(code));
    }

    test::TemporaryDirectory directory;
    test::LogCapture log;
    ErrorSlot error;
};

/** The time-out takes this long when the clock is right, and less than the bound when the machine is busy. */
static int64_t milliseconds_of(const std::function<void()>& body) {
    const auto start = std::chrono::steady_clock::now();
    body();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
        .count();
}

static bool is_running(pid_t pid) {
    const std::string status = test::read_text("/proc/" + std::to_string(pid) + "/stat");
    return status != "(unreadable)" && status.find(") Z ") == std::string::npos;
}

static pid_t pid_in(const std::string& path) {
    const std::string text = test::read_text(path);
    return text.ends_with("\n") ? std::stoi(text) : 0;
}

TEST_F(Script, RunsAsTheUserWithTheUsersGroupsInTheDirectory) {
    write_script("{ id -u; id -ru; id -g; id -rg; id -G; pwd; echo \"$0 $#\"; } > data/result");
    ASSERT_TRUE(run()) << error.message();
    const passwd* nobody = getpwnam(kNobody);
    const std::string uid = std::to_string(nobody->pw_uid);
    const std::string gid = std::to_string(nobody->pw_gid);
    EXPECT_EQ(test::read_text(directory / "data/result"), uid + "\n" + uid + "\n" + gid + "\n" + gid + "\n" +
                                                              gid + "\n" + directory.path() + "\n" +
                                                              (directory / "script") + " 0\n");
    EXPECT_EQ(log.text(), "");
}

TEST_F(Script, CannotBecomeRootAgain) {
    write_script("grep -E '^(Uid|Gid|Groups|CapEff):' /proc/self/status > data/result");
    ASSERT_TRUE(run());
    const std::string text = test::read_text(directory / "data/result");
    EXPECT_THAT(text, HasSubstr("Uid:\t65534\t65534\t65534\t65534\n"));
    EXPECT_THAT(text, HasSubstr("Gid:\t65534\t65534\t65534\t65534\n"));
    EXPECT_THAT(text, HasSubstr("CapEff:\t0000000000000000\n"));
}

TEST_F(Script, RunsWithoutTheShellWhenAskedTo) {
    write_script("id -u > data/result; exit 0");
    ScriptRunOptions options = kLenient;
    options.exec_directly = true;
    ASSERT_TRUE(run(options)) << error.message();
    EXPECT_EQ(test::read_text(directory / "data/result"), "65534\n");
}

TEST_F(Script, MayLieInASubdirectory) {
    ASSERT_EQ(mkdir((directory / "bin").c_str(), 0755), 0);
    test::write_text(directory / "bin/inner", "#!/bin/sh\npwd > data/result\n", 0755);
    EXPECT_TRUE(run_script_as_user("bin/inner", directory.path(), kNobody, kLenient, error))
        << error.message();
    EXPECT_EQ(test::read_text(directory / "data/result"), directory.path() + "\n");
}

TEST_F(Script, ThatIsMissingIsNamed) {
    EXPECT_FALSE(run());
    EXPECT_EQ(describe(error), "10 The manifest lists an install script, 'script', but the file is missing.");
    EXPECT_EQ(log.text(), "");
}

TEST_F(Script, NeedsItsOwnersReadAndExecuteBits) {
    for (const mode_t mode : {0400U, 0100U, 0077U, 0655U}) {
        write_script("touch data/witness", mode);
        EXPECT_FALSE(run());
        char bits[8];
        std::snprintf(bits, sizeof bits, "0%o", mode);
        EXPECT_EQ(describe(error), "10 src/system/file.cpp:N: File " + (directory / "script") +
                                       " does not have required permissions: " + bits);
        error.clear();
    }
    EXPECT_FALSE(test::name_exists(directory / "data/witness"));
}

TEST_F(Script, MayHaveAnyOtherBits) {
    for (const mode_t mode : {0555U, 0700U}) {
        write_script("true", mode);
        ASSERT_EQ(chown((directory / "script").c_str(), 65534, 65534), 0);
        EXPECT_TRUE(run()) << error.message();
        EXPECT_EQ(log.text(), "");
        ASSERT_EQ(unlink((directory / "script").c_str()), 0);
    }
}

TEST_F(Script, IsNotRunForAUserWhoDoesNotExist) {
    write_script("touch data/witness");
    EXPECT_FALSE(run(kLenient, "no-such-user"));
    EXPECT_EQ(describe(error), runner_error("Failed running script"));
    EXPECT_EQ(test::without_line_numbers(log.text()),
              "src/system/user-database.cpp:N: User no-such-user does not exist\n");
    EXPECT_FALSE(test::name_exists(directory / "data/witness"));
}

TEST_F(Script, IsNotRunWhenTheUserCannotEnterTheDirectory) {
    write_script("true");
    ASSERT_EQ(chmod(directory.path().c_str(), 0700), 0);
    EXPECT_FALSE(run());
    EXPECT_EQ(describe(error), runner_error("Failed running script"));
    EXPECT_EQ(test::without_line_numbers(log.text()),
              "code 10: src/system/file.cpp:N: Failed changing directory to " + directory.path() +
                  ": Permission denied\n");
}

TEST_F(Script, IsNotRunWhenItsPathIsNoSafeArgument) {
    test::write_text(directory / "a b", "#!/bin/sh\ntouch data/witness\n", 0755);
    EXPECT_FALSE(run_script_as_user("a b", directory.path(), kNobody, kLenient, error));
    EXPECT_EQ(describe(error), runner_error("Failed running a b"));
    EXPECT_EQ(log.text(), "");
    EXPECT_FALSE(test::name_exists(directory / "data/witness"));
}

TEST_F(Script, ThatCannotBeExecutedDirectlyIsLogged) {
    test::write_text(directory / "script", "#!" + (directory / "no-interpreter") + "\n", 0755);
    ScriptRunOptions options = kLenient;
    options.exec_directly = true;
    EXPECT_FALSE(run(options));
    EXPECT_EQ(describe(error), runner_error("Failed running script"));
    EXPECT_EQ(test::without_line_numbers(log.text()),
              "code 10: src/system/subprocess.cpp:N: Failed running \"" + (directory / "script") +
                  "\" with the error: No such file or directory\n");
}

/** Run the whole thing in a process that is not root: the child can then become nobody else. */
TEST_F(Script, IsNotRunWhenTheProcessMayNotChangeItsUser) {
    write_script("touch data/witness");
    const test::ChildResult result = test::run_child([this] {
        if (setgid(65534) != 0 || setuid(65534) != 0)
            _exit(2);
        run(kLenient, "root");
        std::fprintf(stdout, "%s", describe(error).c_str());
    });
    EXPECT_EQ(result.output, runner_error("Failed running script"));
    EXPECT_EQ(log.text(), "Failed to initialize groups for user root: Operation not permitted\n");
    EXPECT_FALSE(test::name_exists(directory / "data/witness"));
}

/** From here on the kernel refuses this system call to the process and all that it starts. */
static bool forbid(uint32_t system_call) {
    sock_filter steps[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, system_call, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{std::size(steps), steps};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST_F(Script, IsNotRunWithAnyIdOfRootLeft) {
    write_script("touch data/witness");
    const std::pair<uint32_t, std::string> steps[] = {{SYS_setresgid, "group"}, {SYS_setresuid, "user"}};
    for (const auto& [system_call, id] : steps) {
        const test::LogCapture lines;
        const test::ChildResult result = test::run_child([this, number = system_call] {
            if (!forbid(number))
                _exit(2);
            run();
            std::fprintf(stdout, "%s", describe(error).c_str());
        });
        EXPECT_EQ(result.exit_status, 0);
        EXPECT_EQ(result.output, runner_error("Failed running script"));
        EXPECT_EQ(lines.text(), "Failed to set " + id + " id: Operation not permitted\n");
        EXPECT_FALSE(test::name_exists(directory / "data/witness"));
    }
}

TEST_F(Script, ReturningNonZeroIsOnlyAWarningUnlessItMustNot) {
    for (const int code : {1, 2, 77, 78, 255}) {
        const test::LogCapture lines;
        write_script("exit " + std::to_string(code));
        EXPECT_TRUE(run());
        EXPECT_EQ(describe(error), "none");
        EXPECT_EQ(lines.text(), "Script " + (directory / "script") +
                                    " returned non-zero exit code: " + std::to_string(code) + "\n");
    }
}

TEST_F(Script, ReturningNonZeroFailsWhenItMustNot) {
    ScriptRunOptions options = kLenient;
    options.fail_on_nonzero = true;
    for (const int code : {1, 77, 78, 255}) {
        write_script("exit " + std::to_string(code));
        EXPECT_FALSE(run(options));
        EXPECT_EQ(describe(error), exit_error(code));
        error.clear();
    }
    write_script("exit 0");
    EXPECT_TRUE(run(options));
    EXPECT_EQ(log.text(), "");
}

TEST_F(Script, Exiting71NeverRan) {
    write_script("exit 71");
    EXPECT_FALSE(run());
    EXPECT_EQ(describe(error), runner_error("Failed running script"));
}

TEST_F(Script, EndedByASignalFails) {
    ScriptRunOptions options = kLenient;
    options.exec_directly = true;
    write_script("kill -9 $$");
    EXPECT_FALSE(run(options));
    EXPECT_EQ(describe(error), runner_error("Failed running script"));
}

TEST_F(Script, Exiting78AbandonsTheInstallationWhenThatIsAllowed) {
    ScriptRunOptions options = kLenient;
    options.abort_on_ex_config = true;
    write_script("exit 78");
    EXPECT_FALSE(run(options));
    EXPECT_EQ(describe(error), "35 Fail installation, clear this error and exit successfully.");
    error.clear();
    options.fail_on_nonzero = true;
    EXPECT_FALSE(run(options));
    EXPECT_EQ(error.code(), 35);
    error.clear();
    write_script("exit 79");
    EXPECT_FALSE(run(options));
    EXPECT_EQ(describe(error), exit_error(79));
}

TEST_F(Script, Exiting77FailsWhenThatMeansFailure) {
    ScriptRunOptions options = kLenient;
    options.fail_on_ex_noperm = true;
    write_script("exit 77");
    EXPECT_FALSE(run(options));
    EXPECT_EQ(describe(error), exit_error(77));
    error.clear();
    write_script("exit 76");
    EXPECT_TRUE(run(options));
    EXPECT_EQ(log.text(), "Script " + (directory / "script") + " returned non-zero exit code: 76\n");
}

TEST_F(Script, ThatTakesTooLongDiesWithAllItsChildren) {
    write_script(
        "echo $$ > data/script\n"
        "sh -c 'echo $$ > data/child; sleep 600 & echo $! > data/grandchild; wait' &\n"
        "wait");
    ScriptRunOptions options = kLenient;
    options.timeout_s = 1;
    bool result = true;
    const int64_t took = milliseconds_of([&] { result = run(options); });
    EXPECT_FALSE(result);
    EXPECT_EQ(describe(error),
              "15 Execution of script took more than 1 s so the process was forcefully killed.");
    EXPECT_GT(took, 1000);
    EXPECT_LT(took, 8000);
    for (const char* name : {"data/script", "data/child", "data/grandchild"}) {
        const pid_t pid = pid_in(directory / name);
        ASSERT_GT(pid, 0) << name;
        EXPECT_TRUE(test::wait_until([pid] { return !is_running(pid); })) << name;
        EXPECT_THAT(log.text(), HasSubstr("Sending signal 9 to process " + std::to_string(pid) + "\n"))
            << name;
    }
    // The runner does not wait for what it killed.
    EXPECT_GT(waitpid(-1, nullptr, 0), 0);
}

TEST_F(Script, IsNotKilledBeforeItsTime) {
    ScriptRunOptions options = kLenient;
    options.timeout_s = 2;
    write_script("sleep 1");
    EXPECT_TRUE(run(options)) << error.message();
}

TEST(ScriptTime, IsOverAMillisecondBehindTheTimeOutAndNotAtIt) {
    for (const int32_t timeout_s : {0, 1, 60, INT32_MAX}) {
        const int64_t time_ms = int64_t{timeout_s} * 1000;
        EXPECT_FALSE(is_over_time(time_ms - 1, timeout_s));
        EXPECT_FALSE(is_over_time(time_ms, timeout_s));
        EXPECT_TRUE(is_over_time(time_ms + 1, timeout_s));
    }
}

TEST_F(Script, WithoutAnyTimeIsKilledAtTheFirstLookAfterIt) {
    ScriptRunOptions options = kLenient;
    options.timeout_s = 0;
    write_script("sleep 600");
    EXPECT_FALSE(run(options));
    EXPECT_EQ(describe(error),
              "15 Execution of script took more than 0 s so the process was forcefully killed.");
    EXPECT_GT(waitpid(-1, nullptr, 0), 0);
}

TEST_F(Script, CannotBeAwaitedWhereChildrenAreReapedByTheSystem) {
    write_script("true");
    const test::ChildResult result = test::run_child([this] {
        signal(SIGCHLD, SIG_IGN);
        run();
        std::fprintf(stdout, "%s", describe(error).c_str());
    });
    EXPECT_EQ(result.output, runner_error("Error waiting for child script: No child processes"));
}

TEST_F(Script, CannotRunWhereNoProcessCanBeMade) {
    write_script("true");
    const test::ChildResult result = test::run_child([this] {
        // The limit holds for users other than root only.
        const rlimit none{0, 0};
        if (setrlimit(RLIMIT_NPROC, &none) != 0 || setgid(65534) != 0 || setuid(65534) != 0)
            _exit(2);
        run();
        std::fprintf(stdout, "%s", describe(error).c_str());
    });
    EXPECT_EQ(result.output, runner_error("Failed to fork when running script"));
}

TEST_F(Script, FailsWithoutAnErrorSlotToo) {
    EXPECT_FALSE(run_script_as_user("script", directory.path(), kNobody, kLenient, nullptr));
    write_script("exit 71");
    EXPECT_FALSE(run_script_as_user("script", directory.path(), kNobody, kLenient, nullptr));
}

TEST(ProcessTree, IsKilledDepthFirst) {
    const test::TemporaryDirectory directory;
    const test::LogCapture log;
    const pid_t parent = fork();
    if (parent == 0) {
        // Neither ends by itself when its child has: each is still there when its own signal comes.
        execl("/bin/sh", "sh", "-c",
              ("cd '" + directory.path() +
               "'; sh -c 'sleep 600 & echo $! > grandchild; wait; exec sleep 600' & echo $! > child; wait; "
               "exec sleep 600")
                  .c_str(),
              nullptr);
        _exit(127);
    }
    ASSERT_TRUE(test::wait_until(
        [&] { return pid_in(directory / "grandchild") > 0 && pid_in(directory / "child") > 0; }));
    const pid_t child = pid_in(directory / "child");
    const pid_t grandchild = pid_in(directory / "grandchild");
    EXPECT_THAT(get_child_pids(parent), ElementsAre(child, 0));
    EXPECT_THAT(get_child_pids(child), ElementsAre(grandchild, 0));
    EXPECT_THAT(get_child_pids(grandchild), ElementsAre(0));
    kill_process_tree(parent);
    // Dead by now, and left for its parent to notice.
    EXPECT_THAT(test::read_text("/proc/" + std::to_string(parent) + "/stat"), HasSubstr(") Z "));
    int status = 0;
    ASSERT_EQ(waitpid(parent, &status, 0), parent);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_TRUE(test::wait_until([&] { return !is_running(child) && !is_running(grandchild); }));
    EXPECT_EQ(log.text(), "Sending signal 9 to process " + std::to_string(grandchild) +
                              "\nSending signal 9 to process " + std::to_string(child) +
                              "\nSending signal 9 to process " + std::to_string(parent) + "\n");
}

TEST(ProcessTree, OfAProcessThatIsGoneIsEmpty) {
    const pid_t pid = fork();
    if (pid == 0)
        _exit(0);
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
    EXPECT_THAT(get_child_pids(pid), ElementsAre(0));
}

TEST(PidText, IsSplitIntoNumbersWithAZeroBehindThem) {
    EXPECT_THAT(split_string_and_decode_pids("12 345 6"), ElementsAre(12, 345, 6, 0));
    EXPECT_THAT(split_string_and_decode_pids(" 12  345 "), ElementsAre(12, 345, 0));
    EXPECT_THAT(split_string_and_decode_pids("7"), ElementsAre(7, 0));
    EXPECT_THAT(split_string_and_decode_pids(" 1 2  3 4 "), ElementsAre(1, 2, 3, 4, 0));
    EXPECT_THAT(split_string_and_decode_pids(""), ElementsAre(0));
    EXPECT_THAT(split_string_and_decode_pids("   "), ElementsAre(0));
}

TEST(PidText, NeverYieldsProcessZero) {
    EXPECT_THAT(split_string_and_decode_pids("0 5 0 00 6"), ElementsAre(5, 6, 0));
}

TEST(PidText, GoesOnBehindWhatIsNoNumber) {
    EXPECT_THAT(split_string_and_decode_pids("x12 3y4"), ElementsAre(12, 3, 4, 0));
    EXPECT_THAT(split_string_and_decode_pids("99999999999999999999 5"), ElementsAre(5, 0));
}

TEST(PidText, ThatIsNullEndsTheProcess) {
    const test::ChildResult result = test::run_child([] { split_string_and_decode_pids(nullptr); });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.errors, EndsWith("Assertion `space_separated_pids' failed.\n"));
}
