#include "manifest/allowlist.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support.h"

using test::describe;
using test::TemporaryDirectory;

/** The lists that a text parses to. */
static std::optional<AmendList> parse(const std::string& text, ErrorSlot& error) {
    const TemporaryDirectory directory;
    test::write_text(directory / "amend-list", text);
    return load_amend_list(directory / "amend-list", error);
}

static AmendList parsed(const std::string& text) {
    ErrorSlot error;
    const std::optional<AmendList> lists = parse(text, error);
    EXPECT_EQ(describe(error), "none") << text;
    return lists.value_or(AmendList{{"failed"}, {"failed"}});
}

static std::string refused(const std::string& text) {
    ErrorSlot error;
    EXPECT_EQ(parse(text, error), std::nullopt) << text;
    return describe(error);
}

TEST(Allowlist, WithoutAnAmendListNothingIsDenied) {
    const TemporaryDirectory directory;
    ErrorSlot error;
    EXPECT_EQ(load_amend_list(directory / "amend-list", error), AmendList());
    ASSERT_EQ(mkdir((directory / "amend-list").c_str(), 0755), 0);
    EXPECT_EQ(load_amend_list(directory / "amend-list", error), AmendList());
    EXPECT_FALSE(error.is_set());
}

TEST(Allowlist, AnAmendListIsReadLineByLineAndNameByName) {
    EXPECT_EQ(parsed(""), AmendList());
    EXPECT_EQ(parsed("\n \n  \n# DenyUsers a\n#\nDenyUsers\n"), AmendList());
    EXPECT_EQ(parsed("DenyUsers a b"), (AmendList{{"a", "b"}, {}}));
    EXPECT_EQ(parsed("DenyGroups a\nDenyUsers b\nDenyGroups c d\n"), (AmendList{{"b"}, {"a", "c", "d"}}));
    EXPECT_EQ(parsed("  DenyUsers   a  b "), (AmendList{{"a", "b"}, {}}));
    EXPECT_EQ(parsed("DenyUsers a # note b\nDenyGroups c#d e"), (AmendList{{"a"}, {"c"}}));
    EXPECT_EQ(parsed("DenyUsers DenyGroups"), (AmendList{{"DenyGroups"}, {}}));
}

TEST(Allowlist, OnlyBlanksSeparateNames) {
    EXPECT_EQ(parsed("DenyUsers a\tb\n"), (AmendList{{"a\tb"}, {}}));
    EXPECT_EQ(refused("DenyUsers\ta"),
              "10 src/manifest/allowlist.cpp:N: Failed to parse amend-list: Not allowed label 'DenyUsers\ta' "
              "in list");
}

TEST(Allowlist, ALineMayEndInACarriageReturnToo) {
    EXPECT_EQ(parsed("DenyUsers a\r\nDenyGroups b c\r\n\r\n \r\n# d\r\n"), (AmendList{{"a"}, {"b", "c"}}));
    EXPECT_EQ(parsed("DenyUsers a\r"), (AmendList{{"a"}, {}}));
    EXPECT_EQ(parsed("DenyUsers a \r\nDenyUsers\r\n"), (AmendList{{"a"}, {}}));
    const std::string longest(32, 'n');
    EXPECT_EQ(parsed("DenyUsers " + longest + "\r\n"), (AmendList{{longest}, {}}));
}

TEST(Allowlist, ACarriageReturnElsewhereIsPartOfAName) {
    EXPECT_EQ(parsed("DenyUsers a\rb\n"), (AmendList{{"a\rb"}, {}}));
    EXPECT_EQ(parsed("DenyUsers a\r b\r\r\n"), (AmendList{{"a\r", "b\r"}, {}}));
    EXPECT_EQ(parsed("DenyUsers a\r# b\r\n"), (AmendList{{"a\r"}, {}}));
}

TEST(Allowlist, AnUnknownLabelEndsTheReading) {
    for (const char* label : {"Foo", "denyusers", "DenyUser", "DenyUsers:"})
        EXPECT_EQ(
            refused(std::string("DenyUsers a\n") + label + " x\n"),
            std::string("10 src/manifest/allowlist.cpp:N: Failed to parse amend-list: Not allowed label '") +
                label + "' in list");
}

TEST(Allowlist, ANameHas32CharactersAtMost) {
    const std::string longest(32, 'n');
    EXPECT_EQ(parsed("DenyUsers " + longest), (AmendList{{longest}, {}}));
    const std::string expected =
        "10 src/manifest/allowlist.cpp:N: Failed to parse amend-list: value in list too long";
    EXPECT_EQ(refused("DenyUsers a " + longest + "n"), expected);
    EXPECT_EQ(refused(longest + "n a"), expected);
    EXPECT_EQ(parsed("DenyUsers a # " + longest + longest), (AmendList{{"a"}, {}}));
}

TEST(Allowlist, AHugeAmendListIsRead) {
    std::string text;
    for (int i = 0; i < 1'000'000; i++)
        text += "DenyUsers " + std::to_string(i) + "\n";
    EXPECT_EQ(parsed(text).deny_users.size(), 1'000'000);
}

TEST(Allowlist, ANameIsAllowedWhenItIsBuiltInAndNotDenied) {
    const AmendList amend{{"sdk"}, {"video"}};
    EXPECT_TRUE(validate_entry(false, {}, "sdk"));
    EXPECT_FALSE(validate_entry(false, amend, "sdk"));
    EXPECT_TRUE(validate_entry(true, amend, "sdk"));
    EXPECT_TRUE(validate_entry(true, {}, "video"));
    EXPECT_FALSE(validate_entry(true, amend, "video"));
    EXPECT_FALSE(validate_entry(false, {}, "video"));
    EXPECT_FALSE(validate_entry(true, {}, "VIDEO"));
    EXPECT_FALSE(validate_entry(true, {}, "vide"));
    EXPECT_FALSE(validate_entry(true, {}, ""));
    EXPECT_FALSE(validate_entry(false, {}, "root"));
}

TEST(Allowlist, AnEntryWithoutANameIsAFault) {
    EXPECT_DEATH((void)validate_entry(true, {}, nullptr), "`item' failed");
}

TEST(Allowlist, UserAndGroupMustBothBeAllowed) {
    const std::tuple<const char*, const char*, bool> cases[] = {{"sdk", "sdk", true},
                                                                {"sdk", "video", true},
                                                                {"video", "sdk", false},
                                                                {"sdk", "root", false},
                                                                {"root", "root", false}};
    for (const auto& [user, group, allowed] : cases) {
        const test::LogCapture log;
        ErrorSlot error;
        EXPECT_EQ(check_user_and_group({}, "MyApp", user, group, error), allowed ? 0 : -1);
        const std::string text =
            std::string("MyApp: User '") + user + "' or Group '" + group + "' is not in Allowlist";
        EXPECT_EQ(describe(error), allowed ? "none" : "13 " + text);
        EXPECT_EQ(log.text(), allowed ? "" : text + "\n");
    }
}

TEST(Allowlist, TheFirstSecondaryGroupThatIsNotAllowedIsNamed) {
    const test::LogCapture log;
    ErrorSlot error;
    EXPECT_EQ(check_secondary_groups({}, "MyApp", {}, error), 0);
    EXPECT_EQ(check_secondary_groups({}, "MyApp", {"video", "audio"}, error), 0);
    EXPECT_FALSE(error.is_set());
    EXPECT_EQ(check_secondary_groups({{}, {"audio"}}, "MyApp", {"video", "audio", "root"}, error), -1);
    EXPECT_EQ(describe(error), "13 MyApp: Secondary Group 'audio' is not in Allowlist");
    EXPECT_EQ(log.text(), "MyApp: Secondary Group 'audio' is not in Allowlist\n");
}
