#include "lifecycle/velkctl-package-conf.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "base/log.h"
#include "support.h"

using test::describe;

/** The value as "<VALUE>", or the error. */
static std::string read(const std::string& key, const std::string& line) {
    ErrorSlot error;
    const std::optional<std::string> value = velkctl_read_package_conf_value(key, line, error);
    EXPECT_NE(value.has_value(), error.is_set()) << line;
    return value ? "<" + *value + ">" : describe(error);
}

static const char kNoAssignment[] = "29 package.conf line does not contain a well-formed assignment";
static const char kCharacters[] = "29 package.conf value 'APPNAME' contains invalid characters";
static const char kNewline[] = "29 Field 'APPNAME' in manifest contains a newline";

TEST(PackageConf, AValueIsEverythingBehindTheSign) {
    EXPECT_EQ(read("APPNAME", "APPNAME=app"), "<app>");
    EXPECT_EQ(read("APPNAME", "APPNAME="), "<>");
    EXPECT_EQ(read("APPNAME", "APPNAME=a=b"), "<a=b>");
    EXPECT_EQ(read("", "=x"), "<x>");
    EXPECT_EQ(read("-h", "-h=x"), "<x>");
}

TEST(PackageConf, TheLineBeginsWithKeyAndSign) {
    for (const char* line :
         {"", "APPNAME", "APPNAMES=x", "APP=x", " APPNAME=x", "APPNAME =x", "export APPNAME=x", "appname=x"})
        EXPECT_EQ(read("APPNAME", line), kNoAssignment) << line;
    EXPECT_EQ(read("APP", "APPNAME=x"), kNoAssignment);
}

TEST(PackageConf, OnePairOfQuotesIsRemoved) {
    const std::pair<const char*, const char*> values[] = {
        {"'a'", "<a>"},         {"\"a b\"", "<a b>"}, {"\\'a b\\'", "<a b>"}, {"''", "<>"},
        {"\"\"", "<>"},         {"\\'\\'", "<>"},     {"''a''", "<'a'>"},     {"\"'a'\"", "<'a'>"},
        {"'\"a\"'", "<\"a\">"}, {"'a'b'", "<a'b>"},   {"'a\"", "<'a\">"},     {"'a", "<'a>"},
        {"a'", "<a'>"},         {"'", "<'>"},         {"\"", "<\">"},         {"\\'", "<\\'>"},
        {"\\'a'", "<\\'a'>"},   {"\\'\\", "<\\'\\>"},
    };
    for (const auto& [value, expected] : values)
        EXPECT_EQ(read("APPNAME", std::string("APPNAME=") + value), expected) << value;
}

TEST(PackageConf, ASpaceNeedsQuotes) {
    EXPECT_EQ(read("APPNAME", "APPNAME=\"My App\""), "<My App>");
    EXPECT_EQ(read("APPNAME", "APPNAME=My App"), kCharacters);
    EXPECT_EQ(read("APPNAME", "APPNAME= x"), kCharacters);
    EXPECT_EQ(read("APPNAME", "APPNAME='My App"), kCharacters);
    EXPECT_EQ(read("APPNAME", "APPNAME='"), "<'>");
}

TEST(PackageConf, ATabIsASpace) {
    EXPECT_EQ(read("APPNAME", "APPNAME=a\tb"), kCharacters);
    EXPECT_EQ(read("APPNAME", "APPNAME='a\tb'"), "<a b>");
}

TEST(PackageConf, QuotesDoNotProtectWhatAShellExpands) {
    for (const char character : std::string("$`&|;")) {
        const std::string value = std::string("a") + character + "b";
        EXPECT_EQ(read("APPNAME", "APPNAME=" + value), kCharacters) << character;
        EXPECT_EQ(read("APPNAME", "APPNAME='" + value + "'"), kCharacters) << character;
    }
    EXPECT_EQ(read("APPNAME", "APPNAME=a<b>c(d)*?!#%"), "<a<b>c(d)*?!#%>");
}

TEST(PackageConf, ALineBreakInAValueIsRefused) {
    for (const char* value : {"a\nb", "'a\nb'", "a\r", "\n"})
        EXPECT_EQ(read("APPNAME", std::string("APPNAME=") + value), kNewline) << value;
    EXPECT_EQ(read("APPNAME", "APPNAME=a b\n;"), kCharacters);
}

TEST(PackageConf, AReadingWithoutASlotIsAFault) {
    EXPECT_DEATH((void)velkctl_read_package_conf_value("A", "A=x", nullptr), "`error' failed");
}

static std::string find(const std::string& text, const std::string& key) {
    ErrorSlot error;
    const std::optional<std::string> value = find_package_conf_value(text, key, error);
    return value ? "<" + *value + ">" : describe(error);
}

TEST(PackageConf, InAFileTheFirstLineOfTheKeyCounts) {
    const char* text = "# APPNAME=no\nPACKAGENAME='My App'\nAPPNAME=one\nAPPNAME=two\nLAST=x";
    EXPECT_EQ(find(text, "PACKAGENAME"), "<My App>");
    EXPECT_EQ(find(text, "APPNAME"), "<one>");
    EXPECT_EQ(find(text, "LAST"), "<x>");
    EXPECT_EQ(find(text, "MISSING"), kNoAssignment);
    EXPECT_EQ(find("", "APPNAME"), kNoAssignment);
    EXPECT_EQ(find("APPNAME=a;b\nAPPNAME=good\n", "APPNAME"), kCharacters);
    EXPECT_EQ(find("APPNAME=a\r\n", "APPNAME"), kNewline);
}

static std::string version(const std::string& text) {
    ErrorSlot error;
    const std::optional<std::string> value = package_conf_version(text, error);
    return value ? *value : describe(error);
}

TEST(PackageConf, AVersionNeedsMajorAndMinor) {
    EXPECT_EQ(version("APPMAJORVERSION=1\nAPPMINORVERSION=2\nAPPMICROVERSION=3\n"), "1.2-3");
    EXPECT_EQ(version("APPMAJORVERSION=1\nAPPMINORVERSION=2\n"), "1.2-0");
    EXPECT_EQ(version("APPMAJORVERSION=1\nAPPMINORVERSION=2\nAPPMICROVERSION=a b\n"), "1.2-0");
    EXPECT_EQ(version("APPMAJORVERSION=1\n"), kNoAssignment);
    EXPECT_EQ(version("APPMINORVERSION=1\n"), kNoAssignment);
}

TEST(PackageConf, AnErrorIsLoggedClearedAndItsCodePrinted) {
    log_setup(LOG_MODE_NULL);
    const test::LogCapture log;
    const test::ChildResult child = test::run_child([] {
        ErrorSlot error;
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST, "odd");
        const int code = log_and_clear_error_then_print_and_return_exit_code(error);
        std::fflush(stdout);
        _exit(error.is_set() ? 99 : code);
    });
    EXPECT_EQ(child.exit_status, 29);
    EXPECT_EQ(child.output, "29\n");
    EXPECT_EQ(log.text(), "code 29: odd\n");
    EXPECT_DEATH(log_and_clear_error_then_print_and_return_exit_code(nullptr), "`error' failed");
}
