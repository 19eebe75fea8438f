#include "system/user-database.h"

#include <gtest/gtest.h>
#include <nss.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstdio>

#include "support.h"

using test::describe;

TEST(UserDatabase, KnowsRoot) {
    ErrorSlot error;
    const std::optional<UserEntry> root = find_user("root", error);
    ASSERT_TRUE(root) << error.message();
    EXPECT_EQ(root->name, "root");
    EXPECT_EQ(root->uid, 0U);
    EXPECT_EQ(root->primary_gid, 0U);
    EXPECT_EQ(find_user_id("root", error), 0U);
    EXPECT_EQ(find_group_id("root", error), 0U);
    EXPECT_EQ(find_group_name(0, error), "root");
    EXPECT_TRUE(group_exists("root"));
    EXPECT_EQ(describe(error), "none");
}

TEST(UserDatabase, SaysWhichUserDoesNotExistWhateverErrnoWasBefore) {
    ErrorSlot error;
    errno = EACCES;
    EXPECT_FALSE(find_user("no-such-user", error));
    EXPECT_EQ(describe(error), "10 src/system/user-database.cpp:N: User no-such-user does not exist");
    error.clear();
    errno = EACCES;
    EXPECT_EQ(find_user_id("no-such-user", error), static_cast<uid_t>(-1));
    EXPECT_EQ(describe(error), "10 src/system/user-database.cpp:N: User no-such-user does not exist");
    EXPECT_FALSE(find_user("no-such-user", nullptr));
}

TEST(UserDatabase, SaysWhichGroupDoesNotExistWhateverErrnoWasBefore) {
    ErrorSlot error;
    errno = EACCES;
    EXPECT_EQ(find_group_id("no-such-group", error), static_cast<gid_t>(-1));
    EXPECT_EQ(describe(error), "10 src/system/user-database.cpp:N: Group no-such-group does not exist");
    error.clear();
    errno = EACCES;
    EXPECT_FALSE(find_group_name(2'000'000'123, error));
    EXPECT_EQ(describe(error), "10 src/system/user-database.cpp:N: Group 2000000123 does not exist");
    EXPECT_FALSE(group_exists("no-such-group"));
}

// Without a free descriptor the databases cannot be opened: that is no answer about the user.
TEST(UserDatabase, TellsAFailedLookupFromAMissingName) {
    const test::ChildResult result = test::run_child([] {
        ErrorSlot user;
        ErrorSlot name;
        ErrorSlot group;
        // A second source that knows nothing of the name would turn the failure into an answer.
        __nss_configure_lookup("passwd", "files");
        __nss_configure_lookup("group", "files");
        const rlimit none{0, 0};
        setrlimit(RLIMIT_NOFILE, &none);
        (void)find_user_id("no-such-user", user);
        (void)find_group_id("no-such-group", name);
        (void)find_group_name(2'000'000'123, group);
        std::fprintf(stdout, "%s\n%s\n%s\n", describe(user).c_str(), describe(name).c_str(),
                     describe(group).c_str());
    });
    const std::string place = "10 src/system/user-database.cpp:N: ";
    EXPECT_EQ(result.output, place + "Failed reading user entry no-such-user: Too many open files\n" +  //
                                 place + "Failed reading group entry no-such-group: Too many open files\n" +
                                 place + "Failed reading group entry 2000000123: Too many open files\n");
}

TEST(PrimaryGroup, IsTheOneOfTheUsersEntry) {
    ErrorSlot error;
    EXPECT_EQ(primary_group_of("root", error), "root");
    EXPECT_FALSE(primary_group_of("no-such-user", error));
    EXPECT_EQ(test::describe(error), "10 src/system/user-database.cpp:N: User no-such-user does not exist");
}
