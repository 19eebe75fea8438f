#include "system/area.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/paths.h"
#include "platform/libfilesync.h"
#include "system/file.h"
#include "system/tree.h"

namespace {

// Not by way of "self", which is another process to the programs that are told of the path.
std::string descriptor_path(int fd) {
    return std::string(paths::kProcesses) + "/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd);
}

bool fail(VelkctlError** error, const char* operation, const std::string& path, int number) {
    SET_GENERAL_ERROR(error, "%s %s: %s", operation, path.c_str(), system_error_text(number).c_str());
    return false;
}

std::string with_known_paths(std::string text, std::initializer_list<KnownPath> paths) {
    for (const KnownPath& path : paths)
        for (size_t at = 0; (at = text.find(path.access, at)) != std::string::npos; at += path.known.size())
            text.replace(at, path.access.size(), path.known);
    return text;
}

UniqueFd open_inside(const AreaDirectory& directory, const std::string& relative, uint64_t flags,
                     uint64_t resolve) {
    open_how how{};
    how.flags = flags | O_CLOEXEC;
    how.resolve = resolve;
    return UniqueFd(
        static_cast<int>(syscall(SYS_openat2, directory.fd(), relative.c_str(), &how, sizeof how)));
}

}  // namespace

mode_t area_entry_kind(const AreaDirectory& directory, const std::string& name) {
    struct stat status {};
    return fstatat(directory.fd(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 ? status.st_mode & S_IFMT
                                                                                    : 0;
}

std::string AreaDirectory::access_path(const std::string& name) const {
    return descriptor_path(fd()) + "/" + name;
}

std::optional<AreaDirectory> open_area(const std::string& path, VelkctlError** error) {
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd)
        return AreaDirectory(std::move(fd), path);
    fail(error, "Failed opening", path, errno);
    return std::nullopt;
}

AreaDirectory area_without_place(UniqueFd fd) {
    std::string path = descriptor_path(fd.get());
    return {std::move(fd), std::move(path)};
}

std::optional<AreaDirectory> open_area_directory(const AreaDirectory& parent, const std::string& name,
                                                 VelkctlError** error) {
    UniqueFd fd(openat(parent.fd(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (fd)
        return AreaDirectory(std::move(fd), parent.path_of(name));
    fail(error, "Failed opening", parent.path_of(name), errno);
    return std::nullopt;
}

std::optional<AreaDirectory> make_area_directory(const AreaDirectory& parent, const std::string& name,
                                                 VelkctlError** error) {
    const std::string path = parent.path_of(name);
    if (area_entry_kind(parent, name) == S_IFLNK) {
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_PACKAGE,
                          "Attempt to use reserved directory '%s' as a symlink", path.c_str());
        return std::nullopt;
    }
    if (mkdirat(parent.fd(), name.c_str(), 0755) != 0 && errno != EEXIST) {
        fail(error, "Could not create directory", path, errno);
        return std::nullopt;
    }
    return open_area_directory(parent, name, error);
}

bool write_area_file(const AreaDirectory& directory, const std::string& name, const std::string& text,
                     VelkctlError** error) {
    GErrorSlot reason;
    if (filesync_set_file_contents_with_sync_mode(directory.access_path(name).c_str(), text.data(),
                                                  text.size(), FILESYNC_FULL, 0644, reason.out()))
        return true;
    const std::string known =
        with_known_paths(reason.message(), {{directory.access_path(""), directory.path_of("")}});
    SET_GENERAL_ERROR(error, "Failed writing to file: %s: %s", directory.path_of(name).c_str(),
                      known.c_str());
    return false;
}

bool remove_area_file(const AreaDirectory& directory, const std::string& name, VelkctlError** error) {
    if (unlinkat(directory.fd(), name.c_str(), 0) == 0 || errno == ENOENT)
        return true;
    return fail(error, "Failed removing", directory.path_of(name), errno);
}

bool clear_area_entry(const AreaDirectory& directory, const std::string& name, VelkctlError** error) {
    if (area_entry_kind(directory, name) != S_IFDIR)
        return remove_area_file(directory, name, error);
    return remove_recursive_at(directory.fd(), name, directory.path_of(name), error);
}

bool flush_and_rename_area_file(const AreaDirectory& directory, const std::string& from,
                                const std::string& to, VelkctlError** error) {
    const std::optional<AreaFile> file = find_area_file(directory, from);
    if (!file)
        return true;
    if (!file->flush(error))
        return false;
    if (renameat(directory.fd(), from.c_str(), directory.fd(), to.c_str()) == 0)
        return true;
    SET_GENERAL_ERROR(error, "Failed renaming %s to %s: %s", directory.path_of(from).c_str(),
                      directory.path_of(to).c_str(), system_error_text().c_str());
    return false;
}

bool flush_area_directory(const AreaDirectory& directory, VelkctlError** error) {
    return fsync(directory.fd()) == 0 || fail(error, "Failed flushing", directory.path(), errno);
}

bool set_area_owner(const AreaDirectory& directory, const std::string& name, uid_t uid, gid_t gid,
                    VelkctlError** error) {
    return fchownat(directory.fd(), name.c_str(), uid, gid, AT_SYMLINK_NOFOLLOW) == 0 ||
           fail(error, "Failed setting ownership of", directory.path_of(name), errno);
}

bool set_open_owner(int fd, const std::string& path, uid_t uid, gid_t gid, VelkctlError** error) {
    return fchownat(fd, "", uid, gid, AT_EMPTY_PATH) == 0 ||
           fail(error, "Failed setting ownership of", path, errno);
}

bool set_open_mode(int fd, const std::string& path, mode_t mode, VelkctlError** error) {
    // A descriptor that only names a file has no chmod of its own: it goes by its entry in the process's
    // table.
    return chmod(descriptor_path(fd).c_str(), mode) == 0 ||
           fail(error, "Failed setting permissions for", path, errno);
}

std::optional<struct stat> AreaFile::status() const {
    struct stat status {};
    return fstat(fd_.get(), &status) == 0 ? std::optional(status) : std::nullopt;
}

std::string AreaFile::access_path() const { return descriptor_path(fd_.get()); }

bool AreaFile::flush(VelkctlError** error) const {
    return fsync(fd_.get()) == 0 || fail(error, "Failed flushing", path_, errno);
}

bool AreaFile::set_owner(uid_t uid, gid_t gid, VelkctlError** error) const {
    return set_open_owner(fd_.get(), path_, uid, gid, error);
}

bool AreaFile::set_mode(mode_t mode, VelkctlError** error) const {
    const std::optional<struct stat> found = status();
    if (found && !S_ISREG(found->st_mode))
        return fail(error, "Failed setting permissions for", path_,
                    S_ISDIR(found->st_mode) ? EISDIR : EINVAL);
    return set_open_mode(fd_.get(), path_, mode, error);
}

std::optional<AreaFile> open_area_file(const AreaDirectory& directory, const std::string& relative,
                                       const char* operation, VelkctlError** error) {
    const std::string path = directory.path_of(relative);
    UniqueFd fd = open_inside(directory, relative, O_PATH, RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS);
    if (fd)
        return AreaFile(std::move(fd), path);
    if (errno == EXDEV)
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_PACKAGE,
                          "Path %s is outside of application directory %s", path.c_str(),
                          directory.path().c_str());
    else
        fail(error, operation, path, errno);
    return std::nullopt;
}

std::optional<AreaFile> open_area_file_itself(const AreaDirectory& directory, const std::string& relative,
                                              const char* operation, VelkctlError** error) {
    if (!open_area_file(directory, relative, operation, error))  // which tells what leads out
        return std::nullopt;
    UniqueFd fd = open_inside(directory, relative, O_PATH, RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS);
    if (fd)
        return AreaFile(std::move(fd), directory.path_of(relative));
    fail(error, operation, directory.path_of(relative), errno);
    return std::nullopt;
}

std::optional<AreaFile> find_area_file(const AreaDirectory& directory, const std::string& name) {
    // Whatever lies there is not waited for.
    UniqueFd fd(openat(directory.fd(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!fd || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return std::nullopt;
    return AreaFile(std::move(fd), directory.path_of(name));
}

std::optional<std::string> read_area_file(const AreaDirectory& directory, const std::string& name,
                                          size_t longest) {
    const std::optional<AreaFile> file = find_area_file(directory, name);
    std::string text(file ? longest + 1 : 0, '\0');  // more than may be there, so that more is noticed
    size_t length = 0;
    ssize_t got = file ? 1 : 0;
    while (got > 0 && length < text.size()) {
        got = pread(file->fd(), text.data() + length, text.size() - length, static_cast<off_t>(length));
        length += got > 0 ? static_cast<size_t>(got) : 0;
    }
    if (!file || got < 0 || length > longest)
        return std::nullopt;
    text.resize(length);
    return text;
}

std::optional<AreaFile> make_area_file(const AreaDirectory& directory, const std::string& name,
                                       VelkctlError** error) {
    const std::string path = directory.path_of(name);
    UniqueFd fd(openat(directory.fd(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (fd)
        return AreaFile(std::move(fd), path);
    fail(error, "Failed creating file", path, errno);
    return std::nullopt;
}

bool create_area_file(const AreaDirectory& directory, const std::string& relative, mode_t mode, uid_t uid,
                      gid_t gid, VelkctlError** error) {
    const std::string path = directory.path_of(relative);
    const std::string name = base_name(relative);
    const UniqueFd parent = open_inside(directory, dir_name(relative).value_or("."), O_PATH | O_DIRECTORY,
                                        RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS);
    if (!parent)
        return fail(error, "Failed creating file", path, errno);
    const UniqueFd file(
        openat(parent.get(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (!file && errno != EEXIST)
        return fail(error, "Failed creating file", path, errno);
    if (file && fchmod(file.get(), mode) != 0)
        return fail(error, "Failed creating file", path, errno);
    return fchownat(parent.get(), name.c_str(), uid, gid, AT_SYMLINK_NOFOLLOW) == 0 ||
           fail(error, "Failed setting ownership of file", path, errno);
}

void move_with_known_paths(ErrorSlot& failure, std::initializer_list<KnownPath> paths, VelkctlError** error) {
    velkctl_error_set(error, failure.code(), "%s", with_known_paths(failure.message(), paths).c_str());
}

bool make_area_link_if_absent(const AreaDirectory& directory, const std::string& target,
                              const std::string& name, VelkctlError** error) {
    if (symlinkat(target.c_str(), directory.fd(), name.c_str()) == 0 || errno == EEXIST)
        return true;
    SET_GENERAL_ERROR(error, "Failed creating symbolic link from %s to %s: error %s",
                      directory.path_of(name).c_str(), target.c_str(), system_error_text().c_str());
    return false;
}

bool remove_file_in_application(const std::string& application_directory, const std::string& directory_name,
                                const std::string& name, VelkctlError** error) {
    ErrorSlot not_there;
    const std::optional<AreaDirectory> application = open_area(application_directory, not_there);
    const std::optional<AreaDirectory> directory =
        application ? open_area_directory(*application, directory_name, not_there) : std::nullopt;
    return !directory || remove_area_file(*directory, name, error);
}
