#pragma once

#include <string>

#include "base/velkctl-error.h"

/**
 * Set "FILE: RULE". A file whose name is too long for a record is shown by its end, so that the rule is never
 * cut off.
 *
 * @return false, for the caller to return
 */
bool fail_with(VelkctlError** error, int32_t code, const std::string& file, const std::string& rule);

/** The same for a failed system call, code 10: "FILE: OPERATION: " and the system's text. */
bool fail_with_system_error(VelkctlError** error, const std::string& file, const std::string& operation);
