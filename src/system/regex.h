#pragma once

#include <string_view>

#include "base/velkctl-error.h"

/**
 * Whether `subject` matches the PCRE2 expression `pattern`. The dollar sign matches at the very end only, and
 * letters are ASCII letters, so that neither a trailing newline nor an accented letter passes a name rule.
 * The pattern is compiled anew for each call.
 *
 * @param error  code 10 with PCRE2's text when the pattern does not compile or the engine gives up; the
 * result is then false. A plain mismatch is false without an error.
 */
[[nodiscard]] bool check_regex(const char* pattern, std::string_view subject, VelkctlError** error);
