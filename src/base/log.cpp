#include "base/log.h"

#include <cassert>
#include <cstdarg>

#include "base/handles.h"
#include "platform/libovlog.h"

// Lies in a C file.
extern "C" void log_at_general_error_level(const char* preamble, const char* text);

static bool log_is_set_up = false;

static void ignore_message(const char*, GLogLevelFlags, const char*, void*) {}

void log_setup(int mode) {
    switch (mode) {
        case LOG_MODE_NULL:
            ov_log_null();
            break;
        case LOG_MODE_STDERR:
            ov_log_fd(2);
            break;
        case LOG_MODE_SYSLOG:
            ov_log_syslog();
            break;
        default:
            return;
    }
    g_log_set_handler("GLib", G_LOG_LEVEL_DEBUG, ignore_message, nullptr);
    log_is_set_up = true;
}

__attribute__((format(printf, 1, 0))) static GStringPtr format_text(const char* format, va_list arguments) {
    return GStringPtr(g_strdup_vprintf(format, arguments));
}

void log_info(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    g_log(nullptr, G_LOG_LEVEL_INFO, "%s%s", LOG_PREAMBLE, format_text(format, arguments).get());
    va_end(arguments);
}

void log_warning(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    g_log(nullptr, G_LOG_LEVEL_WARNING, "%s%s", LOG_PREAMBLE, format_text(format, arguments).get());
    va_end(arguments);
}

void log_general_error(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    log_at_general_error_level(LOG_PREAMBLE, format_text(format, arguments).get());
    va_end(arguments);
}

void log_error(const VelkctlError* error) {
    if (!error)
        return;
    if (!log_is_set_up)
        log_setup(LOG_MODE_NULL);
    if (error->code == VELKCTL_ERROR_GENERAL)
        log_general_error("code %d: %s", error->code, error->message);
    else
        log_warning("code %d: %s", error->code, error->message);
}

void _log_error_code(int32_t code, const char* format, ...) {  // NOLINT(bugprone-reserved-identifier)
    assert(code > VELKCTL_SUCCESS && code < VELKCTL_ERROR_UNDEFINED);
    ErrorSlot slot;
    va_list arguments;
    va_start(arguments, format);
    velkctl_error_vset(slot, code, format, arguments);
    va_end(arguments);
    log_error(slot.get());
}

void warn_and_clear_error_with_preamble(const char* preamble, VelkctlError** error, bool* ok) {
    assert(preamble);
    if (!error || !*error)
        return;
    log_warning("%s%s", preamble, (*error)->message);
    velkctl_error_clear(error);
    if (ok)
        *ok = false;
}

void warn_and_clear_error(VelkctlError** error, bool* ok) {
    warn_and_clear_error_with_preamble("", error, ok);
}
