#include "integration/own-files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/handles.h"
#include "system/file.h"

static constexpr size_t BEGINNING = 4096;

std::string beginning_of(const std::string& path) {
    // Whatever lies there is not waited for.
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!fd || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return "";
    std::string text(BEGINNING, '\0');
    const ssize_t length = pread(fd.get(), text.data(), text.size(), 0);
    text.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return text;
}

bool check_is_own(const std::string& path, bool is_own, VelkctlError** error) {
    struct stat status {};
    // Nothing replaces a directory anyway, and writing tells why.
    if (is_own || lstat(path.c_str(), &status) != 0 || S_ISDIR(status.st_mode))
        return true;
    return FAIL_GENERAL(error, "Failed writing to file: %s: %s", path.c_str(),
                        system_error_text(EEXIST).c_str());
}

bool remove_own_file(const std::string& path, bool is_own, VelkctlError** error) {
    return (!is_own && !is_directory_no_follow(path)) || remove_file(path, error);
}

bool remove_own_link(const std::string& link, const std::string& target, VelkctlError** error) {
    return remove_own_file(link, is_symlink_target_equal_to(link, target), error);
}

bool try_each(std::initializer_list<std::function<bool(VelkctlError**)>> steps, VelkctlError** error) {
    bool done = true;
    for (const auto& step : steps) {
        ErrorSlot failure;
        if (step(failure))
            continue;
        if (done)
            failure.move_to(error);
        done = false;
    }
    return done;
}
