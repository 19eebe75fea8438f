#include "base/descriptors.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "base/interruption.h"

static constexpr size_t kBlock = 64 << 10;

bool write_all(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t written = write(fd, data.data(), data.size());
        if (written < 0 && errno != EINTR)
            return false;
        if (written > 0)
            data.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

/** The next bytes; none at the end. False, with errno, when there is no telling. */
static bool read_block(int fd, std::vector<char>* block, std::string_view* bytes) {
    ssize_t got = -1;
    do {
        got = read(fd, block->data(), block->size());
    } while (got < 0 && errno == EINTR);
    *bytes = {block->data(), static_cast<size_t>(got < 0 ? 0 : got)};
    return got >= 0;
}

bool read_all(int fd, std::string* text, size_t limit) {
    std::vector<char> block(kBlock);
    std::string_view bytes;
    size_t size = 0;
    while (read_block(fd, &block, &bytes)) {
        if (bytes.empty())
            return true;
        text->append(bytes);
        size += bytes.size();
        if (size <= limit)
            continue;
        errno = EFBIG;
        return false;
    }
    return false;
}

bool read_ends(int fd, std::string* text, size_t start, size_t end) {
    std::vector<char> block(kBlock);
    std::string_view bytes;
    std::string tail;
    bool is_whole = false;
    while (read_block(fd, &block, &bytes) && !(is_whole = bytes.empty())) {
        const size_t first = std::min(bytes.size(), start);
        text->append(bytes.substr(0, first));
        start -= first;
        tail.append(bytes.substr(first));
        if (tail.size() > end)
            tail.erase(0, tail.size() - end);
    }
    *text += tail;
    return is_whole;
}

bool wait_for_child(pid_t pid, int* status) {
    // As long as it is not reaped its number is nobody else's.
    siginfo_t ended{};
    while (waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT) != 0)
        if (errno != EINTR) {
            stop_passing_on();
            return false;
        }
    stop_passing_on();
    return waitpid(pid, status, 0) == pid;
}
