#include "base/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <functional>

#include "support.h"

using testing::EndsWith;

static void note_level(const char*, GLogLevelFlags level, const char* message, void* data) {
    auto* lines = static_cast<std::string*>(data);
    *lines += std::to_string(static_cast<int>(level & G_LOG_LEVEL_MASK)) + " " + message + "\n";
}

/** What `body` logs, each line after its level's value. */
static std::string levels_of(const std::function<void()>& body) {
    log_setup(LOG_MODE_STDERR);
    std::string lines;
    g_log_set_default_handler(note_level, &lines);
    body();
    log_setup(LOG_MODE_NULL);
    return lines;
}

static void log_code(int32_t code, const char* text) {
    ErrorSlot error;
    velkctl_error_set(error, code, "%s", text);
    log_error(error.get());
}

TEST(LogSetup, SendsLinesToStandardError) {
    const test::ChildResult result = test::run_child([] {
        log_setup(LOG_MODE_STDERR);
        log_info("Backed up application %s", "MyApp");
        log_warning("beware");
        log_code(10, "general");
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "Backed up application MyApp\nbeware\ncode 10: general\n");
}

TEST(LogSetup, DiscardsEverythingInNullMode) {
    const test::ChildResult result = test::run_child([] {
        log_setup(LOG_MODE_NULL);
        log_info("nothing");
        log_warning("nothing");
        log_code(10, "nothing");
    });
    EXPECT_EQ(result.output + result.errors, "");
}

TEST(LogSetup, NeverShowsDebugMessagesOfGLib) {
    const test::ChildResult result = test::run_child([] {
        log_setup(LOG_MODE_STDERR);
        g_log("GLib", G_LOG_LEVEL_DEBUG, "posix_spawn avoided");
        g_log("GLib", G_LOG_LEVEL_WARNING, "shown");
    });
    EXPECT_EQ(result.errors, "shown\n");
}

TEST(LogSetup, WithAnotherModeDoesNothingAndLeavesLoggingNotSetUp) {
    for (const int mode : {3, -1}) {
        const test::ChildResult result = test::run_child([mode] {
            log_setup(mode);
            // Still not set up: the first error discards, and so does everything after it.
            log_code(4, "dropped");
            log_warning("dropped too");
        });
        EXPECT_EQ(result.output + result.errors, "") << mode;
    }
}

TEST(LogSetup, WithAnotherModeKeepsTheSinkThatWasChosen) {
    const test::ChildResult result = test::run_child([] {
        log_setup(LOG_MODE_STDERR);
        log_setup(3);
        log_code(4, "shown");
    });
    EXPECT_EQ(result.errors, "code 4: shown\n");
}

TEST(LogSetup, CanChangeTheSink) {
    const test::ChildResult result = test::run_child([] {
        log_setup(LOG_MODE_NULL);
        log_warning("dropped");
        log_setup(LOG_MODE_STDERR);
        log_warning("shown");
    });
    EXPECT_EQ(result.errors, "shown\n");
}

TEST(LogError, BeforeSetUpIsDroppedWithAllThatFollows) {
    const test::ChildResult result = test::run_child([] {
        log_code(10, "dropped");
        log_info("dropped");
        log_warning("dropped");
        log_code(4, "dropped");
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.output + result.errors, "");
}

TEST(LogError, WritesNothingForNoRecord) {
    EXPECT_EQ(levels_of([] { log_error(nullptr); }), "");
}

TEST(LogError, WritesCodeTenAboveTheStandardLevelsAndOthersAsWarnings) {
    EXPECT_EQ(levels_of([] {
                  log_code(10, "general");
                  log_code(1, "package");
                  log_code(54, "schema");
              }),
              "256 code 10: general\n16 code 1: package\n16 code 54: schema\n");
}

TEST(LogError, TakesAMessageWithPercentSignsAsItIs) {
    EXPECT_EQ(levels_of([] {
                  log_code(10, "100 %s %n");
                  log_code(4, "100 %s %n");
              }),
              "256 code 10: 100 %s %n\n16 code 4: 100 %s %n\n");
}

TEST(LogLines, CarryTheirLevels) {
    EXPECT_EQ(levels_of([] {
                  log_info("progress %d", 1);
                  log_warning("trouble");
                  log_general_error("%s%s", LOG_PREAMBLE, "fault");
              }),
              "64 progress 1\n16 trouble\n256 fault\n");
}

TEST(LogErrorCode, WritesAnErrorThatHasNoRecord) {
    EXPECT_EQ(levels_of([] {
                  _log_error_code(10, "Unknown command '%s'", "x");
                  _log_error_code(1, "lowest");
                  _log_error_code(54, "highest");
              }),
              "256 code 10: Unknown command 'x'\n16 code 1: lowest\n16 code 54: highest\n");
}

TEST(LogErrorCode, CutsALongText) {
    EXPECT_EQ(levels_of([] { _log_error_code(10, "%s", std::string(300, 'a').c_str()); }),
              "256 code 10: " + std::string(255, 'a') + "\n");
}

TEST(LogErrorCode, OutsideTheRangeEndsTheProcess) {
    for (const int32_t code : {-1, 0, 55, 56}) {
        const test::ChildResult result = test::run_child([code] {
            log_setup(LOG_MODE_STDERR);
            _log_error_code(code, "never");
        });
        EXPECT_EQ(result.signal, SIGABRT) << code;
        EXPECT_THAT(
            result.errors,
            EndsWith("Assertion `code > VELKCTL_SUCCESS && code < VELKCTL_ERROR_UNDEFINED' failed.\n"));
    }
}

TEST(WarnAndClear, WarnsWithPreambleClearsAndLowersTheFlag) {
    ErrorSlot error;
    bool ok = true;
    velkctl_error_set(error, 10, "the reason");
    EXPECT_EQ(levels_of([&] { warn_and_clear_error_with_preamble("Leftover: ", error, &ok); }),
              "16 Leftover: the reason\n");
    EXPECT_FALSE(error.is_set());
    EXPECT_FALSE(ok);
}

TEST(WarnAndClear, WithoutPreambleWritesTheMessageAlone) {
    ErrorSlot error;
    bool ok = true;
    velkctl_error_set(error, 4, "the reason");
    EXPECT_EQ(levels_of([&] { warn_and_clear_error(error, &ok); }), "16 the reason\n");
    EXPECT_FALSE(error.is_set());
    EXPECT_FALSE(ok);
}

TEST(WarnAndClear, NeedsNoFlag) {
    ErrorSlot error;
    velkctl_error_set(error, 4, "the reason");
    EXPECT_EQ(levels_of([&] { warn_and_clear_error(error, nullptr); }), "16 the reason\n");
    EXPECT_FALSE(error.is_set());
}

TEST(WarnAndClear, DoesNothingWhereNoErrorIsPending) {
    ErrorSlot error;
    bool ok = true;
    EXPECT_EQ(levels_of([&] {
                  warn_and_clear_error_with_preamble("Leftover: ", error, &ok);
                  warn_and_clear_error_with_preamble("Leftover: ", nullptr, &ok);
                  warn_and_clear_error(error, &ok);
              }),
              "");
    EXPECT_TRUE(ok);
}

TEST(WarnAndClear, WithoutAPreambleTextEndsTheProcess) {
    const test::ChildResult result = test::run_child([] {
        ErrorSlot error;
        warn_and_clear_error_with_preamble(nullptr, error, nullptr);
    });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.errors, EndsWith("Assertion `preamble' failed.\n"));
}
