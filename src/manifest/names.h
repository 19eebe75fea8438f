#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/velkctl-error.h"

/*
 * The rules for names and texts, in command arguments and in manifests. They look at bytes: a letter is an
 * ASCII letter.
 */

/** What stands in the place of an application's name where there is none, and so is none. */
inline constexpr const char* NO_APP_NAME = "no_clean_on_failure";

/**
 * An application name is a letter and up to 99 letters, digits, underscores and hyphens, but not NO_APP_NAME.
 *
 * @param error  required (asserted); code 10 "Character sequence in application name is not allowed"
 */
[[nodiscard]] bool is_valid_app_name(const std::string& name, VelkctlError** error);

/** The same rule for a name in a manifest: the error is then code 29. */
[[nodiscard]] bool check_manifest_app_name(const std::string& name, VelkctlError** error);

/**
 * The last part of a package's path has 1 to 255 letters, digits, underscores, dots and hyphens. Code 10
 * "Character sequence in application package file name is not allowed".
 */
[[nodiscard]] bool check_package_file_name(const std::string& path, VelkctlError** error);

/** No value, or one without line feed and carriage return: code 29 "Field '%s' in manifest contains a
 * newline". */
[[nodiscard]] bool check_no_newline(const std::optional<std::string>& value, const char* field,
                                    VelkctlError** error);

/**
 * No value, or a relative path that neither begins with nor passes through a dot directory: code 29 "Field
 * '%s' in manifest contains a path traversal".
 */
[[nodiscard]] bool check_no_path_traversal(const std::optional<std::string>& value, const char* field,
                                           VelkctlError** error);

/**
 * Convert a whole decimal text; leading white space and a sign are accepted, and the empty text is 0.
 *
 * @param result  untouched on failure
 * @return false when characters are left over, or the value lies outside -2147483648 to 2147483646. The
 * highest number itself is refused: it marks "too large".
 */
[[nodiscard]] bool string_to_int(const char* text, int32_t* result);

/**
 * The integer in the text of a manifest field, which must lie in the closed range.
 *
 * @param string_value, field_name  required (asserted)
 * @param result  untouched on failure
 * @param error   code 29 "Failed to convert the string to an integer for '%s'" or "Manifest field '%s' must
 * be in the range [%d, %d]"
 */
[[nodiscard]] bool convert_manifest_string_to_integer(const char* string_value, const char* field_name,
                                                      int32_t low, int32_t high, int32_t* result,
                                                      VelkctlError** error);
