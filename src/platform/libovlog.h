#pragma once

/*
 * The device's log library: selects where the messages of GLib's message log go. The last call wins. The
 * built-in stand-in writes one line per message, without decoration: control characters inside a message are
 * written as \xNN so that a message stays one line. GLib's debug messages are never shown by it.
 */

/** Send log messages to the open descriptor `fd`, which stays the caller's. */
void ov_log_fd(int fd);

/** Send log messages to the system log, identified by the program's name, with priorities that fit their
 * levels. */
void ov_log_syslog();

/** Discard log messages. */
void ov_log_null();
