#include "system/regex.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support.h"
#include "system/subprocess.h"

using test::describe;

static bool matches(const char* pattern, std::string_view subject) {
    ErrorSlot error;
    const bool result = check_regex(pattern, subject, error);
    EXPECT_FALSE(error.is_set()) << error.message();
    return result;
}

TEST(Regex, MatchesAndMismatchesWithoutAnError) {
    EXPECT_TRUE(matches("^[a-c]+$", "abc"));
    EXPECT_FALSE(matches("^[a-c]+$", "abd"));
    EXPECT_FALSE(matches("^[a-c]+$", ""));
    EXPECT_TRUE(matches("^[a-c]*$", ""));
    EXPECT_TRUE(matches("^[a-c]*$", std::string_view()));
}

TEST(Regex, FindsAPatternWithoutAnchorsAnywhere) { EXPECT_TRUE(matches("b", "abc")); }

TEST(Regex, EndsAtTheVeryEndOnly) {
    EXPECT_FALSE(matches("^[a-c]+$", "abc\n"));
    EXPECT_FALSE(matches("^[a-c]+$", std::string_view("abc\0", 4)));
}

TEST(Regex, KnowsAsciiLettersOnly) {
    EXPECT_TRUE(matches(R"(^\w+$)", "Az_09"));
    EXPECT_FALSE(matches(R"(^\w+$)", "M\xc3\xbcller"));
    EXPECT_FALSE(matches(R"(^\w+$)", "M\xfcller"));
}

TEST(Regex, TakesBytesThatAreNoText) { EXPECT_TRUE(matches("^.+$", "\xff\xfe")); }

TEST(Regex, LooksAheadAndCaptures) {
    EXPECT_TRUE(matches("^(?!x)(.)(.)(.)$", "abc"));
    EXPECT_FALSE(matches("^(?!x)(.)(.)(.)$", "xbc"));
}

TEST(Regex, ReportsAPatternThatDoesNotCompile) {
    ErrorSlot error;
    EXPECT_FALSE(check_regex("(", "x", error));
    EXPECT_EQ(describe(error), "10 src/system/regex.cpp:N: missing closing parenthesis");
}

TEST(Regex, ReportsThatTheEngineGaveUp) {
    ErrorSlot error;
    EXPECT_FALSE(check_regex("^(a+)+$", std::string(64, 'a') + "b", error));
    EXPECT_EQ(describe(error), "10 src/system/regex.cpp:N: match limit exceeded");
}

TEST(Regex, FailsWithoutAnErrorSlotToo) { EXPECT_FALSE(check_regex("(", "x", nullptr)); }

TEST(SafeArgumentPattern, TakesAPathOfHarmlessCharacters) {
    for (const char* argument : {"/usr_1/local-2/A.b+c", "a", "+", "-", ".", "/", "a.b.c", "./x", "_"})
        EXPECT_TRUE(matches(SAFE_ARGUMENT_PATTERN, argument)) << argument;
}

TEST(SafeArgumentPattern, RefusesWhatCouldLeaveItsQuotesOrItsDirectory) {
    for (const char* argument :
         {"",     "..",         "../x", "a..b", "x/..", "a/../b", "a b", "a'b", "a\"b", "a\n", "\n",  "a\nb",
          "a;b",  "$a",         "`a`",  "a*",   "a?",   "a\\b",   "a|b", "a&b", "a:b",  "a,b", "a=b", "~a",
          "a\tb", "f\xc3\xbcr", "a@b",  "a%b",  "#a",   "(a)",    "{a}", "[a]", "<a",   ">a",  "a!"})
        EXPECT_FALSE(matches(SAFE_ARGUMENT_PATTERN, argument)) << argument;
}
