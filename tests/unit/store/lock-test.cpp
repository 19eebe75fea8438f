#include "store/lock.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "support.h"

/*
 * The lock file has a fixed path, so what it does on the disk is tested on a device; here is what happens
 * before it.
 */

TEST(Lock, NeedsAName) {
    for (const char* name : {static_cast<const char*>(nullptr), ""}) {
        ErrorSlot error;
        EXPECT_FALSE(lockfile_create(name, error));
        EXPECT_EQ(test::describe(error), "10 lockfile_create: Invalid argument: appname is NULL or empty");
        EXPECT_FALSE(lockfile_create(name, nullptr));
    }
}

TEST(Lock, IsReadIntoSomething) {
    ErrorSlot error;
    EXPECT_FALSE(lockfile_read(nullptr, error));
    EXPECT_EQ(test::describe(error), "10 lockfile_read: Invalid argument: appname is NULL");
}

TEST(Lock, IsNotReleasedByWhoDoesNotHoldIt) {
    test::LogCapture log;
    lockfile_release();
    OperationLock lock;
    lock.release();
    EXPECT_EQ(log.text(), "");
}

TEST(Lock, TakenOverOnlyGetsDeeper) {
    const auto body = [] {
        lockfile_take_over();
        ErrorSlot error;
        OperationLock lock;
        const bool deeper =
            lock.take("App", error) && lock.take("Other", error) && lockfile_create(nullptr, error);
        lockfile_release();
        lock.release();
        std::_Exit(deeper && !error.is_set() ? 0
                                             : 1);  // the first level stays: its file is not this process's
    };
    const test::ChildResult child = test::run_child(body);
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_EQ(child.errors, "");
}

TEST(LockDeathTest, IsNotTakenOverTwice) {
    const auto twice = [] {
        lockfile_take_over();
        lockfile_take_over();
    };
    EXPECT_DEATH(twice(), "lockfile_take_over.*lock_counter == 0");
}

TEST(LockPreambles, CheckTheNameBeforeAnythingIsTaken) {
    for (const char* name : {"1App", "", "a/b", "App\n", "App.tmp"}) {
        OperationLock lock;
        ErrorSlot operation;
        EXPECT_FALSE(lock_app_for_operation(name, "backup", &lock, operation));
        EXPECT_EQ(test::describe(operation), "10 Character sequence in application name is not allowed");
        ErrorSlot removal;
        EXPECT_FALSE(lock_app_not_set_up(name, "remove", &lock, removal));
        EXPECT_EQ(test::describe(removal), "10 Character sequence in application name is not allowed");
    }
}
