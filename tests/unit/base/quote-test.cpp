#include "base/quote.h"

#include <gtest/gtest.h>

TEST(DoubleQuoted, PutsABackslashBeforeQuotesAndBackslashesOnly) {
    EXPECT_EQ(double_quoted(""), R"("")");
    EXPECT_EQ(double_quoted("a b.html"), R"("a b.html")");
    EXPECT_EQ(double_quoted(R"(a"b\c)"), R"("a\"b\\c")");
    EXPECT_EQ(double_quoted("$ä%'<>"), "\"$ä%'<>\"");
}
