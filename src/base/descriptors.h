#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>

/** Write all of the data to a descriptor; false, with errno, when it cannot be. Some of it may be written
 * then. */
[[nodiscard]] bool write_all(int fd, std::string_view data);

/**
 * Read a descriptor up to its end, onto the end of `text`.
 *
 * @param limit  reading stops when there is more than this
 * @return false, with errno, when reading fails, with EFBIG at the limit; what was read until then is in
 * `text`
 */
[[nodiscard]] bool read_all(int fd, std::string* text, size_t limit = std::string::npos);

/** The same, of a text that may be of any length: only so much of its start and of its end is kept. */
[[nodiscard]] bool read_ends(int fd, std::string* text, size_t start, size_t end);

/**
 * Wait for the end of a child, which gets to know of an interruption no more then (base/interruption.h).
 *
 * @param status  as of waitpid; untouched on failure
 * @return false, with errno, when it cannot be known how the child ended
 */
[[nodiscard]] bool wait_for_child(pid_t pid, int* status);
