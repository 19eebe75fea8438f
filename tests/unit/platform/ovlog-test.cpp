#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <vector>

#include "base/log.h"
#include "platform/libovlog.h"
#include "support.h"

using testing::ElementsAre;

/*
 * The system log, recorded: these stand before the C library's functions of the same names.
 */
static std::vector<std::string> recorded;

static void record(int priority, const char* format, va_list arguments) {
    char text[1024];
    std::vsnprintf(text, sizeof text, format, arguments);
    recorded.push_back(std::to_string(priority) + " " + text);
}

extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl50-cpp,readability-inconsistent-declaration-parameter-name)
void openlog(const char* ident, int option, int facility) {
    recorded.push_back(std::string("open ") + ident + " " + std::to_string(option) + " " +
                       std::to_string(facility));
}

void syslog(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    record(priority, format, arguments);
    va_end(arguments);
}

void __syslog_chk(int priority, int, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    record(priority, format, arguments);
    va_end(arguments);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl50-cpp,readability-inconsistent-declaration-parameter-name)
}

static std::string syslog_line(int priority, const char* text) {
    return std::to_string(priority) + " " + text;
}

TEST(LogSinkToDescriptor, WritesOneUndecoratedLineForEachMessage) {
    const test::LogCapture log;
    log_info("first");
    log_warning("second");
    log_general_error("%s%s", "", "third");
    EXPECT_EQ(log.text(), "first\nsecond\nthird\n");
}

TEST(LogSinkToDescriptor, KeepsAMessageOnOneLine) {
    const test::LogCapture log;
    log_warning("one\ncode 0: forged\r\t\x1b[2J\x7f");
    EXPECT_EQ(log.text(), "one\\x0acode 0: forged\\x0d\\x09\\x1b[2J\\x7f\n");
}

TEST(LogSinkToDescriptor, LetsNoMessageSteerATerminal) {
    const test::LogCapture log;
    log_warning(
        "a\xc2\x9b"
        "2J \xe2\x80\xae"
        "gpj \x9b");
    EXPECT_EQ(log.text(), "a\\xc2\\x9b2J \\xe2\\x80\\xaegpj \\x9b\n");
}

TEST(LogSinkToDescriptor, LeavesLettersOutsideAsciiAlone) {
    const test::LogCapture log;
    log_info("%s", "Kamera f\xc3\xbcr T\xc3\xbcren");
    EXPECT_EQ(log.text(), "Kamera f\xc3\xbcr T\xc3\xbcren\n");
}

TEST(LogSinkToDescriptor, HidesDebugMessagesOfEveryDomain) {
    const test::LogCapture log;
    g_log("GLib", G_LOG_LEVEL_DEBUG, "hidden");
    g_log("GLib-GIO", G_LOG_LEVEL_DEBUG, "hidden");
    g_log(nullptr, G_LOG_LEVEL_MESSAGE, "shown");
    g_log("GLib-GIO", G_LOG_LEVEL_CRITICAL, "shown too");
    EXPECT_EQ(log.text(), "shown\nshown too\n");
}

TEST(LogSinkToDescriptor, TakesTheLastDescriptorGiven) {
    const test::LogCapture first;
    {
        const test::LogCapture second;
        log_info("to the second");
        EXPECT_EQ(second.text(), "to the second\n");
    }
    EXPECT_EQ(first.text(), "");
}

static int full_pipe[2];

static void drain_pipe(int) {
    char block[65536];
    (void)!read(full_pipe[0], block, sizeof block);
}

// A signal that arrives while the reader is slow must not cost the line.
TEST(LogSinkToDescriptor, WritesTheLineAlthoughASignalInterruptsIt) {
    ASSERT_EQ(pipe(full_pipe), 0);
    const std::string filling(65536, 'x');
    ASSERT_EQ(write(full_pipe[1], filling.data(), filling.size()), 65536);
    struct sigaction action {};
    struct sigaction old_action {};
    action.sa_handler = drain_pipe;  // without SA_RESTART: the write returns EINTR
    sigaction(SIGALRM, &action, &old_action);
    const itimerval timer{{0, 0}, {0, 50'000}};
    setitimer(ITIMER_REAL, &timer, nullptr);
    ov_log_fd(full_pipe[1]);
    log_info("survives");
    ov_log_null();
    sigaction(SIGALRM, &old_action, nullptr);
    close(full_pipe[1]);
    char line[64] = "";
    EXPECT_EQ(read(full_pipe[0], line, sizeof line - 1), 9);
    EXPECT_STREQ(line, "survives\n");
    close(full_pipe[0]);
}

TEST(LogSinkToDescriptor, GivesUpOnADescriptorThatCannotBeWritten) {
    const test::ChildResult result = test::run_child([] {
        ov_log_fd(-1);
        log_info("nobody hears");
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.errors, "");
}

TEST(LogSinkToNull, DiscardsEveryLevel) {
    const test::ChildResult result = test::run_child([] {
        ov_log_null();
        log_info("nothing");
        log_general_error("%s%s", "", "nothing");
        g_log("GLib", G_LOG_LEVEL_CRITICAL, "nothing");
    });
    EXPECT_EQ(result.output + result.errors, "");
}

TEST(LogSinkToSystemLog, UsesPrioritiesThatFitTheLevels) {
    recorded.clear();
    log_setup(LOG_MODE_SYSLOG);
    g_log(nullptr, G_LOG_LEVEL_CRITICAL, "critical");
    log_warning("warning");
    g_log(nullptr, G_LOG_LEVEL_MESSAGE, "message");
    log_info("info %s", "100 %s");
    log_general_error("%s%s", "", "general");
    g_log(nullptr, G_LOG_LEVEL_DEBUG, "hidden");
    log_warning("two\nlines");
    ov_log_null();
    EXPECT_THAT(recorded,
                ElementsAre("open velkctl " + std::to_string(LOG_PID) + " " + std::to_string(LOG_DAEMON),
                            syslog_line(LOG_ERR, "critical"), syslog_line(LOG_WARNING, "warning"),
                            syslog_line(LOG_NOTICE, "message"), syslog_line(LOG_INFO, "info 100 %s"),
                            syslog_line(LOG_ERR, "general"), syslog_line(LOG_WARNING, "two\\x0alines")));
}

TEST(LogSinkToSystemLog, LeavesStandardErrorSilent) {
    const test::ChildResult result = test::run_child([] {
        log_setup(LOG_MODE_SYSLOG);
        log_warning("to the system log");
    });
    EXPECT_EQ(result.output + result.errors, "");
}
