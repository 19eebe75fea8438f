#include "base/velkctl-error.h"

#include <glib.h>

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/handles.h"
#include "base/log.h"

__attribute__((format(printf, 2, 0))) static VelkctlError* new_record(int32_t code, const char* format,
                                                                      va_list arguments) {
    auto* record = static_cast<VelkctlError*>(g_malloc0(sizeof(VelkctlError)));
    record->code = code;
    if (format)
        std::vsnprintf(record->message, sizeof record->message, format, arguments);
    return record;
}

static void replace_unhandled(VelkctlError** error, VelkctlError* replacement) {
    log_warning("Unexpectedly replacing one error with another");
    log_warning("Old: %d: %s", (*error)->code, (*error)->message);
    velkctl_error_clear(error);
    *error = replacement;
    log_warning("New: %d: %s", (*error)->code, (*error)->message);
}

void velkctl_error_set(VelkctlError** error, int32_t code, const char* format, ...) {
    if (!error)
        return;
    va_list arguments;
    va_start(arguments, format);
    const bool forgot_to_clear = *error != nullptr;
    if (forgot_to_clear)
        replace_unhandled(error, new_record(code, format, arguments));
    else
        velkctl_error_vset(error, code, format, arguments);
    va_end(arguments);
    assert(!forgot_to_clear);
}

bool fail(VelkctlError** error, int32_t code, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const GStringPtr text(g_strdup_vprintf(format, arguments));
    va_end(arguments);
    velkctl_error_set(error, code, "%s", text.get());
    return false;
}

void velkctl_error_vset(VelkctlError** error, int32_t code, const char* format, va_list arguments) {
    assert(!error || !*error);
    if (error)
        *error = new_record(code, format, arguments);
}

void velkctl_error_set_at(VelkctlError** error, const char* file, int line, const char* format, ...) {
    if (!error)
        return;
    va_list arguments;
    va_start(arguments, format);
    const GStringPtr text(g_strdup_vprintf(format, arguments));
    va_end(arguments);
    velkctl_error_set(error, VELKCTL_ERROR_GENERAL, "%s:%d: %s", file, line, text.get());
}

void velkctl_error_clear(VelkctlError** error) {
    if (!error || !*error)
        return;
    if ((*error)->foreign)
        velkctl_error_free(*error);
    else
        g_free(*error);
    *error = nullptr;
}

void set_null_argument_error(VelkctlError** error, const char* function, const char* argument) {
    velkctl_error_set(error, VELKCTL_ERROR_GENERAL, "%s: Invalid argument: %s is NULL", function, argument);
}

void set_not_null_argument_error(VelkctlError** error, const char* function, const char* argument) {
    velkctl_error_set(error, VELKCTL_ERROR_GENERAL, "%s: Invalid argument: %s is not NULL or pointer to NULL",
                      function, argument);
}

std::string system_error_text(int number) { return g_strerror(number); }

std::string system_error_text() { return system_error_text(errno); }

void ErrorSlot::move_to(VelkctlError** error) {
    if (!error) {
        clear();
        return;
    }
    assert(!*error);
    *error = record_;
    record_ = nullptr;
}
