#pragma once

#include <glib.h>

#include "base/velkctl-error.h"

/** Every log line begins with this text. */
#define LOG_PREAMBLE ""

/** Where log lines go. */
enum LogMode : int {
    LOG_MODE_NULL = 0,
    LOG_MODE_STDERR = 1,
    LOG_MODE_SYSLOG = 2,
};

/** Select the log sink and silence GLib's own debug messages. Any other mode does nothing at all. */
void log_setup(int mode);

/** Write one line about progress or a result; LOG_PREAMBLE goes before it, here and below. */
void log_info(const char* format, ...) __attribute__((format(printf, 1, 2)));

/** Write one line about a problem that does not stop the command. */
void log_warning(const char* format, ...) __attribute__((format(printf, 1, 2)));

/** Write one line at the level of general errors: GLib's first user-defined level (256), above the standard
 * ones. */
void log_general_error(const char* format, ...) __attribute__((format(printf, 1, 2)));

/**
 * Write "code N: MESSAGE": a code-10 error at the level of general errors, any other as a warning. Null
 * writes nothing. Before `log_setup` the line is dropped, and logging counts as set up to discard from then
 * on.
 */
void log_error(const VelkctlError* error);

/**
 * Log an error that is not carried in a record, such as a usage error. The code must lie between
 * VELKCTL_SUCCESS and VELKCTL_ERROR_UNDEFINED, both excluded (asserted).
 */
void _log_error_code(int32_t code, const char* format, ...)  // NOLINT(bugprone-reserved-identifier)
    __attribute__((format(printf, 2, 3)));

/**
 * If the slot holds a record: warn with `preamble` and its message, and clear it. For failures that must not
 * stop the command.
 *
 * @param preamble  required (asserted)
 * @param ok        optional; set to false when there was a record, untouched otherwise
 */
void warn_and_clear_error_with_preamble(const char* preamble, VelkctlError** error, bool* ok);

/** The same without a preamble. */
void warn_and_clear_error(VelkctlError** error, bool* ok);
