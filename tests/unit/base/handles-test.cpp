#include "base/handles.h"

#include <fcntl.h>
#include <gtest/gtest.h>

static bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

static int open_something() { return open(".", O_RDONLY | O_CLOEXEC); }

TEST(UniqueFdObject, ClosesAtTheEndOfItsScope) {
    int number = -1;
    {
        const UniqueFd fd(open_something());
        number = fd.get();
        EXPECT_TRUE(fd);
        EXPECT_TRUE(is_open(number));
    }
    EXPECT_FALSE(is_open(number));
}

TEST(UniqueFdObject, IsFalseWithoutADescriptor) {
    EXPECT_FALSE(UniqueFd());
    EXPECT_FALSE(UniqueFd(-1));
}

TEST(UniqueFdObject, HandsItsDescriptorOnWhenMoved) {
    UniqueFd first(open_something());
    const int number = first.get();
    UniqueFd second(std::move(first));
    EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): a moved-from owner is empty
    EXPECT_EQ(second.get(), number);
    UniqueFd third;
    third = std::move(second);
    EXPECT_EQ(third.get(), number);
    third.reset();
    EXPECT_FALSE(third);
    EXPECT_FALSE(is_open(number));
}

TEST(JsonOwner, SharesABorrowedValue) {
    const JsonPtr object(json_object());
    json_object_set_new(object.get(), "key", json_string("value"));
    json_t* borrowed = json_object_get(object.get(), "key");
    {
        const JsonPtr shared = json_share(borrowed);
        EXPECT_EQ(borrowed->refcount, 2U);
    }
    EXPECT_EQ(borrowed->refcount, 1U);
}

TEST(GErrorSlotObject, TellsTheLibrarysText) {
    GErrorSlot error;
    EXPECT_STREQ(error.message(), "");
    EXPECT_EQ(error.get(), nullptr);
    g_set_error(error.out(), G_FILE_ERROR, G_FILE_ERROR_NOENT, "no %s", "file");
    EXPECT_STREQ(error.message(), "no file");
    EXPECT_TRUE(g_error_matches(error.get(), G_FILE_ERROR, G_FILE_ERROR_NOENT));
}
