#include "base/printable.h"

#include <gtest/gtest.h>

TEST(Printable, TextStaysAsItIs) {
    for (const char* text :
         {"", "plain text, 100 %", "back\\slash", "Kamera f\xc3\xbcr T\xc3\xbcren",
          "\xd9\x85\xd8\xb1\xd8\xad\xd8\xa8\xd8\xa7", "\xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x93\xb7"})
        EXPECT_EQ(printable(text), text);
}

TEST(Printable, ControlCharactersAreWrittenOut) {
    EXPECT_EQ(printable("a\nb\r\t\x1b[2J\x7f"), "a\\x0ab\\x0d\\x09\\x1b[2J\\x7f");
    EXPECT_EQ(printable(std::string_view("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(printable("a\xc2\x9b"
                        "2J\xc2\x80\xc2\x9f"),
              "a\\xc2\\x9b2J\\xc2\\x80\\xc2\\x9f");
    EXPECT_EQ(printable("\xc2\xa0"), "\xc2\xa0");
}

TEST(Printable, NothingTurnsTheDirectionOrEndsTheLineOrIsUnseen) {
    for (const std::string text :
         {"\xe2\x80\xaa", "\xe2\x80\xab", "\xe2\x80\xac", "\xe2\x80\xad", "\xe2\x80\xae", "\xe2\x81\xa6",
          "\xe2\x81\xa7", "\xe2\x81\xa8", "\xe2\x81\xa9", "\xe2\x80\x8e", "\xe2\x80\x8f", "\xd8\x9c",
          "\xe2\x80\xa8", "\xe2\x80\xa9", "\xe2\x80\x8b", "\xef\xbb\xbf", "\xf3\xa0\x80\xa1"}) {
        const std::string shown = printable("gpj" + text + ".exe");
        EXPECT_EQ(shown.size(), 7 + 4 * text.size()) << shown;
        EXPECT_TRUE(shown.starts_with("gpj\\x") && shown.ends_with(".exe")) << shown;
    }
    EXPECT_EQ(printable("\xe2\x80\xae"), "\\xe2\\x80\\xae");
}

TEST(Printable, BytesThatAreNoUtf8AreWrittenOut) {
    EXPECT_EQ(printable("\xff\xfe\x9b"
                        "2J"),
              "\\xff\\xfe\\x9b2J");
    EXPECT_EQ(printable("cut \xc3"), "cut \\xc3");
    EXPECT_EQ(printable("\xc0\x9b \xed\xa0\x80 \xc3x"), "\\xc0\\x9b \\xed\\xa0\\x80 \\xc3x");
}
