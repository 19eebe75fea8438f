#include "base/paths.h"

#include <gtest/gtest.h>

TEST(Paths, OfAnApplicationAreFormedFromItsName) {
    EXPECT_EQ(paths::store_root_path("MyApp"), std::string(paths::kStoreRoot) + "/MyApp");
    EXPECT_EQ(paths::service_unit_name("MyApp"), "sdkMyApp.service");
    EXPECT_EQ(paths::service_unit_path("MyApp"), std::string(paths::kSystemdUnits) + "/sdkMyApp.service");
}

TEST(Paths, TheLockLiesInTheStore) {
    EXPECT_EQ(std::string(paths::kLockFile), std::string(paths::kStoreRoot) + "/_lock/velkctl");
}
