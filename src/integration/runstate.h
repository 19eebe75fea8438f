#pragma once

#include <optional>
#include <string>

#include "base/velkctl-error.h"

/**
 * Record whether the application is to run at boot.
 *
 * @param error  code 10 "Failed writing to file: %s: %s"; the old record is then untouched
 */
[[nodiscard]] bool runstate_write(const std::string& app, bool enabled, VelkctlError** error);

/**
 * Whether the record says that the application is to run at boot.
 *
 * @param app    null is code 10
 * @param error  code 4 when the application is not in the store; code 10 when there is no record, or it
 * cannot be read
 */
[[nodiscard]] bool runstate_is_enabled(const char* app, VelkctlError** error);

/** What the service manager knows about an application. */
struct ServiceState {
    std::string name;  ///< of the service unit
    bool active;
};

/**
 * The name of the application's service and whether it is active.
 *
 * @param error  required (asserted); code 4 when the application is not in the store, code 10 when the
 * service manager cannot be asked
 */
[[nodiscard]] std::optional<ServiceState> service_name_and_active_state(const std::string& app,
                                                                        VelkctlError** error);

/**
 * Enable and restart the application's service, and record it; with run mode "never" it runs now but not at
 * boot.
 *
 * @param already_started  optional; whether it was active before
 * @param error            the failed step's; earlier steps stay in place
 * @return 0 or -1
 */
int velkctl_start(const std::string& app, bool* already_started, VelkctlError** error);

/**
 * Stop and disable the application's service, and record it. One that is not running is only recorded, as
 * enabled.
 *
 * @param was_running  optional; whether it was active before
 * @return 0 or -1
 */
int velkctl_stop(const std::string& app, bool* was_running, VelkctlError** error);
