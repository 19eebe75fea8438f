#include "store/store-layout.h"

#include <gtest/gtest.h>

#include "support.h"

TEST(Space, IsEnoughWhenTheMarginFitsExactly) {
    ErrorSlot error;
    EXPECT_TRUE(check_space(1000, 1000 + 262144, error));
    EXPECT_TRUE(check_space(1, UINT64_MAX, error));
    EXPECT_EQ(test::describe(error), "none");
}

TEST(Space, IsShortByOneByte) {
    ErrorSlot error;
    EXPECT_FALSE(check_space(1000, 1000 + 262143, error));
    EXPECT_EQ(test::describe(error), "3 Package too large. Required: 263144 bytes, available: 263143 bytes.");
}

TEST(Space, IsMeasuredBeyondFourGibibytes) {
    ErrorSlot error;
    EXPECT_FALSE(check_space(uint64_t{8} << 30, uint64_t{5} << 30, error));
    EXPECT_EQ(test::describe(error),
              "3 Package too large. Required: 8590196736 bytes, available: 5368709120 bytes.");
}
