#include "system/descent.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cerrno>
#include <string_view>

/** How many of the remembered directories are held open. */
static constexpr size_t kHeldOpen = 12;

bool Descent::enter(UniqueFd fd, const std::string& name) {
    struct stat status {};
    if (fstat(fd.get(), &status) != 0)
        return false;
    const size_t level = steps_.empty() ? 0 : steps_.back().level + 1;
    steps_.push_back({std::move(fd), name, {}, level, 0, status.st_dev, status.st_ino});
    if (steps_.size() > kHeldOpen)
        steps_[steps_.size() - kHeldOpen - 1].fd.reset();
    return true;
}

bool Descent::enter_last(UniqueFd fd, const std::string& name) {
    const size_t level = steps_.back().level + 1;
    steps_.pop_back();
    if (!enter(std::move(fd), name))
        return false;
    steps_.back().level = level;
    return true;
}

/** Find the directory of a step, which is `level - step.level` directories above the open one. */
bool Descent::reopen(Step& step, UniqueFd below, size_t level) const {
    for (; level > step.level; level--) {
        UniqueFd above(openat(below.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!above)
            return false;
        below = std::move(above);
    }
    struct stat status {};
    if (fstat(below.get(), &status) != 0)
        return false;
    // The way down was changed meanwhile, and what is above now is nobody's business here.
    if (status.st_dev != step.device || status.st_ino != step.inode) {
        errno = ENOENT;
        return false;
    }
    step.fd = std::move(below);
    return true;
}

bool Descent::leave() {
    Step left = std::move(steps_.back());
    steps_.pop_back();
    if (steps_.empty() || steps_.back().fd)
        return true;
    if (reopen(steps_.back(), std::move(left.fd), left.level))
        return true;
    steps_.clear();
    return false;
}

int read_names(int directory, const std::function<bool(const dirent&)>& visit) {
    // A descriptor of its own: a copy would share its place with the caller's.
    const int fd = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const DirectoryPtr names(fd >= 0 ? fdopendir(fd) : nullptr);
    if (!names) {
        const int reason = errno;
        if (fd >= 0)
            close(fd);
        return reason;
    }
    errno = 0;
    while (const dirent* entry = readdir(names.get())) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != ".." && !visit(*entry))
            return ECANCELED;
        errno = 0;
    }
    return errno;
}

bool names_directory(int directory, const dirent& entry) {
    struct stat status {};
    if (entry.d_type != DT_UNKNOWN)
        return entry.d_type == DT_DIR;
    return fstatat(directory, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode);
}

UniqueFd open_below(int directory, const std::string& name, bool enter_mounts) {
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    if (enter_mounts)
        return UniqueFd(openat(directory, name.c_str(), flags));
    open_how how{};
    how.flags = flags;
    how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;
    return UniqueFd(static_cast<int>(syscall(SYS_openat2, directory, name.c_str(), &how, sizeof how)));
}
