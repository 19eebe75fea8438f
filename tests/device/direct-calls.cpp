// direct-calls COMMAND [NAME]
//
// What no command of velkctl does, for the tests on the device. `nested-locks` takes the lock twice, by two
// names, and gives it back twice, and prints after each step what the lock file says; `setup-inside APP` sets
// an application up that may not lie on a card; `is-enabled [APP]` prints "yes" or "no" for whether it is
// recorded as wanted at boot, for which `list` shows a record that cannot be read like a no. Ends and logs
// like velkctl.

#include <cstdio>
#include <cstring>
#include <string>

#include "base/log.h"
#include "integration/runstate.h"
#include "integration/velkctl-setup.h"
#include "store/lock.h"

static void print_lock() {
    ErrorSlot error;
    std::string content = "(none)";
    if (!lockfile_read(&content, error) && error.is_set())
        content = error.message();
    std::puts(content.c_str());
}

static bool nest_locks(VelkctlError** error) {
    for (const char* name : {"First", "Second"}) {
        if (!lockfile_create(name, error))
            return false;
        print_lock();
    }
    for (int level = 0; level < 2; level++) {
        lockfile_release();
        print_lock();
    }
    return true;
}

static bool print_enabled(const char* app, VelkctlError** error) {
    const bool enabled = runstate_is_enabled(app, error);
    return !*error && std::puts(enabled ? "yes" : "no") >= 0;
}

static bool run(int argc, char** argv, VelkctlError** error) {
    if (argc == 2 && std::strcmp(argv[1], "nested-locks") == 0)
        return nest_locks(error);
    if (argc == 3 && std::strcmp(argv[1], "setup-inside") == 0)
        return velkctl_setup(argv[2], {.allow_external_location = false}, error) == 0;
    if (argc >= 2 && std::strcmp(argv[1], "is-enabled") == 0)
        return print_enabled(argv[2], error);
    std::fputs("usage: direct-calls nested-locks|setup-inside|is-enabled [NAME]\n", stderr);
    return false;
}

int main(int argc, char** argv) {
    log_setup(LOG_MODE_STDERR);
    ErrorSlot error;
    if (run(argc, argv, error))
        return 0;
    log_error(error.get());
    return error.is_set() ? error.code() : VELKCTL_ERROR_UNDEFINED;
}
