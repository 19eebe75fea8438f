#include <gtest/gtest.h>

#include "lifecycle/velkctl-backup.h"
#include "lifecycle/velkctl-install.h"
#include "lifecycle/velkctl-restore.h"
#include "store/velkctl-store.h"

TEST(Preconditions, AnInstallationThatCannotTellItsNameOrItsFailureIsAFault) {
    std::string name;
    ErrorSlot error;
    const char* told = "velkctl_install.*`path && app_name && error' failed";
    EXPECT_DEATH((void)velkctl_install("App.vlp", default_location(), {}, nullptr, error), told);
    EXPECT_DEATH((void)velkctl_install("App.vlp", default_location(), {}, &name, nullptr), told);
}

TEST(Preconditions, ABackupThatCannotTellItsFailureIsAFault) {
    EXPECT_DEATH((void)velkctl_perform_backup("App", nullptr), "velkctl_perform_backup.*error' failed");
}

TEST(Preconditions, ARestoreThatCannotTellItsFailureIsAFault) {
    EXPECT_DEATH((void)velkctl_restore("App", nullptr), "velkctl_restore.*`app_name && error' failed");
}
