#pragma once

#include <cstdint>
#include <string>

#include "base/velkctl-error.h"
#include "system/area.h"

/** How the device treats the scripts of packages. */
struct InstallScriptPolicy {
    bool made_executable;   ///< setup makes them executable; otherwise the package must have done so
    int32_t timeout_cap_s;  ///< the longest time-out, in seconds; 0 is none
};

inline constexpr InstallScriptPolicy SHIPPED_SCRIPT_POLICY{true, 0};
inline constexpr InstallScriptPolicy STRICT_SCRIPT_POLICY{false, 330};

/** The policy of this device. */
inline constexpr InstallScriptPolicy install_script_policy() { return SHIPPED_SCRIPT_POLICY; }

/**
 * Make the script in the tree ready to be run, by the policy.
 *
 * @param script  path relative to the tree
 * @param error   code 1 "Path %s is outside of application directory %s" or "Install script '%s' is not set
 * as executable."; code 10 "Failed setting permissions for %s: %s", also for what is no regular file,
 * or a link or behind one
 */
[[nodiscard]] bool prepare_install_script(const InstallScriptPolicy& policy, const AreaDirectory& tree,
                                          const std::string& script, VelkctlError** error);

/** The time-out that holds for a configured one, in seconds. */
[[nodiscard]] int32_t effective_script_timeout(const InstallScriptPolicy& policy, int32_t configured_s);
