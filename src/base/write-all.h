#pragma once

#include <unistd.h>

#include <cerrno>
#include <string_view>

/** Write all of the data to a descriptor; false, with errno, when it cannot be. Some of it may be written
 * then. */
[[nodiscard]] inline bool write_all(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t written = write(fd, data.data(), data.size());
        if (written < 0 && errno != EINTR)
            return false;
        if (written > 0)
            data.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}
