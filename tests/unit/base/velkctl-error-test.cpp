#include "base/velkctl-error.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "support.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

using test::describe;

// NOLINTNEXTLINE(cert-dcl50-cpp)
static void vset(VelkctlError** error, int32_t code, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    velkctl_error_vset(error, code, format, arguments);
    va_end(arguments);
}

TEST(ErrorCodes, AreTheNumbersThatCallersSeeAsExitStatus) {
    EXPECT_EQ(VELKCTL_SUCCESS, 0);
    EXPECT_EQ(VELKCTL_ERROR_INVALID_PACKAGE, 1);
    EXPECT_EQ(VELKCTL_ERROR_SIGNATURE, 2);
    EXPECT_EQ(VELKCTL_ERROR_NO_SPACE, 3);
    EXPECT_EQ(VELKCTL_ERROR_NOT_FOUND, 4);
    EXPECT_EQ(VELKCTL_ERROR_INCOMPATIBLE, 5);
    EXPECT_EQ(VELKCTL_ERROR_GENERAL, 10);
    EXPECT_EQ(VELKCTL_ERROR_LOCKED, 12);
    EXPECT_EQ(VELKCTL_ERROR_NOT_ALLOWLISTED, 13);
    EXPECT_EQ(VELKCTL_ERROR_ALREADY_EXISTS, 14);
    EXPECT_EQ(VELKCTL_ERROR_TIMEOUT, 15);
    EXPECT_EQ(VELKCTL_ERROR_VENDOR_MISMATCH, 27);
    EXPECT_EQ(VELKCTL_ERROR_INVALID_MANIFEST, 29);
    EXPECT_EQ(VELKCTL_ERROR_INVALID_LOCATION, 33);
    EXPECT_EQ(VELKCTL_ERROR_DEFAULT_LOCATION_ONLY, 34);
    EXPECT_EQ(VELKCTL_ERROR_INSTALL_ABORTED, 35);
    EXPECT_EQ(VELKCTL_ERROR_NO_DLPU, 36);
    EXPECT_EQ(VELKCTL_ERROR_SERIAL_MISMATCH, 51);
    EXPECT_EQ(VELKCTL_ERROR_DEVMODE_VENDOR_MISMATCH, 53);
    EXPECT_EQ(VELKCTL_ERROR_NO_MATCHING_SCHEMA, 54);
    EXPECT_EQ(VELKCTL_ERROR_UNDEFINED, 55);
}

TEST(ErrorRecord, CarriesCodeAndFormattedMessage) {
    ErrorSlot error;
    velkctl_error_set(error, VELKCTL_ERROR_NOT_FOUND, "Application not found in store: %s", "MyApp");
    EXPECT_EQ(describe(error), "4 Application not found in store: MyApp");
    EXPECT_FALSE(error.get()->foreign);
}

TEST(ErrorRecord, KeepsAMessageOf255Characters) {
    const std::string text(255, 'x');
    ErrorSlot error;
    velkctl_error_set(error, 10, "%s", text.c_str());
    EXPECT_EQ(error.message(), text);
}

TEST(ErrorRecord, CutsALongerMessageTo255CharactersAndEndsIt) {
    const std::string text = std::string(255, 'x') + "yz";
    ErrorSlot error;
    velkctl_error_set(error, 10, "%s", text.c_str());
    ASSERT_NE(std::memchr(error.get()->message, '\0', sizeof error.get()->message), nullptr);
    EXPECT_EQ(error.message(), std::string(255, 'x'));
    EXPECT_EQ(sizeof error.get()->message, 256U);
}

TEST(ErrorRecord, IsNotMadeThroughANullSlot) {
    const test::ChildResult result = test::run_child([] {
        log_setup(LOG_MODE_STDERR);
        velkctl_error_set(nullptr, 10, "nobody asks: %d", 1);
        vset(nullptr, 10, "nobody asks: %d", 1);
        velkctl_error_clear(nullptr);
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.errors, "");
}

TEST(ErrorRecord, IsEmptyForANullFormat) {
    ErrorSlot error;
    vset(error, 12, nullptr);
    EXPECT_EQ(describe(error), "12 ");
    error.clear();
    velkctl_error_set(error, 13, nullptr);
    EXPECT_EQ(describe(error), "13 ");
}

TEST(ErrorRecord, IsGoneAfterClearingAndClearingTwiceIsHarmless) {
    VelkctlError* record = nullptr;
    velkctl_error_set(&record, 10, "first");
    velkctl_error_clear(&record);
    EXPECT_EQ(record, nullptr);
    velkctl_error_clear(&record);
    velkctl_error_set(&record, 12, "second");
    ASSERT_NE(record, nullptr);
    EXPECT_STREQ(record->message, "second");
    velkctl_error_clear(&record);
}

TEST(ErrorRecord, ThatReplacesAnotherIsLoggedWithItAndEndsTheProcess) {
    const test::ChildResult result = test::run_child([] {
        log_setup(LOG_MODE_STDERR);
        ErrorSlot error;
        velkctl_error_set(error, 4, "the %s one", "old");
        velkctl_error_set(error, 12, "the %s one", "new");
    });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.errors, StartsWith("Unexpectedly replacing one error with another\n"
                                          "Old: 4: the old one\n"
                                          "New: 12: the new one\n"));
    EXPECT_THAT(result.errors, HasSubstr("velkctl_error_set("));
    EXPECT_THAT(result.errors, EndsWith("Assertion `!forgot_to_clear' failed.\n"));
    EXPECT_EQ(result.output, "");
}

TEST(ErrorRecord, MayQuoteTheOneItReplaces) {
    const test::ChildResult result = test::run_child([] {
        log_setup(LOG_MODE_STDERR);
        ErrorSlot error;
        velkctl_error_set(error, 4, "cause");
        velkctl_error_set(error, 10, "because of %s", error.message());
    });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.errors, HasSubstr("\nNew: 10: because of cause\n"));
}

TEST(ErrorRecord, FromAnArgumentListNeedsAnEmptySlot) {
    const test::ChildResult result = test::run_child([] {
        ErrorSlot error;
        vset(error, 4, "old");
        vset(error, 4, "new");
    });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.errors, EndsWith("Assertion `!error || !*error' failed.\n"));
}

// The library's record comes from its own allocator; here both are the same heap, and the release must not be
// skipped.
TEST(ErrorRecord, ThatIsForeignIsReleasedToo) {
    auto* record = static_cast<VelkctlError*>(std::calloc(1, sizeof(VelkctlError)));
    record->foreign = true;
    velkctl_error_clear(&record);
    EXPECT_EQ(record, nullptr);
}

TEST(GeneralError, BeginsWithItsPlaceInTheSource) {
    ErrorSlot error;
    const int line = __LINE__ + 1;
    SET_GENERAL_ERROR(error, "Failed opening %s: %s", "x", "why");
    EXPECT_EQ(error.code(), 10);
    EXPECT_EQ(error.message(),
              std::string(__FILE__) + ":" + std::to_string(line) + ": Failed opening x: why");
}

TEST(GeneralError, TakesAFormatWithoutArguments) {
    ErrorSlot error;
    SET_GENERAL_ERROR(error, "Plain");
    EXPECT_THAT(error.message(), EndsWith(": Plain"));
}

TEST(ArgumentError, NamesFunctionAndArgument) {
    ErrorSlot error;
    set_null_argument_error(error, "load_manifest", "directory");
    EXPECT_EQ(describe(error), "10 load_manifest: Invalid argument: directory is NULL");
    error.clear();
    set_not_null_argument_error(error, "load_manifest", "error");
    EXPECT_EQ(describe(error), "10 load_manifest: Invalid argument: error is not NULL or pointer to NULL");
}

TEST(SystemErrorText, IsThatOfTheGivenOrTheLastNumber) {
    EXPECT_EQ(system_error_text(ENOENT), std::strerror(ENOENT));
    errno = EACCES;
    EXPECT_EQ(system_error_text(), std::strerror(EACCES));
}

TEST(ErrorSlotObject, AnswersForAnEmptySlot) {
    ErrorSlot error;
    EXPECT_FALSE(error.is_set());
    EXPECT_EQ(error.code(), 0);
    EXPECT_STREQ(error.message(), "");
    EXPECT_EQ(error.get(), nullptr);
    error.clear();
}

TEST(ErrorSlotObject, MovesItsRecordToAnEmptySlot) {
    ErrorSlot from;
    ErrorSlot to;
    velkctl_error_set(from, 27, "moved");
    from.move_to(to);
    EXPECT_FALSE(from.is_set());
    EXPECT_EQ(describe(to), "27 moved");
}

TEST(ErrorSlotObject, DropsItsRecordWhenMovedToNobody) {
    ErrorSlot from;
    velkctl_error_set(from, 27, "dropped");
    from.move_to(nullptr);
    EXPECT_FALSE(from.is_set());
}

TEST(ErrorSlotObject, RefusesToMoveOverAnotherRecord) {
    const test::ChildResult result = test::run_child([] {
        ErrorSlot from;
        ErrorSlot to;
        velkctl_error_set(from, 27, "second");
        velkctl_error_set(to, 4, "first");
        from.move_to(to);
    });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.errors, EndsWith("Assertion `!*error' failed.\n"));
}
