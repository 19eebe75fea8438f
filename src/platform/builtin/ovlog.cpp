#include "platform/libovlog.h"

#include <glib.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "base/printable.h"

// A message can carry texts from a package: none of them may forge a log line of its own or steer a terminal.
static std::string one_line(const char* message) { return message ? printable(message) : ""; }

static bool is_debug(GLogLevelFlags level) { return (level & G_LOG_LEVEL_MASK) == G_LOG_LEVEL_DEBUG; }

static void write_to_fd(const char*, GLogLevelFlags level, const char* message, void* data) {
    if (is_debug(level))
        return;
    const std::string line = one_line(message) + "\n";
    const int fd = GPOINTER_TO_INT(data);
    size_t done = 0;
    while (done < line.size()) {
        const ssize_t written = write(fd, line.data() + done, line.size() - done);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return;  // nobody can be told that the log cannot be written
        done += static_cast<size_t>(written);
    }
}

static int syslog_priority(GLogLevelFlags level) {
    switch (level & G_LOG_LEVEL_MASK) {
        case G_LOG_LEVEL_ERROR:
            return LOG_CRIT;
        case G_LOG_LEVEL_CRITICAL:
            return LOG_ERR;
        case G_LOG_LEVEL_WARNING:
            return LOG_WARNING;
        case G_LOG_LEVEL_MESSAGE:
            return LOG_NOTICE;
        case G_LOG_LEVEL_INFO:
            return LOG_INFO;
        default:
            return LOG_ERR;  // the user-defined levels stand above the standard ones
    }
}

static void write_to_syslog(const char*, GLogLevelFlags level, const char* message, void*) {
    if (!is_debug(level))
        syslog(syslog_priority(level), "%s", one_line(message).c_str());
}

static void discard(const char*, GLogLevelFlags, const char*, void*) {}

void ov_log_fd(int fd) { g_log_set_default_handler(write_to_fd, GINT_TO_POINTER(fd)); }

void ov_log_syslog() {
    openlog("velkctl", LOG_PID, LOG_DAEMON);
    g_log_set_default_handler(write_to_syslog, nullptr);
}

void ov_log_null() { g_log_set_default_handler(discard, nullptr); }
