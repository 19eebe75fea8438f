#include "system/file.h"

#include <fcntl.h>
#include <glib.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "base/handles.h"
#include "base/log.h"
#include "base/paths.h"
#include "platform/libfilesync.h"
#include "system/subprocess.h"
#include "system/user-database.h"

static constexpr size_t kReadStep = 1024;
static constexpr uid_t kKeepOwner = static_cast<uid_t>(-1);
static constexpr gid_t kKeepGroup = static_cast<gid_t>(-1);

std::optional<std::string> read_file(const std::string& path, VelkctlError** error) {
    const FilePtr file(std::fopen(path.c_str(), "re"));
    std::string text;
    bool more = file != nullptr;
    for (size_t step = kReadStep; more; step += kReadStep) {
        const size_t length = text.size();
        try {
            text.resize(length + step);
        } catch (const std::bad_alloc&) {
            SET_GENERAL_ERROR(error, "Failed to allocate %zu bytes when reading from %s", length + step,
                              path.c_str());
            return std::nullopt;
        }
        const size_t got = std::fread(text.data() + length, 1, step, file.get());
        text.resize(length + got);
        more = got == step;
    }
    // A directory opens, and only reading tells that there is nothing to read.
    if (!file || std::ferror(file.get())) {
        SET_GENERAL_ERROR(error, "Failed opening %s: %s", path.c_str(), system_error_text().c_str());
        return std::nullopt;
    }
    return text;
}

static bool replace_file(const std::string& path, const char* data, size_t length, int mode,
                         VelkctlError** error) {
    GErrorSlot reason;
    if (filesync_set_file_contents_with_sync_mode(path.c_str(), data, length, FILESYNC_FULL, mode,
                                                  reason.out()))
        return true;
    SET_GENERAL_ERROR(error, "Failed writing to file: %s: %s", path.c_str(), reason.message());
    return false;
}

bool write_file(const std::string& path, const std::string& text, VelkctlError** error) {
    return replace_file(path, text.data(), text.size(), 0644, error);
}

bool write_executable_file(const std::string& path, const std::string& text, VelkctlError** error) {
    return replace_file(path, text.data(), text.size(), 0755, error);
}

bool write_file_len(const std::string& path, const char* data, size_t length, VelkctlError** error) {
    return replace_file(path, data, length, 0644, error);
}

bool append_to_file(const std::string& path, const std::string& text, VelkctlError** error) {
    const FilePtr file(std::fopen(path.c_str(), "r+e"));
    if (!file) {
        SET_GENERAL_ERROR(error, "Failed opening %s: %s", path.c_str(), system_error_text().c_str());
        return false;
    }
    if (std::fseek(file.get(), 0, SEEK_END) == 0)
        std::fwrite(text.data(), 1, text.size(), file.get());
    return true;
}

bool flush_path(const std::string& path, VelkctlError** error) {
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd && fsync(fd.get()) == 0)
        return true;
    SET_GENERAL_ERROR(error, "Failed flushing %s: %s", path.c_str(), system_error_text().c_str());
    return false;
}

bool exchange_names(const std::string& one, const std::string& other) {
    return renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) == 0;
}

bool flush_and_rename(const std::string& from, const std::string& to, VelkctlError** error) {
    if (!flush_path(from, error))
        return false;
    if (std::rename(from.c_str(), to.c_str()) == 0)
        return true;
    SET_GENERAL_ERROR(error, "Failed renaming %s to %s: %s", from.c_str(), to.c_str(),
                      system_error_text().c_str());
    return false;
}

bool flush_and_rename_if_present(const std::string& from, const std::string& to, VelkctlError** error) {
    return !is_directory_or_regular_file(from) || flush_and_rename(from, to, error);
}

bool copy_path(const std::string& from, const std::string& to, VelkctlError** error) {
    return run_command(error, "cp -fdr '%s' '%s'", {from.c_str(), to.c_str()}) == 0;
}

bool copy_path_if_present(const std::string& from, const std::string& to, VelkctlError** error) {
    return !is_directory_or_regular_file(from) || copy_path(from, to, error);
}

bool set_owner_ids(const std::string& path, uid_t uid, gid_t gid, VelkctlError** error) {
    if (lchown(path.c_str(), uid, gid) == 0)
        return true;
    SET_GENERAL_ERROR(error, "Failed setting ownership of %s: %s", path.c_str(), system_error_text().c_str());
    return false;
}

bool set_owner(const std::string& path, const std::optional<std::string>& user, gid_t gid,
               VelkctlError** error) {
    const uid_t uid = user ? find_user_id(*user, error) : kKeepOwner;
    if (user && uid == kKeepOwner)
        return false;
    return set_owner_ids(path, uid, gid, error);
}

bool set_owner_names(const std::string& path, const std::string& user,
                     const std::optional<std::string>& group, VelkctlError** error) {
    const gid_t gid = group ? find_group_id(*group, error) : kKeepGroup;
    if (group && gid == kKeepGroup)
        return false;
    return set_owner(path, user, gid, error);
}

bool change_owner(const std::string& path, const std::string& user, const std::string& group,
                  VelkctlError** error) {
    const uid_t uid = find_user_id(user, error);
    const gid_t gid = uid == kKeepOwner ? kKeepGroup : find_group_id(group, error);
    if (uid == kKeepOwner || gid == kKeepGroup)
        return false;
    if (lchown(path.c_str(), uid, gid) == 0)
        return true;
    SET_GENERAL_ERROR(error, "Failed changing ownership of %s to %s:%s: %s", path.c_str(), user.c_str(),
                      group.c_str(), system_error_text().c_str());
    return false;
}

bool set_mode(const std::string& path, mode_t mode, VelkctlError** error) {
    if (chmod(path.c_str(), mode) == 0)
        return true;
    SET_GENERAL_ERROR(error, "Failed setting permissions for %s: %s", path.c_str(),
                      system_error_text().c_str());
    return false;
}

bool set_owner_and_mode(const std::string& path, const std::string& user, const std::string& group,
                        mode_t mode, VelkctlError** error) {
    return set_owner_names(path, user, group, error) && set_mode(path, mode, error);
}

bool check_permissions(const std::string& path, mode_t mode, bool exact, VelkctlError** error) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        SET_GENERAL_ERROR(error, "Failed to stat %s: %s", path.c_str(), system_error_text().c_str());
        return false;
    }
    const mode_t bits = status.st_mode & 0777;
    if (exact && bits != mode) {
        SET_GENERAL_ERROR(error, "File %s has improper permissions: 0%jo", path.c_str(),
                          static_cast<uintmax_t>(bits));
        return false;
    }
    if (!exact && (bits & mode) != mode) {
        SET_GENERAL_ERROR(error, "File %s does not have required permissions: 0%jo", path.c_str(),
                          static_cast<uintmax_t>(bits));
        return false;
    }
    return true;
}

bool set_immutable(const std::string& path, bool on, VelkctlError** error) {
    ErrorSlot reason;
    if (run_command(reason, "chattr %si '%s' > /dev/null 2>&1", {on ? "+" : "-", path.c_str()}) == 0)
        return true;
    SET_GENERAL_ERROR(error, "Failed to set mutable attribute of %s to %s", path.c_str(),
                      on ? "immutable" : "mutable");
    return false;
}

bool make_symlink(const std::string& target, const std::string& link, VelkctlError** error) {
    if (symlink(target.c_str(), link.c_str()) == 0)
        return true;
    SET_GENERAL_ERROR(error, "Failed creating symbolic link from %s to %s: error %s", link.c_str(),
                      target.c_str(), system_error_text().c_str());
    return false;
}

bool make_symlink_if_absent(const std::string& target, const std::string& link, VelkctlError** error) {
    struct stat status {};
    return lstat(link.c_str(), &status) == 0 || make_symlink(target, link, error);
}

bool is_symlink_target_equal_to(const std::string& link, const std::string& target) {
    const std::string& target_to_compare_with = target;
    assert(is_absolute_path(target_to_compare_with));
    char buffer[1023];
    const ssize_t length = readlink(link.c_str(), buffer, sizeof buffer);
    return length >= 0 && target_to_compare_with == std::string_view(buffer, static_cast<size_t>(length));
}

bool remove_file(const std::string& path, VelkctlError** error) {
    if (unlink(path.c_str()) == 0 || errno == ENOENT)
        return true;
    SET_GENERAL_ERROR(error, "Failed removing %s: %s", path.c_str(), system_error_text().c_str());
    return false;
}

bool remove_if_symlink(const std::string& path, VelkctlError** error) {
    return !is_symlink(path) || remove_file(path, error);
}

bool remove_empty_dir(const std::string& path, VelkctlError** error) {
    if (!is_directory_no_follow(path) || rmdir(path.c_str()) == 0)
        return true;
    SET_GENERAL_ERROR(error, "Failed to remove non-empty directory %s: %s", path.c_str(),
                      system_error_text().c_str());
    return false;
}

bool remove_link_or_empty_dir(const std::string& path, VelkctlError** error) {
    return is_symlink(path) ? remove_file(path, error) : remove_empty_dir(path, error);
}

bool remove_immutable(const std::string& path, VelkctlError** error) {
    if (!set_immutable(path, false, error))
        return false;
    if (std::remove(path.c_str()) == 0)
        return true;
    SET_GENERAL_ERROR(error, "Failed to remove %s: %s", path.c_str(), system_error_text().c_str());
    return false;
}

static bool unlink_at(int directory, const std::string& name) {
    if (unlinkat(directory, name.c_str(), 0) == 0)
        return true;
    const bool is_directory = errno == EISDIR;
    return (is_directory && unlinkat(directory, name.c_str(), AT_REMOVEDIR) == 0) || errno == ENOENT;
}

bool clear_attributes(int fd) {
    constexpr int forbidding = FS_IMMUTABLE_FL | FS_APPEND_FL;
    int flags = 0;
    if (ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0 || (flags & forbidding) == 0)
        return false;
    flags &= ~forbidding;
    return ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
}

/** Clear the attributes of a file or directory; anything else is not even opened, since that may do
 * something. */
static void clear_attributes_at(int directory, const std::string& name) {
    const UniqueFd found(openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!found || fstat(found.get(), &status) != 0 || !(S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)))
        return;
    const std::string same = std::string(paths::kOwnDescriptors) + "/" + std::to_string(found.get());
    const UniqueFd opened(open(same.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (opened)
        (void)clear_attributes(opened.get());
}

bool remove_at(int directory, const std::string& name) {
    if (unlink_at(directory, name))
        return true;
    if (errno != EPERM)
        return false;
    clear_attributes_at(directory, name);
    return unlink_at(directory, name);
}

std::string path_of_descriptor(int fd) {
    const std::string link = std::string(paths::kOwnDescriptors) + "/" + std::to_string(fd);
    const GStringPtr path(g_file_read_link(link.c_str(), nullptr));
    return path ? path.get() : "?";
}

static bool fail_to_create(const std::string& path, VelkctlError** error) {
    SET_GENERAL_ERROR(error, "Could not create directory %s: %s", path.c_str(), system_error_text().c_str());
    return false;
}

bool make_dir(const std::string& path, mode_t mode, VelkctlError** error) {
    return mkdir(path.c_str(), mode) == 0 || errno == EEXIST || fail_to_create(path, error);
}

static bool make_dirs_mode(const std::string& path, int mode, VelkctlError** error) {
    return g_mkdir_with_parents(path.c_str(), mode) == 0 || fail_to_create(path, error);
}

bool make_dirs(const std::string& path, VelkctlError** error) { return make_dirs_mode(path, 0755, error); }

bool make_dirs_group(const std::string& path, VelkctlError** error) {
    return make_dirs_mode(path, 0775, error);
}

bool make_dirs_owned(const std::string& path, uid_t uid, gid_t gid, VelkctlError** error) {
    return make_dirs_mode(path, 0751, error) && set_owner_ids(path, uid, gid, error);
}

bool make_reserved_dir(const std::string& path, mode_t mode, VelkctlError** error) {
    if (is_symlink(path)) {
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_PACKAGE,
                          "Attempt to use reserved directory '%s' as a symlink", path.c_str());
        return false;
    }
    return make_dir(path, mode, error);
}

bool make_reserved_dir_owned(const std::string& path, uid_t uid, gid_t gid, VelkctlError** error) {
    return make_reserved_dir(path, 0755, error) && set_owner_ids(path, uid, gid, error);
}

bool create_dir_part_of_path(const std::string& path, mode_t mode, std::string* directory,
                             VelkctlError** error) {
    char path_tmp[PATH_MAX];
    const size_t result = path.size();
    assert(result < sizeof(path_tmp));
    const std::string part = dir_name(path).value_or("");
    if (!part.empty() && !make_dirs_mode(part, static_cast<int>(mode), error))
        return false;
    *directory = part;
    return true;
}

std::string current_dir(VelkctlError** error) {
    const std::unique_ptr<char, ReleaseWith<std::free>> path(getcwd(nullptr, 0));
    if (path)
        return path.get();
    SET_GENERAL_ERROR(error, "Failed to get working directory: %s", system_error_text().c_str());
    return {};
}

bool change_dir(const std::string& path, VelkctlError** error) {
    if (chdir(path.c_str()) == 0)
        return true;
    SET_GENERAL_ERROR(error, "Failed changing directory to %s: %s", path.c_str(),
                      system_error_text().c_str());
    return false;
}

WorkingDirectory::~WorkingDirectory() {
    ErrorSlot failure;
    if (!leave(failure))
        warn_and_clear_error(failure, nullptr);
}

bool WorkingDirectory::remember(VelkctlError** error) {
    former_ = UniqueFd(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!former_)
        SET_GENERAL_ERROR(error, "Failed to get working directory: %s", system_error_text().c_str());
    return static_cast<bool>(former_);
}

bool WorkingDirectory::enter(const std::string& path, VelkctlError** error) {
    assert(former_);
    entered_ = change_dir(path, error);
    return entered_;
}

bool WorkingDirectory::leave(VelkctlError** error) {
    if (!entered_ || fchdir(former_.get()) == 0) {
        entered_ = false;
        return true;
    }
    const std::string former = std::string(paths::kOwnDescriptors) + "/" + std::to_string(former_.get());
    entered_ = false;
    SET_GENERAL_ERROR(error, "Failed changing directory to %s: %s", former.c_str(),
                      system_error_text().c_str());
    return false;
}

bool path_exists(const std::string& path, VelkctlError** error) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0)
        return true;
    if (errno != ENOENT)
        SET_GENERAL_ERROR(error, "Failed to check existence of %s: %s", path.c_str(),
                          system_error_text().c_str());
    return false;
}

bool require_path(const std::string& path, VelkctlError** error) {
    ErrorSlot reason;
    if (path_exists(path, reason))
        return true;
    if (reason.is_set())
        reason.move_to(error);
    else
        SET_GENERAL_ERROR(error, "Path not found: %s", path.c_str());
    return false;
}

static mode_t kind_of(const std::string& path, int (*status_of)(const char*, struct stat*)) {
    struct stat status {};
    return status_of(path.c_str(), &status) == 0 ? status.st_mode & S_IFMT : 0;
}

bool is_directory(const std::string& path) { return kind_of(path, stat) == S_IFDIR; }
bool is_directory_no_follow(const std::string& path) { return kind_of(path, lstat) == S_IFDIR; }
bool is_filled_directory(const std::string& path) {
    const DirectoryPtr directory(opendir(path.c_str()));
    int entries = 0;  // two of them are the directory itself and the one above
    while (directory && entries <= 2 && readdir(directory.get()))
        entries++;
    return entries > 2;
}
bool is_regular_file(const std::string& path) { return kind_of(path, stat) == S_IFREG; }
bool is_regular_file_no_follow(const std::string& path) { return kind_of(path, lstat) == S_IFREG; }
bool is_directory_or_regular_file(const std::string& path) {
    return is_directory(path) || is_regular_file(path);
}
bool is_symlink(const std::string& path) { return kind_of(path, lstat) == S_IFLNK; }

std::optional<std::string> dir_name(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::nullopt : std::optional(path.substr(0, slash));
}

std::string base_name(const std::string& path) { return path.substr(path.rfind('/') + 1); }

bool is_absolute_path(std::string_view path) { return path.starts_with('/'); }

std::optional<std::string> canonical_path(const std::string& path, VelkctlError** error) {
    const std::unique_ptr<char, ReleaseWith<std::free>> resolved(realpath(path.c_str(), nullptr));
    if (resolved)
        return std::string(resolved.get());
    velkctl_error_set(error, VELKCTL_ERROR_GENERAL, "Path is not a valid canonicalizable path: %s",
                      path.c_str());
    return std::nullopt;
}

/** Whether `path` is `directory` or lies below it, by their texts. */
static bool is_or_lies_below(const std::string& path, const std::string& directory) {
    const std::string prefix = directory.ends_with('/') ? directory : directory + "/";
    return path == directory || path.starts_with(prefix);
}

std::optional<std::string> resolve_in_dir(const std::string& directory, const std::string& path) {
    assert(is_absolute_path(directory));
    const char* relative = path.starts_with('/') ? path.c_str() + 1 : path.c_str();
    const GStringPtr base(g_canonicalize_filename(directory.c_str(), nullptr));
    const GStringPtr resolved(g_canonicalize_filename(relative, base.get()));
    return is_or_lies_below(resolved.get(), base.get()) ? std::optional<std::string>(resolved.get())
                                                        : std::nullopt;
}

static bool refuse_outside(const std::string& path, const std::string& app_directory, VelkctlError** error) {
    velkctl_error_set(error, VELKCTL_ERROR_INVALID_PACKAGE, "Path %s is outside of application directory %s",
                      path.c_str(), app_directory.c_str());
    return false;
}

bool check_path_in_app_dir(const std::string& path, const std::string& app_directory, VelkctlError** error) {
    std::string ancestor = path;
    ErrorSlot existence;
    while (!path_exists(ancestor, existence)) {
        if (existence.is_set()) {
            existence.move_to(error);
            return false;
        }
        // A link to nothing leads to wherever its target is made later.
        if (is_symlink(ancestor))
            return refuse_outside(path, app_directory, error);
        const std::optional<std::string> parent = dir_name(ancestor);
        if (!parent)
            return false;
        ancestor = *parent;
    }
    const std::optional<std::string> resolved = canonical_path(ancestor, error);
    if (!resolved)
        return false;
    // The rest does not exist, so dots in it cannot be resolved; they could only lead out.
    const std::string rest = path.substr(ancestor.size()) + "/";
    // The application directory may itself be the store's own link to where the application is kept.
    ErrorSlot not_there;
    const std::string base = canonical_path(app_directory, not_there).value_or(app_directory);
    const std::string prefix = base == "/" ? "/" : base + "/";
    const std::string whole = *resolved + rest;
    const bool is_inside =
        rest.find("/../") == std::string::npos && whole.starts_with(prefix) && whole != prefix;
    return is_inside || refuse_outside(path, app_directory, error);
}
