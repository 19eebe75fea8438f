#include <glib.h>

/*
 * In C, because the level of general errors lies outside the range that C++ gives GLib's enumeration: there
 * the conversion has no defined result.
 */
void log_at_general_error_level(const char* preamble, const char* text);

void log_at_general_error_level(const char* preamble, const char* text) {
    g_log(NULL, (GLogLevelFlags)(1 << G_LOG_LEVEL_USER_SHIFT), "%s%s", preamble, text);
}
