#include "system/copy-tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <memory>

#include "base/descriptors.h"
#include "base/handles.h"
#include "base/interruption.h"
#include "base/log.h"
#include "base/paths.h"
#include "system/descent.h"
#include "system/file.h"
#include "system/tree.h"

namespace {

constexpr size_t kBlock = 131072;
constexpr mode_t kDirectoryModes = 01777;
constexpr mode_t kFileModes = 0777;

// In these functions errno tells of a failure.

/** Copy a range that holds data; a file that becomes shorter meanwhile is copied as far as it goes. */
bool copy_range(int from, int to, off_t begin, off_t end) {
    const auto block = std::make_unique<std::array<char, kBlock>>();
    while (begin < end) {
        if (interruption_requested()) {
            errno = EINTR;
            return false;
        }
        const auto wanted = static_cast<size_t>(std::min<off_t>(end - begin, kBlock));
        const ssize_t got = pread(from, block->data(), wanted, begin);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return got == 0;
        if (!write_all(to, {block->data(), static_cast<size_t>(got)}))
            return false;
        begin += got;
    }
    return true;
}

bool copy_contents(int from, int to, off_t size) {
    off_t data = 0;
    off_t hole = 0;
    while (hole < size) {
        data = lseek(from, hole, SEEK_DATA);
        if (data < 0 && errno == ENXIO)
            break;
        if (data < 0)
            return false;
        hole = std::min(size, lseek(from, data, SEEK_HOLE));
        if (hole < 0 || (data < size && (lseek(to, data, SEEK_SET) < 0 || !copy_range(from, to, data, hole))))
            return false;
        hole = std::max(hole, data);
    }
    return ftruncate(to, size) == 0;
}

/** Open what was found for reading, when it is a regular file; anything else is not opened at all. */
UniqueFd open_regular(int directory, const std::string& name, struct stat* status) {
    const UniqueFd found(openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!found || fstat(found.get(), status) != 0 || !S_ISREG(status->st_mode))
        return UniqueFd();
    const std::string same = std::string(paths::kOwnDescriptors) + "/" + std::to_string(found.get());
    return UniqueFd(open(same.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

UniqueFd copy_regular(int from, const struct stat& status, int directory, const std::string& name,
                      CopyOwner owner) {
    UniqueFd to(openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                       status.st_mode & kFileModes));
    const bool is_complete = to && copy_contents(from, to.get(), status.st_size) &&
                             (!owner || fchown(to.get(), *owner, static_cast<gid_t>(-1)) == 0);
    const int reason = errno;
    if (to && !is_complete) {
        to.reset();
        errno = reason;
    }
    return to;
}

/** A copy of a tree and where it is. */
class Copier {
  public:
    Copier(const AreaDirectory& to, std::string name, CopyOwner owner)
        : to_(to), name_(std::move(name)), owner_(owner), mask_(umask(0)) {
        umask(mask_);
    }

    bool copy(int from) {
        UniqueFd root = open_below(from, ".", true);
        bool goes_on = root && enter(std::move(root), to_.fd(), name_, false);
        while (goes_on && !source_.empty())
            goes_on = go_on();
        const int reason = errno;
        ErrorSlot leftover;
        if (!remove_recursive_at(to_.fd(), links_name(), to_.path_of(links_name()), leftover))
            warn_and_clear_error(leftover, nullptr);
        errno = reason;
        return goes_on;
    }

  private:
    bool go_on() {
        Descent::Step& here = source_.here();
        if (here.waiting.empty())
            return source_.leave() && target_.leave();
        const std::string name = std::move(here.waiting.back());
        here.waiting.pop_back();
        UniqueFd fd = open_below(here.fd.get(), name, true);
        if (fd)
            return enter(std::move(fd), target_.here().fd.get(), name, here.waiting.empty());
        if (errno == ENOTDIR || errno == ELOOP)
            return copy_entry(name);
        return errno == ENOENT;
    }

    bool enter(UniqueFd source, int directory, const std::string& name, bool is_last) {
        struct stat status {};
        if (interruption_requested()) {
            errno = EINTR;
            return false;
        }
        if (fstat(source.get(), &status) != 0 || mkdirat(directory, name.c_str(), 0700) != 0)
            return false;
        UniqueFd target(openat(directory, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        const mode_t mode = status.st_mode & kDirectoryModes & ~mask_;
        if (!target || (owner_ && fchown(target.get(), *owner_, static_cast<gid_t>(-1)) != 0) ||
            fchmod(target.get(), mode) != 0)
            return false;
        const auto enter = is_last ? &Descent::enter_last : &Descent::enter;
        return (source_.*enter)(std::move(source), name) && (target_.*enter)(std::move(target), name) &&
               copy_entries();
    }

    bool copy_entries() {
        Descent::Step& here = source_.here();
        bool goes_on = true;
        const int result = read_names(here.fd.get(), [&](const dirent& entry) {
            if (names_directory(here.fd.get(), entry))
                here.waiting.emplace_back(entry.d_name);
            else
                goes_on = copy_entry(entry.d_name);
            return goes_on;
        });
        if (goes_on && result != 0)
            errno = result;
        return goes_on && result == 0;
    }

    /** Copy what is no directory; what vanished or became one meanwhile is left out. */
    bool copy_entry(const std::string& name) {
        const int from = source_.here().fd.get();
        const int to = target_.here().fd.get();
        struct stat status {};
        if (fstatat(from, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
            return errno == ENOENT;
        const mode_t mode = status.st_mode;
        if (S_ISDIR(mode))
            return true;
        if (S_ISCHR(mode) || S_ISBLK(mode)) {
            log_warning("Leaving out %s, which is a device", (path_of_descriptor(from) + "/" + name).c_str());
            return true;
        }
        if (S_ISREG(mode))
            return copy_file(name);
        if (is_linked(status, to, name))
            return true;
        const bool copied =
            S_ISLNK(mode) ? copy_link(name) : mknodat(to, name.c_str(), mode & (S_IFMT | kFileModes), 0) == 0;
        return copied &&
               (!owner_ ||
                fchownat(to, name.c_str(), *owner_, static_cast<gid_t>(-1), AT_SYMLINK_NOFOLLOW) == 0) &&
               remember(status, to, name);
    }

    bool copy_file(const std::string& name) {
        const int to = target_.here().fd.get();
        struct stat status {};
        const UniqueFd file = open_regular(source_.here().fd.get(), name, &status);
        if (!file)  // vanished, or exchanged for something else: then there is no such file
            return errno == ENOENT || (status.st_mode != 0 && !S_ISREG(status.st_mode));
        return is_linked(status, to, name) ||
               (copy_regular(file.get(), status, to, name, owner_) && remember(status, to, name));
    }

    bool copy_link(const std::string& name) {
        std::array<char, PATH_MAX> target{};
        const ssize_t length =
            readlinkat(source_.here().fd.get(), name.c_str(), target.data(), target.size() - 1);
        if (length < 0)
            return errno == ENOENT || errno == EINVAL;
        return symlinkat(target.data(), target_.here().fd.get(), name.c_str()) == 0;
    }

    // Files with several names are linked once more, into a directory of their own for the time of the copy:
    // that holds any number of them, and neither memory nor descriptors do.

    [[nodiscard]] std::string links_name() const { return name_ + ".links"; }

    static std::string link_name(const struct stat& status) {
        return std::to_string(status.st_dev) + "-" + std::to_string(status.st_ino);
    }

    /** Whether the file was copied before, and now has this name too. */
    bool is_linked(const struct stat& status, int to, const std::string& name) const {
        return status.st_nlink > 1 && links_ &&
               linkat(links_.get(), link_name(status).c_str(), to, name.c_str(), 0) == 0;
    }

    bool remember(const struct stat& status, int to, const std::string& name) {
        if (status.st_nlink < 2)
            return true;
        if (!links_ && mkdirat(to_.fd(), links_name().c_str(), 0700) == 0)
            links_ = UniqueFd(
                openat(to_.fd(), links_name().c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!links_)
            return false;
        // One that has as many names as it can have is copied anew.
        (void)unlinkat(links_.get(), link_name(status).c_str(), 0);
        return linkat(to, name.c_str(), links_.get(), link_name(status).c_str(), 0) == 0;
    }

    const AreaDirectory& to_;
    std::string name_;
    CopyOwner owner_;
    mode_t mask_;
    UniqueFd links_;
    Descent source_;
    Descent target_;
};

bool fail_copying(const std::string& from, const std::string& to, int reason, VelkctlError** error) {
    if (reason == EINTR && fail_when_interrupted(error))
        return false;
    return FAIL_GENERAL(error, "Failed copying %s to %s: %s", from.c_str(), to.c_str(),
                        system_error_text(reason).c_str());
}

}  // namespace

bool copy_tree(const AreaDirectory& from, const AreaDirectory& to, const std::string& name, CopyOwner owner,
               VelkctlError** error) {
    return Copier(to, name, owner).copy(from.fd()) ||
           fail_copying(from.path(), to.path_of(name), errno, error);
}

bool copy_area_file(const AreaDirectory& from, const std::string& name, const AreaDirectory& to,
                    const std::string& new_name, off_t limit, std::optional<AreaFile>* copy,
                    VelkctlError** error) {
    const std::string path = to.path_of(new_name);
    struct stat status {};
    const UniqueFd file = open_regular(from.fd(), name, &status);
    if (!file)
        return fail_copying(from.path_of(name), path,
                            status.st_mode == 0 || S_ISREG(status.st_mode) ? errno : EINVAL, error);
    if (status.st_size > limit)
        return fail_copying(from.path_of(name), path, EFBIG, error);
    UniqueFd made = copy_regular(file.get(), status, to.fd(), new_name, std::nullopt);
    if (!made) {
        const int reason = errno;
        if (reason != EEXIST)
            (void)unlinkat(to.fd(), new_name.c_str(), 0);
        return fail_copying(from.path_of(name), path, reason, error);
    }
    if (copy)
        *copy = AreaFile(std::move(made), path);
    return true;
}

std::optional<AreaDirectory> make_private_directory(const AreaDirectory& parent, const std::string& name,
                                                    VelkctlError** error) {
    const auto refuse = [&](int reason) {
        SET_GENERAL_ERROR(error, "Could not create directory %s: %s", parent.path_of(name).c_str(),
                          system_error_text(reason).c_str());
        return std::nullopt;
    };
    if (mkdirat(parent.fd(), name.c_str(), 0700) != 0)
        return refuse(errno);
    UniqueFd made(openat(parent.fd(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!made || fstat(made.get(), &status) != 0)
        return refuse(errno);
    // Another one may have its name by now; only an empty one that nobody else may enter will do.
    const bool is_own = status.st_uid == geteuid() && fchmod(made.get(), 0700) == 0;
    if (!is_own || read_names(made.get(), [](const dirent&) { return false; }) != 0)
        return refuse(EEXIST);
    return AreaDirectory(std::move(made), parent.path_of(name));
}
