#include "integration/web-text.h"

#include <gtest/gtest.h>

#include "support.h"

static std::string expected(const std::string& name) { return test::read_text(TEST_DATA_DIR "/web/" + name); }

TEST(WebText, PassesTransferProgramsToTheApplicationsSocket) {
    EXPECT_EQ(transfer_text("Sample", {"upload.cgi", R"(sub/a "quoted" \ name)"}), expected("transfer.conf"));
}

TEST(WebText, HandsScriptsToTheFastCgiSocket) {
    EXPECT_EQ(fcgi_text("/usr/html/local/Sample", "/usr/local/packages/Sample/html/Sample_fcgi.socket",
                        {"run.cgi", R"(a "quoted" \ name)"}),
              expected("fcgi.conf"));
}

TEST(WebText, GivesEachFileOfATreeItsAccessRule) {
    const std::vector<WebDirectory> directories = {
        {"/usr/html/local/Sample", {{"index.html", "viewer"}, {R"(say "hello" \.html)", "admin"}}},
        {"/usr/html/local/Sample/empty", {}},
        {"/usr/html/local/Sample/sub", {{"run.cgi", "operator"}}},
    };
    EXPECT_EQ(access_rules_text(directories), expected("access-rules.conf"));
    EXPECT_EQ(access_rules_text({{"/usr/html/local/Sample", {}}}), expected("access-rules-none.conf"));
}

TEST(WebText, QuotesTheNameOfADirectoryToo) {
    EXPECT_EQ(access_rules_text({{R"(/a"b\c)", {}}}), "<Directory \"/a\\\"b\\\\c\">\n</Directory>\n\n");
}

TEST(WebText, WritesANameThatLooksLikeAPatternAsOneThatOnlyItFits) {
    EXPECT_EQ(access_rules_text({{"/a[b]", {{R"(x\*"?.html)", "viewer"}}}}),
              "<Directory \"/a[[]b]\">\n"
              "  <Files \"x\\\\\\\\[*]\\\"[?].html\">\n    Require orvo-group viewer\n  </Files>\n"
              "</Directory>\n\n");
    EXPECT_EQ(fcgi_text("/a", "/s", {"*"}),
              "<Directory \"/a\">\n  <Files \"[*]\">\n    SetHandler \"proxy:unix:/s|fcgi://localhost/\"\n"
              "  </Files>\n</Directory>\n<Proxy \"fcgi://localhost/\" flushpackets=auto>\n</Proxy>\n");
}

TEST(WebText, WritesTheMarkOfARegularExpressionAsAName) {
    EXPECT_EQ(access_rules_text({{"/a", {{"~", "viewer"}, {"~a", "admin"}}}}),
              "<Directory \"/a\">\n"
              "  <Files \"[~]\">\n    Require orvo-group viewer\n  </Files>\n"
              "  <Files \"~a\">\n    Require orvo-group admin\n  </Files>\n"
              "</Directory>\n\n");
}

TEST(WebText, HidesAVariableOfTheServerInASectionsName) {
    EXPECT_EQ(access_rules_text({{"/a${X}", {{R"(\${X}.html)", "viewer"}, {"$1", "admin"}}}}),
              "<Directory \"/a[$]{X}\">\n"
              "  <Files \"\\\\\\\\[$]{X}.html\">\n    Require orvo-group viewer\n  </Files>\n"
              "  <Files \"$1\">\n    Require orvo-group admin\n  </Files>\n"
              "</Directory>\n\n");
    EXPECT_TRUE(names_variable("a${X}b"));
    EXPECT_TRUE(names_variable("${"));
    EXPECT_FALSE(names_variable("$1{x}$"));
}

TEST(WebText, KnowsWhichNamesFitIntoAConfiguration) {
    EXPECT_TRUE(fits_configuration(std::string(4000, 'a')));
    EXPECT_FALSE(fits_configuration(std::string(4001, 'a')));
    EXPECT_TRUE(fits_configuration(std::string(1333, '*')));
    EXPECT_FALSE(fits_configuration(std::string(1334, '*')));
}

TEST(WebText, BeginsWithAMarkOfTheApplication) {
    EXPECT_TRUE(transfer_text("Sample", {"a"}).starts_with(transfer_mark("Sample")));
    EXPECT_FALSE(transfer_text("Sample2", {"a"}).starts_with(transfer_mark("Sample")));
    EXPECT_TRUE(fcgi_text("/a", "/s", {"b"}).starts_with(directory_mark("/a")));
    EXPECT_TRUE(access_rules_text({{"/a", {}}}).starts_with(directory_mark("/a")));
    EXPECT_FALSE(access_rules_text({{"/a2", {}}}).starts_with(directory_mark("/a")));
}
