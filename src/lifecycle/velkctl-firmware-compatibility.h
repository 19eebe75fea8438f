#pragma once

#include <optional>
#include <string>

#include "base/velkctl-error.h"

/**
 * Which installed applications would not run on another firmware. Applications that ship with the firmware
 * are left out.
 *
 * @param version  the firmware version in question
 * @param error    code 10 for a text that is no firmware version; all other trouble is a warning
 * @return compact JSON: an empty object, or one with the array `incompatible_apps`
 */
[[nodiscard]] std::optional<std::string> velkctl_firmware_compatibility(const std::string& version,
                                                                        VelkctlError** error);
