// run-state [APP]
//
// Whether an application is recorded as wanted at boot, for the tests on the device: `list` shows a record
// that cannot be read like one that says no. Prints "yes" or "no"; ends and logs like velkctl.

#include <cstdio>

#include "base/log.h"
#include "integration/runstate.h"

int main(int, char** argv) {
    log_setup(LOG_MODE_STDERR);
    ErrorSlot error;
    const bool enabled = runstate_is_enabled(argv[1], error);
    if (!error.is_set())
        return std::puts(enabled ? "yes" : "no") < 0;
    log_error(error.get());
    return error.code();
}
