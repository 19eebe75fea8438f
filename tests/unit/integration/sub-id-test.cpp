#include "integration/sub-id.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <sstream>

#include "support.h"
#include "system/user-database.h"

namespace {

constexpr uid_t UID = 991;

/** The start found in a text, or the error. */
std::string start_in(const std::string& text, uid_t uid = UID) {
    ErrorSlot error;
    const std::optional<int32_t> start = find_sub_id_start(text, uid, error);
    return start ? std::to_string(*start) : test::describe(error);
}

std::string remaining(const std::string& text, uid_t uid = UID) {
    const RemainingSubIds result = without_sub_ids(text, uid);
    return (result.removed ? "changed:" : "same:") + result.text;
}

constexpr const char* TOO_LARGE =
    "10 src/integration/sub-id.cpp:N: Default range offset is smaller than an already "
    "used range";

}  // namespace

TEST(SubIdStart, IsTheFirstOneInAFileWithoutRanges) {
    EXPECT_EQ(start_in(""), "100000");
    EXPECT_EQ(start_in("\n\n"), "100000");
    EXPECT_EQ(start_in("# a comment\nroot:1\nroot:x:5\nroot:1:2:\n:1:2\na b:1:2\n"), "100000");
}

TEST(SubIdStart, LiesBehindTheLastRangeOfAll) {
    EXPECT_EQ(start_in("500:100000:65536\n"), "200000");
    EXPECT_EQ(start_in("500:300000:65536\n501:100000:65536\n"), "400000");
    EXPECT_EQ(start_in("500:100000:65536\n\n501:200000:65536"), "300000");
}

TEST(SubIdStart, CountsForeignLinesOfAnyOwner) {
    EXPECT_EQ(start_in("root:1000:5000\n"), "101000");
    EXPECT_EQ(start_in("a:b:7000:1\n"), "107000");
    EXPECT_EQ(start_in("velk-sample:500000:65536\n"), "600000");
}

TEST(SubIdStart, IsThatOfTheUsersPresentRange) {
    EXPECT_EQ(start_in("500:100000:65536\n991:200000:65536\n501:300000:65536\n"), "200000");
    EXPECT_EQ(start_in("991:1001:65536\n"), "1001");
    EXPECT_EQ(start_in("991:200000:65536\n991:300000:65536\n"), "200000");
    EXPECT_EQ(start_in("0991:200000:65536\n"), "200000");
}

TEST(SubIdStart, DoesNotTakeAGroupsLineForARange) {
    EXPECT_EQ(start_in("991:44:1\n991:1000:1\n991:400000:65536\n"), "400000");
    EXPECT_EQ(start_in("991:1001:1\n991:70000:1\n991:400000:65536\n"), "400000");
    EXPECT_EQ(start_in("991:1000:1\n"), "101000");
}

TEST(SubIdStart, DoesNotTakeAnotherUsersLineForTheUsers) {
    EXPECT_EQ(start_in("9910:200000:65536\n"), "300000");
    EXPECT_EQ(start_in("+991:200000:65536\n"), "300000");
    EXPECT_EQ(start_in("991x:200000:65536\n"), "300000");
    EXPECT_EQ(start_in("4294968287:200000:65536\n"), "300000");  // 991 beyond 32 bits
}

TEST(SubIdStart, RefusesARangeLargerThanTheStep) {
    EXPECT_EQ(start_in("500:100000:100000\n"), "200000");
    EXPECT_EQ(start_in("500:100000:100001\n"), TOO_LARGE);
    // The user's own line is taken before its size is looked at, and a foreign one before it is looked at
    // first.
    EXPECT_EQ(start_in("991:200000:100001\n500:100000:100001\n"), "200000");
    EXPECT_EQ(start_in("500:100000:100001\n991:200000:65536\n"), TOO_LARGE);
}

TEST(SubIdStart, RefusesNumbersBeyondTheirType) {
    const std::string place = "10 src/integration/sub-id.cpp:N: Failed to parse sub-id range ";
    EXPECT_EQ(start_in("500:2147483648:1\n"), place + "500:2147483648:1");
    EXPECT_EQ(start_in("500:1:99999999999\n"), place + "500:1:99999999999");
    EXPECT_EQ(start_in("500:2147483647:1\n"), "2147483647");
}

TEST(SubIdRemoval, KeepsTheOthersLinesInOrder) {
    EXPECT_EQ(remaining("500:1:2\n991:3:4\nroot:5:6\n991:7:1\n# text\n"),
              "changed:500:1:2\nroot:5:6\n# text\n");
    EXPECT_EQ(remaining("500:1:2\n9910:3:4\n 991:3:4\nx991:1:2\n"),
              "same:500:1:2\n9910:3:4\n 991:3:4\nx991:1:2\n");
    EXPECT_EQ(remaining(""), "same:");
}

TEST(SubIdRemoval, DropsEmptyLinesAndALastLineWithoutLineEnd) {
    EXPECT_EQ(remaining("\n500:1:2\n\n991:3:4\nroot:5:6"), "changed:500:1:2\n");
    // The unterminated line is not looked at, so it is not one that was removed either.
    EXPECT_EQ(remaining("500:1:2\n991:3:4"), "same:500:1:2\n");
}

TEST(SubIdRemoval, CutsWhatRemainsAt1024Bytes) {
    std::string others;
    for (int i = 0; others.size() <= 1024; i++)
        others += std::to_string(1000 + i) + ":100000:65536\n";
    EXPECT_EQ(remaining(others + "991:3:4\n"), "changed:" + others.substr(0, 1024));
    EXPECT_EQ(remaining("991:3:4\n" + others.substr(0, 18 * 50)), "changed:" + others.substr(0, 18 * 50));
}

TEST(SubIdLines, MapTheRangeAndTheSecondaryGroups) {
    EXPECT_EQ(sub_uid_text(991, 300000), "991:300000:65536\n");
    EXPECT_EQ(sub_gid_text(991, 985, {}, 300000), "991:300000:65536\n");
    EXPECT_EQ(sub_gid_text(991, 985, {44, 985, 7}, 300000), "991:44:1\n991:7:1\n991:300000:65536\n");
}

// --- the files ---

class SubIdFilesTest : public testing::Test {
  protected:
    void write(const std::string& uids, const std::string& gids) {
        test::write_text(files.uids, uids);
        test::write_text(files.gids, gids);
    }

    std::string allocate(const std::string& user = "daemon", const std::vector<std::string>& groups = {}) {
        ErrorSlot error;
        return allocate_sub_ids(files, user, "daemon", groups, error) ? "done" : test::describe(error);
    }

    std::string both() { return test::read_text(files.uids) + "|" + test::read_text(files.gids); }

    test::TemporaryDirectory directory;
    SubIdFiles files{directory / "subuid", directory / "subgid"};
};

TEST_F(SubIdFilesTest, GetTheRangeAndTheGroups) {
    write("", "");
    EXPECT_EQ(allocate("daemon", {"bin", "daemon", "sys"}), "done");
    EXPECT_EQ(both(), "1:100000:65536\n|1:2:1\n1:3:1\n1:100000:65536\n");
}

TEST_F(SubIdFilesTest, GetOneRangeLineHoweverOftenItIsAllocated) {
    write("root:100000:65536\n", "root:100000:65536\n");
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(allocate("daemon", {"bin"}), "done");
        EXPECT_EQ(both(), "root:100000:65536\n1:200000:65536\n|root:100000:65536\n1:2:1\n1:200000:65536\n");
    }
}

TEST_F(SubIdFilesTest, MustAgreeOnTheStart) {
    write("root:100000:65536\n", "root:200000:65536\n");
    EXPECT_EQ(
        test::without_line_numbers(allocate()),
        "10 src/integration/sub-id.cpp:N: Entries in " + files.uids + " and " + files.gids + " do not match");
    EXPECT_EQ(both(), "root:100000:65536\n|root:200000:65536\n");
}

TEST_F(SubIdFilesTest, HaveALastStart) {
    write("root:500000000:1\n", "root:500000000:1\n");
    EXPECT_EQ(allocate(), "done");
    write("root:599900000:1\n", "root:599900000:1\n");
    EXPECT_EQ(allocate(), "done");
    write("root:599900001:1\n", "root:599900001:1\n");
    EXPECT_EQ(allocate(), "10 src/integration/sub-id.cpp:N: Start range in " + files.uids +
                              " will exceed allowed max value");
    EXPECT_EQ(both(), "root:599900001:1\n|root:599900001:1\n");
}

TEST_F(SubIdFilesTest, MustBeThere) {
    EXPECT_EQ(allocate(),
              "10 src/system/file.cpp:N: Failed opening " + files.uids + ": No such file or directory");
    ErrorSlot error;
    EXPECT_FALSE(remove_sub_ids(files.gids, 1, error));
    EXPECT_EQ(test::describe(error), "10 src/integration/sub-id.cpp:N: Failed to remove entries for 1 from " +
                                         files.gids + " - file could not be read");
    error.clear();
    EXPECT_FALSE(teardown_sub_ids(files, "Sample", error));
    EXPECT_EQ(test::describe(error),
              "10 src/integration/sub-id.cpp:N: Failed finding either one or both of " + files.uids +
                  " and " + files.uids);
}

TEST_F(SubIdFilesTest, NeedAUserAndItsGroups) {
    write("", "");
    EXPECT_EQ(allocate("no-such-user"),
              "10 src/system/user-database.cpp:N: User no-such-user does not exist");
    EXPECT_EQ(allocate("daemon", {"no-such-group"}),
              "10 src/system/user-database.cpp:N: Group no-such-group does not exist");
    EXPECT_EQ(both(), "|");
}

TEST_F(SubIdFilesTest, AreOnlyWrittenWhenALineGoes) {
    write("\n500:1:2\nlast", "");
    ErrorSlot error;
    EXPECT_TRUE(remove_sub_ids(files.uids, 1, error));
    EXPECT_EQ(test::read_text(files.uids), "\n500:1:2\nlast");
    EXPECT_TRUE(remove_sub_ids(files.uids, 500, error));
    EXPECT_EQ(test::read_text(files.uids), "");
    EXPECT_EQ(test::mode_of(files.uids), 0644U);
}

/** The ranges of all users in the file, as start and owner; fails when two overlap. */
static void expect_disjoint(const std::string& text) {
    std::map<long, long> ends;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        long owner = 0;
        long start = 0;
        long count = 0;
        ASSERT_EQ(std::sscanf(line.c_str(), "%ld:%ld:%ld", &owner, &start, &count), 3) << line;
        if (count == 1)
            continue;  // a group's
        ASSERT_TRUE(ends.emplace(start, start + count).second) << text;
    }
    long last = 0;
    for (const auto& [start, end] : ends) {
        ASSERT_GE(start, last) << text;
        last = end;
    }
}

TEST(SubIds, StayDisjointOverRandomSequences) {
    std::mt19937 random(20);
    for (int sequence = 0; sequence < 50; sequence++) {
        std::string text;
        for (int step = 0; step < 60; step++) {
            const uid_t uid = static_cast<uid_t>(900 + random() % 12);
            if (random() % 3 == 0) {
                text = without_sub_ids(text, uid).text;
            } else {
                ErrorSlot error;
                const std::optional<int32_t> start = find_sub_id_start(text, uid, error);
                ASSERT_TRUE(start);
                text = without_sub_ids(text, uid).text + sub_gid_text(uid, 5, {5, 7, 44}, *start);
            }
            ASSERT_NO_FATAL_FAILURE(expect_disjoint(text));
        }
    }
}
