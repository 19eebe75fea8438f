#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "base/handles.h"
#include "base/velkctl-error.h"

/*
 * File operations. Unless a comment says otherwise a failure is code 10, the message names the operation, the
 * path and the system's text, and the file system is left as it was at the failing step.
 */

// --- Contents ---

/**
 * The whole file. "Failed opening %s: %s", also for what opens but cannot be read, such as a directory;
 * "Failed to allocate %zu bytes when reading from %s".
 */
[[nodiscard]] std::optional<std::string> read_file(const std::string& path, VelkctlError** error);

/**
 * Replace the file at `path`, so that a reader sees the old file or the new one and never a part of it, also
 * after a power cut. Mode 0644, exact whatever the umask; a link at the path is replaced, not followed.
 * "Failed writing to file: %s: %s"; the old file is then untouched.
 */
[[nodiscard]] bool write_file(const std::string& path, const std::string& text, VelkctlError** error);
/** The same with mode 0755. */
[[nodiscard]] bool write_executable_file(const std::string& path, const std::string& text,
                                         VelkctlError** error);
/** The same as write_file for a counted buffer. */
[[nodiscard]] bool write_file_len(const std::string& path, const char* data, size_t length,
                                  VelkctlError** error);

/** Write at the end of an existing file; errors of the writing itself are ignored. "Failed opening %s: %s".
 */
[[nodiscard]] bool append_to_file(const std::string& path, const std::string& text, VelkctlError** error);

/** Press a file or directory to the disk. "Failed flushing %s: %s". */
[[nodiscard]] bool flush_path(const std::string& path, VelkctlError** error);
/** Let two names take each other's place in one step; false where that cannot be done. */
[[nodiscard]] bool exchange_names(const std::string& one, const std::string& other);
/** Flush, then rename. "Failed renaming %s to %s: %s". */
[[nodiscard]] bool flush_and_rename(const std::string& from, const std::string& to, VelkctlError** error);
/** The same when `from` is a directory or a regular file; otherwise nothing, successfully. */
[[nodiscard]] bool flush_and_rename_if_present(const std::string& from, const std::string& to,
                                               VelkctlError** error);

/** Copy recursively, links as links, with cp. */
[[nodiscard]] bool copy_path(const std::string& from, const std::string& to, VelkctlError** error);
/** The same when `from` is a directory or a regular file; otherwise nothing, successfully. */
[[nodiscard]] bool copy_path_if_present(const std::string& from, const std::string& to, VelkctlError** error);

// --- Owner and mode. Links are never followed by the owner operations. ---

/** No user keeps the owner. "Failed setting ownership of %s: %s". */
[[nodiscard]] bool set_owner(const std::string& path, const std::optional<std::string>& user, gid_t gid,
                             VelkctlError** error);
/** No group keeps the group. */
[[nodiscard]] bool set_owner_names(const std::string& path, const std::string& user,
                                   const std::optional<std::string>& group, VelkctlError** error);
[[nodiscard]] bool set_owner_ids(const std::string& path, uid_t uid, gid_t gid, VelkctlError** error);
/** By names. "Failed changing ownership of %s to %s:%s: %s". */
[[nodiscard]] bool change_owner(const std::string& path, const std::string& user, const std::string& group,
                                VelkctlError** error);
/** "Failed setting permissions for %s: %s". */
[[nodiscard]] bool set_mode(const std::string& path, mode_t mode, VelkctlError** error);
/** Owner, then mode. */
[[nodiscard]] bool set_owner_and_mode(const std::string& path, const std::string& user,
                                      const std::string& group, mode_t mode, VelkctlError** error);
/**
 * Check the low nine permission bits: with `exact` they must equal `mode` ("File %s has improper permissions:
 * 0%jo"), else all bits of `mode` must be there ("File %s does not have required permissions: 0%jo").
 */
[[nodiscard]] bool check_permissions(const std::string& path, mode_t mode, bool exact, VelkctlError** error);
/** Set or clear the immutable attribute. "Failed to set mutable attribute of %s to %s" (immutable or
 * mutable). */
[[nodiscard]] bool set_immutable(const std::string& path, bool on, VelkctlError** error);

// --- Links, removal ---

/** An existing name fails too. "Failed creating symbolic link from %s to %s: error %s" with link and target.
 */
[[nodiscard]] bool make_symlink(const std::string& target, const std::string& link, VelkctlError** error);
/** An existing name counts as success. */
[[nodiscard]] bool make_symlink_if_absent(const std::string& target, const std::string& link,
                                          VelkctlError** error);
/** Whether the link holds exactly `target`, which must be absolute (asserted). An unreadable link does not.
 */
[[nodiscard]] bool is_symlink_target_equal_to(const std::string& link, const std::string& target);
/** Unlink; an absent file counts as success. "Failed removing %s: %s". */
[[nodiscard]] bool remove_file(const std::string& path, VelkctlError** error);
/** Remove the path only when it is a link. */
[[nodiscard]] bool remove_if_symlink(const std::string& path, VelkctlError** error);
/** Remove an empty directory; what is absent or no directory is left, successfully. */
[[nodiscard]] bool remove_empty_dir(const std::string& path, VelkctlError** error);
/** Remove a link, or else an empty directory. */
[[nodiscard]] bool remove_link_or_empty_dir(const std::string& path, VelkctlError** error);
/**
 * Remove the entry `name` of an open directory, whatever it is; an absent one counts as success. Where its
 * own attribute forbids that, it is cleared on the very file or directory that was found, no link followed.
 * errno tells of a failure.
 */
[[nodiscard]] bool remove_at(int directory, const std::string& name);
/** Clear the attributes that forbid changes of an open file or directory; false when there was none. */
[[nodiscard]] bool clear_attributes(int fd);
/** The path that an open file or directory has at this moment, or "?". For messages. */
[[nodiscard]] std::string path_of_descriptor(int fd);
/** Clear the immutable attribute, then remove. "Failed to remove %s: %s". */
[[nodiscard]] bool remove_immutable(const std::string& path, VelkctlError** error);

// --- Directories. The modes are subject to the umask; an existing name counts as success. ---

/** "Could not create directory %s: %s", here and for the variants. */
[[nodiscard]] bool make_dir(const std::string& path, mode_t mode, VelkctlError** error);
/** With parents, mode 0755. */
[[nodiscard]] bool make_dirs(const std::string& path, VelkctlError** error);
/** With parents, mode 0775. */
[[nodiscard]] bool make_dirs_group(const std::string& path, VelkctlError** error);
/** With parents, mode 0751, then the owner. */
[[nodiscard]] bool make_dirs_owned(const std::string& path, uid_t uid, gid_t gid, VelkctlError** error);
/**
 * Make a directory that the system owns inside an application's area. A link at the path is refused, so that
 * a package cannot lead the system's writing elsewhere: code 1 "Attempt to use reserved directory '%s' as a
 * symlink".
 */
[[nodiscard]] bool make_reserved_dir(const std::string& path, mode_t mode, VelkctlError** error);
/** The same with mode 0755, then the owner. */
[[nodiscard]] bool make_reserved_dir_owned(const std::string& path, uid_t uid, gid_t gid,
                                           VelkctlError** error);
/**
 * Make the directory part of a file path, with parents and the given mode, and hand it out. The path must be
 * shorter than PATH_MAX (asserted).
 */
[[nodiscard]] bool create_dir_part_of_path(const std::string& path, mode_t mode, std::string* directory,
                                           VelkctlError** error);
/** The working directory, empty on failure. "Failed to get working directory: %s". */
[[nodiscard]] std::string current_dir(VelkctlError** error);
/** "Failed changing directory to %s: %s". */
[[nodiscard]] bool change_dir(const std::string& path, VelkctlError** error);

/**
 * Enters a directory and is back in the former one at the end of its scope at the latest; also when the
 * former one was moved or deleted, since it is held open and not remembered by its path.
 */
class WorkingDirectory {
  public:
    WorkingDirectory() = default;
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;
    ~WorkingDirectory();

    /** Hold the present directory open. "Failed to get working directory: %s". */
    [[nodiscard]] bool remember(VelkctlError** error);
    /** Go to `path`, once the present directory is remembered (asserted). "Failed changing directory to %s:
     * %s". */
    [[nodiscard]] bool enter(const std::string& path, VelkctlError** error);
    /** Go back, if one was entered. "Failed changing directory to %s: %s". */
    [[nodiscard]] bool leave(VelkctlError** error);

  private:
    UniqueFd former_;
    bool entered_ = false;
};

// --- Questions ---

/** Links are followed. False with an error when it cannot be told: "Failed to check existence of %s: %s". */
[[nodiscard]] bool path_exists(const std::string& path, VelkctlError** error);
/** The same, and an absent path is the error "Path not found: %s". */
[[nodiscard]] bool require_path(const std::string& path, VelkctlError** error);
[[nodiscard]] bool is_directory(const std::string& path);
[[nodiscard]] bool is_directory_no_follow(const std::string& path);
/** Whether it is a directory with something in it. */
[[nodiscard]] bool is_filled_directory(const std::string& path);
[[nodiscard]] bool is_regular_file(const std::string& path);
[[nodiscard]] bool is_regular_file_no_follow(const std::string& path);
[[nodiscard]] bool is_directory_or_regular_file(const std::string& path);
[[nodiscard]] bool is_symlink(const std::string& path);

// --- Path texts ---

/** The path up to its last "/", without it; nothing when there is none. */
[[nodiscard]] std::optional<std::string> dir_name(const std::string& path);
/** The part behind the last "/". */
[[nodiscard]] std::string base_name(const std::string& path);
[[nodiscard]] bool is_absolute_path(std::string_view path);
/**
 * The canonical absolute form of an existing path, links resolved; nothing on failure, code 10
 * "Path is not a valid canonicalizable path: %s".
 */
[[nodiscard]] std::optional<std::string> canonical_path(const std::string& path, VelkctlError** error);
/**
 * Take `path` as relative to `directory` (one leading "/" is dropped) and resolve dots in it, without looking
 * at the file system. Nothing when the result is neither the directory nor below it; the caller reports the
 * refusal. The directory must be absolute (asserted).
 */
[[nodiscard]] std::optional<std::string> resolve_in_dir(const std::string& directory,
                                                        const std::string& path);
/**
 * Check that `path`, with the links of its existing part resolved, lies below the application directory: code
 * 1 "Path %s is outside of application directory %s", also for a link to nothing on the way. The path itself
 * need not exist. "Failed to check existence of %s: %s"; false without an error when no part of the path
 * exists.
 */
[[nodiscard]] bool check_path_in_app_dir(const std::string& path, const std::string& app_directory,
                                         VelkctlError** error);
