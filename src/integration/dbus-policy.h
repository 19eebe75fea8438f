#pragma once

#include <string>

#include "base/velkctl-error.h"

/** Where the bus reads the policy of an application's parameter service. */
[[nodiscard]] std::string bus_policy_path(const std::string& app);

/** The policy: only root and the application's user own the service, everybody may talk to it. */
[[nodiscard]] std::string bus_policy_text(const std::string& app, const std::string& user);

/** Write the policy; the bus reads it at its next reload. "Failed writing to file: %s: %s", code 10. */
[[nodiscard]] bool write_bus_policy(const std::string& app, const std::string& user, VelkctlError** error);
