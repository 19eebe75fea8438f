#include "system/subprocess.h"

#include <glib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>

#include "support.h"

using test::describe;

static constexpr const char* kPlace = "10 src/system/subprocess.cpp:N: ";

TEST(RunCommand, ReturnsZeroAndSetsNothingOnSuccess) {
    ErrorSlot error;
    EXPECT_EQ(run_command(error, "true"), 0);
    EXPECT_EQ(run_command(error, "true", {nullptr}), 0);
    EXPECT_EQ(describe(error), "none");
}

TEST(RunCommand, PutsTheArgumentsInTheirPlaces) {
    const test::ChildResult result = test::run_child([] {
        ErrorSlot error;
        run_command(error, "echo '%s'-'%s' 100%%s", {"first", "/se/cond", "third"});
    });
    EXPECT_EQ(result.output, "first-/se/cond 100%third\n");
}

TEST(RunCommand, LetsTheCommandInheritOutputAndErrors) {
    const test::ChildResult result = test::run_child([] {
        ErrorSlot error;
        run_command(error, "echo out; echo err >&2");
    });
    EXPECT_EQ(result.output, "out\n");
    EXPECT_EQ(result.errors, "err\n");
}

TEST(RunCommand, ReturnsTheExitStatusAndReportsTheLine) {
    ErrorSlot error;
    errno = 0;
    EXPECT_EQ(run_command(error, "exit 1"), 1);
    EXPECT_EQ(describe(error), std::string(kPlace) + "Failed running \"exit 1\"");
    error.clear();
    errno = 0;
    EXPECT_EQ(run_command(error, "exit %s", {"255"}), 255);
    EXPECT_EQ(describe(error), std::string(kPlace) + "Failed running \"exit 255\"");
}

TEST(RunCommand, AddsWhateverErrnoTheProcessLastLeft) {
    ErrorSlot error;
    errno = ENOSPC;
    EXPECT_EQ(run_command(error, "exit 1"), 1);
    EXPECT_EQ(describe(error),
              std::string(kPlace) + "Failed running \"exit 1\" with the error: No space left on device");
}

TEST(RunCommand, ReturnsMinusOneForACommandThatASignalEnded) {
    ErrorSlot error;
    errno = 0;
    EXPECT_EQ(run_command(error, "kill -9 $$"), -1);
    EXPECT_EQ(describe(error), std::string(kPlace) + "Failed running \"kill -9 $$\"");
}

TEST(RunCommand, Returns127ForACommandThatTheShellDoesNotFind) {
    ErrorSlot error;
    errno = 0;
    const test::ScopedVariable path("PATH", "nonexistent");
    EXPECT_EQ(run_command(error, "no-such-program 2>&-"), 127);
    EXPECT_EQ(describe(error), std::string(kPlace) + "Failed running \"no-such-program 2>&-\"");
}

TEST(RunCommand, RefusesAnUnsafeArgumentAndRunsNothing) {
    const test::TemporaryDirectory directory;
    const std::string witness = directory / "witness";
    const std::string line = "touch " + witness + "; echo '%s' '%s'";
    for (const char* argument : {"../x", "a..b", "a b", "a'b", "", "a\n"}) {
        ErrorSlot error;
        EXPECT_EQ(run_command(error, line.c_str(), {"fine", argument}), -1);
        EXPECT_EQ(describe(error), std::string("10 Illegal argument to shell command: ") + argument);
    }
    EXPECT_FALSE(test::name_exists(witness));
}

TEST(RunCommand, ChecksTheArgumentsAndNeverTheFormat) {
    ErrorSlot error;
    EXPECT_EQ(run_command(error, "test '%s' = \"a\" # ../ and 'quotes'", {"a"}), 0) << error.message();
}

TEST(RunCommand, EndsTheArgumentsAtTheFirstNull) {
    ErrorSlot error;
    EXPECT_EQ(run_command(error, "test '%s' = a", {"a", nullptr, "../never looked at"}), 0)
        << error.message();
}

TEST(RunCommand, RefusesTarThatWouldKeepOwnersAndRunsNothing) {
    const test::TemporaryDirectory directory;
    const std::string witness = directory / "witness";
    const std::string line = "tar --version > " + witness;
    ErrorSlot error;
    EXPECT_EQ(run_command(error, line.c_str()), -1);
    EXPECT_EQ(describe(error), "10 Illegal flags using tar " + line);
    EXPECT_FALSE(test::name_exists(witness));
}

TEST(RunCommand, RunsTarWithTheTwoFlags) {
    const test::TemporaryDirectory directory;
    test::write_text(directory / "file", "text");
    test::shell("tar -C '" + directory.path() + "' -cf '" + (directory / "a.tar") + "' file");
    ASSERT_EQ(mkdir((directory / "out").c_str(), 0755), 0);
    ErrorSlot error;
    EXPECT_EQ(run_command(error, "tar --no-same-permissions --no-same-owner -C '%s' -xf '%s'",
                          {(directory / "out").c_str(), (directory / "a.tar").c_str()}),
              0)
        << error.message();
    EXPECT_EQ(test::read_text(directory / "out/file"), "text");
}

TEST(RunCommand, WorksWithoutAnErrorSlot) {
    EXPECT_EQ(run_command(nullptr, "exit 3"), 3);
    EXPECT_EQ(run_command(nullptr, "echo '%s'", {"a b"}), -1);
    EXPECT_EQ(run_command(nullptr, "tar -x"), -1);
}

TEST(RunCommandWithOutput, CapturesStandardOutputOnly) {
    ErrorSlot error;
    std::string output;
    EXPECT_EQ(
        run_command_with_output(&output, error, "exec 2>/dev/null; echo '%s'; echo hidden >&2", {"a-b"}), 0);
    EXPECT_EQ(output, "a-b\n");
    EXPECT_EQ(describe(error), "none");
}

TEST(RunCommandWithOutput, KeepsTheOutputOfACommandThatFails) {
    ErrorSlot error;
    std::string output = "old";
    errno = 0;
    EXPECT_EQ(run_command_with_output(&output, error, "echo part; exit 2"), 2);
    EXPECT_EQ(output, "part\n");
    EXPECT_EQ(describe(error), std::string(kPlace) + "Failed running \"echo part; exit 2\"");
}

TEST(RunCommandWithOutput, EmptiesTheOutputBeforeAnythingElse) {
    ErrorSlot error;
    std::string output = "old";
    EXPECT_EQ(run_command_with_output(&output, error, "echo '%s'", {"a b"}), -1);
    EXPECT_EQ(output, "");
    EXPECT_EQ(describe(error), "10 Illegal argument to shell command: a b");
    output = "old";
    error.clear();
    EXPECT_EQ(run_command_with_output(&output, error, "tar -x"), -1);
    EXPECT_EQ(output, "");
    EXPECT_EQ(describe(error), "10 Illegal flags using tar tar -x");
}

TEST(RunCommandWithOutput, TakesMoreThanAPipeHolds) {
    ErrorSlot error;
    std::string output;
    EXPECT_EQ(run_command_with_output(&output, error, "head -c 300000 /dev/zero | tr '\\0' x"), 0);
    EXPECT_EQ(output, std::string(300'000, 'x'));
}

TEST(SpawnAndWait, KeepsTheStartAndTheEndOfVeryMuchOutput) {
    ErrorSlot error;
    std::string output;
    const std::vector<std::string> command = {"sh", "-c",
                                              "printf start; head -c 5000000 /dev/zero; printf end; exit 3"};
    EXPECT_EQ(spawn_and_wait(command, &output, error), 3);
    EXPECT_EQ(output.size(), (size_t{1} << 20) + (64 << 10));
    EXPECT_TRUE(output.starts_with("start"));
    EXPECT_TRUE(output.ends_with("end"));
}

TEST(SpawnAndWait, LetsWhatIsReadBeSaidInEnglishAndInPlainUnits) {
    ErrorSlot error;
    std::string output;
    g_setenv("LC_ALL", "de_DE.UTF-8", TRUE);
    g_setenv("BLOCK_SIZE", "1", TRUE);
    const std::vector<std::string> command = {"sh", "-c", "echo $LC_ALL ${BLOCK_SIZE-none}"};
    EXPECT_EQ(spawn_and_wait(command, &output, error), 0);
    g_unsetenv("LC_ALL");
    g_unsetenv("BLOCK_SIZE");
    EXPECT_EQ(output, "C none\n");
}

TEST(SpawnAndWait, FailsWhenNobodyCanTellHowAProgramEnded) {
    ErrorSlot error;
    std::string output;
    std::signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(spawn_and_wait({"true"}, nullptr, error), -1);
    EXPECT_EQ(describe(error), "10 src/system/subprocess.cpp:N: Failed running \"true\": No child processes");
    error.clear();
    EXPECT_EQ(run_command_with_output(&output, error, "echo '%s'", {"a-b"}), -1);
    std::signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(describe(error),
              "10 src/system/subprocess.cpp:N: Failed running \"/bin/sh\": No child processes");
}

TEST(SpawnAndWait, SearchesThePathAndReturnsTheStatusWithoutAnError) {
    ErrorSlot error;
    EXPECT_EQ(spawn_and_wait({"true"}, nullptr, error), 0);
    EXPECT_EQ(spawn_and_wait({"false"}, nullptr, error), 1);
    EXPECT_EQ(spawn_and_wait({"sh", "-c", "exit 200"}, nullptr, error), 200);
    EXPECT_EQ(spawn_and_wait({"sh", "-c", "kill -15 $$"}, nullptr, error), -1);
    EXPECT_EQ(describe(error), "none");
}

TEST(SpawnAndWait, CapturesOutputAndStaysInTheWorkingDirectory) {
    const test::TemporaryDirectory directory;
    const test::ScopedWorkingDirectory here(directory.path());
    ErrorSlot error;
    std::string output;
    EXPECT_EQ(spawn_and_wait({"pwd"}, &output, error), 0);
    EXPECT_EQ(output, directory.path() + "\n");
}

TEST(SpawnAndWait, GivesTheChildNoDescriptorButTheStandardOnes) {
    // As whoever started this program may have left some open.
    const int left_open = dup(STDERR_FILENO);
    ASSERT_GT(left_open, STDERR_FILENO);
    ErrorSlot error;
    std::string output;
    // The shell has its own view of the directory open while it reads it.
    EXPECT_EQ(
        spawn_and_wait({"/bin/sh", "-c", "for n in /proc/self/fd/*; do echo ${n##*/}; done"}, &output, error),
        0);
    EXPECT_EQ(output, "0\n1\n2\n3\n");
    close(left_open);
}

TEST(SpawnAndWait, PassesArgumentsWithoutAShell) {
    ErrorSlot error;
    std::string output;
    EXPECT_EQ(spawn_and_wait({"printf", "%s|", "a b", "$HOME", "'", ""}, &output, error), 0);
    EXPECT_EQ(output, "a b|$HOME|'||");
}

TEST(SpawnAndWait, ReportsAProgramThatCannotBeStarted) {
    const test::TemporaryDirectory directory;
    const std::string program = directory / "absent";
    ErrorSlot error;
    std::string output = "old";
    EXPECT_EQ(spawn_and_wait({program, "argument"}, &output, error), -1);
    EXPECT_THAT(describe(error), testing::MatchesRegex("10 src/system/subprocess\\.cpp:N: Failed running \"" +
                                                       program + "\": .*No such file or directory.*"));
    EXPECT_EQ(spawn_and_wait({program}, nullptr, nullptr), -1);
}

// A shell that cannot be started has named its own reason, and the general "Failed running" must not come on
// top.
TEST(RunCommand, ReportsAFailedStartOnce) {
    SKIP_UNLESS_ROOT();
    const test::TemporaryDirectory directory;
    const test::ChildResult result = test::run_child([&] {
        if (chroot(directory.path().c_str()) != 0 || chdir("/") != 0)
            _exit(2);
        ErrorSlot error;
        const int status = run_command(error, "true");
        std::fprintf(stdout, "%d %s", status, describe(error).c_str());
    });
    EXPECT_EQ(result.signal, 0) << result.errors;
    EXPECT_THAT(result.output,
                testing::MatchesRegex("-1 10 src/system/subprocess\\.cpp:N: Failed running \"/bin/sh\": "
                                      ".*No such file or directory.*"));
}

TEST(ExecFile, ReplacesTheProcessWithThePathAsOnlyArgument) {
    const test::TemporaryDirectory directory;
    test::write_text(directory / "program", "#!/bin/sh\necho \"$0 $# $MARK\"\nexit 7\n", 0755);
    const test::ScopedVariable mark("MARK", "kept");
    const test::ChildResult result = test::run_child([&] {
        ErrorSlot error;
        exec_file(directory / "program", error);
    });
    EXPECT_EQ(result.exit_status, 7);
    EXPECT_EQ(result.output, directory / "program" + " 0 kept\n");
}

TEST(ExecFile, ReturnsWithAnErrorWhenTheFileCannotBeRun) {
    const test::TemporaryDirectory directory;
    ErrorSlot error;
    exec_file(directory / "absent", error);
    EXPECT_EQ(describe(error), std::string(kPlace) + "Failed running \"" + (directory / "absent") +
                                   "\" with the error: No such file or directory");
    error.clear();
    test::write_text(directory / "plain", "text", 0644);
    exec_file(directory / "plain", error);
    EXPECT_EQ(describe(error), std::string(kPlace) + "Failed running \"" + (directory / "plain") +
                                   "\" with the error: Permission denied");
    exec_file(directory / "absent", nullptr);
}

TEST(CheckShellArguments, NamesTheFirstBadArgument) {
    ErrorSlot error;
    EXPECT_EQ(check_shell_arguments({}, error), 0);
    EXPECT_EQ(check_shell_arguments({"a", "/b/c", "d.e+f-g_h"}, error), 0);
    EXPECT_EQ(check_shell_arguments({"a", nullptr, "b c"}, error), 0);
    EXPECT_EQ(describe(error), "none");
    EXPECT_EQ(check_shell_arguments({"a", "b;c", "d e"}, error), -1);
    EXPECT_EQ(describe(error), "10 Illegal argument to shell command: b;c");
    EXPECT_EQ(check_shell_arguments({"b;c"}, nullptr), -1);
}

TEST(CheckTarFlags, LooksAtLinesThatBeginWithTarOnly) {
    ErrorSlot error;
    EXPECT_EQ(check_tar_flags("tar --no-same-permissions --no-same-owner -xf a", error), 0);
    EXPECT_EQ(check_tar_flags("tar -xf a --no-same-permissions --no-same-owner", error), 0);
    EXPECT_EQ(check_tar_flags("su -s /bin/sh -c \"tar -xf a\" nobody", error), 0);
    EXPECT_EQ(check_tar_flags(" tar -xf a", error), 0);
    EXPECT_EQ(check_tar_flags("tar", error), 0);
    EXPECT_EQ(check_tar_flags("tarx -xf a", error), 0);
    EXPECT_EQ(check_tar_flags("", error), 0);
    EXPECT_EQ(describe(error), "none");
}

TEST(CheckTarFlags, RefusesEveryOtherSpellingOfTheFlags) {
    for (const char* line :
         {"tar ", "tar -xf a", "tar --no-same-owner --no-same-permissions -xf a",
          "tar --no-same-permissions  --no-same-owner -xf a", "tar --no-same-owner -xf a"}) {
        ErrorSlot error;
        EXPECT_EQ(check_tar_flags(line, error), -1);
        EXPECT_EQ(describe(error), std::string("10 Illegal flags using tar ") + line);
    }
    EXPECT_EQ(check_tar_flags("tar -x", nullptr), -1);
}
