#pragma once

#include <optional>
#include <string>

#include "base/velkctl-error.h"

/*
 * Values of package.conf, the shell-style description of the older package form. Scripts want to use such
 * values without running the file, so only values that are harmless inside a shell script are handed out.
 */

/**
 * The value in the line KEY=VALUE, without one pair of quotes around it, with tabs as spaces.
 *
 * @param error  required (asserted); code 29 when the line does not begin with the key and "=", or the value
 * contains what a shell would act on, a line break, or a space without quotes
 */
[[nodiscard]] std::optional<std::string> velkctl_read_package_conf_value(const std::string& key,
                                                                         const std::string& line,
                                                                         VelkctlError** error);

/** The value in the first line of the file's text that begins with the key and "="; errors as above. */
[[nodiscard]] std::optional<std::string> find_package_conf_value(const std::string& text,
                                                                 const std::string& key,
                                                                 VelkctlError** error);

/** The version that the file's text gives, "MAJOR.MINOR-MICRO"; a missing micro part is 0, the others are
 * required. */
[[nodiscard]] std::optional<std::string> package_conf_version(const std::string& text, VelkctlError** error);

/** Log the error, print its code with a line feed on standard output, clear it and return the code. */
int log_and_clear_error_then_print_and_return_exit_code(VelkctlError** error);
