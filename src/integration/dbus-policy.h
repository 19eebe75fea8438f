#pragma once

#include <string>

#include "base/velkctl-error.h"

/** Where the bus reads the policy of an application's parameter service. */
[[nodiscard]] std::string bus_policy_path(const std::string& app);

/** The policy: only root and the application's user own the service, everybody may talk to it. */
[[nodiscard]] std::string bus_policy_text(const std::string& app, const std::string& user);

/** Whether there is a policy of the application, which its comment tells. The image may have one of its name.
 */
[[nodiscard]] bool is_own_bus_policy(const std::string& app);

/** Write the policy; the bus reads it at its next reload. "Failed writing to file: %s: %s", code 10, also
 * when another's policy has the name, which then stays. */
[[nodiscard]] bool write_bus_policy(const std::string& app, const std::string& user, VelkctlError** error);

/** Remove the policy if it is the application's. "Failed removing %s: %s", code 10. */
[[nodiscard]] bool remove_bus_policy(const std::string& app, VelkctlError** error);
