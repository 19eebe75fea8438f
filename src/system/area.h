#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <initializer_list>
#include <optional>
#include <string>

#include "base/handles.h"
#include "base/velkctl-error.h"

/*
 * Work of root inside an application's area. The application owns that area and may exchange any part of it
 * for a link at any moment, also between a check and the work. So every directory is held open and everything
 * below it is done relative to the open directory, following no link: the worst that an application can do is
 * to fail its own setup.
 */

/** An open directory inside an application's area, with the path under which messages name it. */
class AreaDirectory {
  public:
    AreaDirectory(UniqueFd fd, std::string path) : fd_(std::move(fd)), path_(std::move(path)) {}

    [[nodiscard]] int fd() const { return fd_.get(); }
    [[nodiscard]] const std::string& path() const { return path_; }
    /** The path of an entry, for messages and for what other programs are told. */
    [[nodiscard]] std::string path_of(const std::string& name) const { return path_ + "/" + name; }
    /**
     * A path to an entry that leads through the open directory, for this process and the programs that it
     * runs; valid while the directory is open.
     */
    [[nodiscard]] std::string access_path(const std::string& name) const;

  private:
    UniqueFd fd_;
    std::string path_;
};

/**
 * Open a directory that the system itself placed, such as an application directory; links on the way there
 * are the system's own and are followed.
 *
 * @param error  code 10 "Failed opening %s: %s"
 */
[[nodiscard]] std::optional<AreaDirectory> open_area(const std::string& path, VelkctlError** error);

/** An open directory that is at no place: its path leads through the descriptor. */
[[nodiscard]] AreaDirectory area_without_place(UniqueFd fd);

/** Open the directory `name` inside `parent`; a link is not followed. "Failed opening %s: %s", code 10. */
[[nodiscard]] std::optional<AreaDirectory> open_area_directory(const AreaDirectory& parent,
                                                               const std::string& name, VelkctlError** error);

/**
 * Make the directory `name` with mode 0755 (the umask applies) unless it is there, and open it.
 *
 * @param error  code 1 "Attempt to use reserved directory '%s' as a symlink"; code 10 "Could not create
 * directory %s: %s" or "Failed opening %s: %s"
 */
[[nodiscard]] std::optional<AreaDirectory> make_area_directory(const AreaDirectory& parent,
                                                               const std::string& name, VelkctlError** error);

/** What kind of entry has the name, links not followed: S_IFREG, S_IFLNK, ...; 0 when there is none. */
[[nodiscard]] mode_t area_entry_kind(const AreaDirectory& directory, const std::string& name);

/** Replace the file `name` as write_file does: mode 0644, code 10 "Failed writing to file: %s: %s". */
[[nodiscard]] bool write_area_file(const AreaDirectory& directory, const std::string& name,
                                   const std::string& text, VelkctlError** error);

/** Unlink; an absent file counts as success. "Failed removing %s: %s", code 10. */
[[nodiscard]] bool remove_area_file(const AreaDirectory& directory, const std::string& name,
                                    VelkctlError** error);

/**
 * Remove whatever has the name, a directory with all that is in it; nothing counts as success.
 *
 * @param error  code 10 "Failed removing %s: %s", or that of remove_recursive
 */
[[nodiscard]] bool clear_area_entry(const AreaDirectory& directory, const std::string& name,
                                    VelkctlError** error);

/**
 * Press the file `from` to the disk and rename it; what is no regular file, or not there, is left,
 * successfully. "Failed flushing %s: %s", "Failed renaming %s to %s: %s", code 10.
 */
[[nodiscard]] bool flush_and_rename_area_file(const AreaDirectory& directory, const std::string& from,
                                              const std::string& to, VelkctlError** error);

/** Press the directory itself to the disk. "Failed flushing %s: %s", code 10. */
[[nodiscard]] bool flush_area_directory(const AreaDirectory& directory, VelkctlError** error);

/** The owner of an entry, of the link itself when it is one. "Failed setting ownership of %s: %s", code 10.
 */
[[nodiscard]] bool set_area_owner(const AreaDirectory& directory, const std::string& name, uid_t uid,
                                  gid_t gid, VelkctlError** error);

/** The owner of what is open at `fd`, which may have been opened only for its path; `path` is for messages.
 */
[[nodiscard]] bool set_open_owner(int fd, const std::string& path, uid_t uid, gid_t gid,
                                  VelkctlError** error);
/** The mode, likewise. */
[[nodiscard]] bool set_open_mode(int fd, const std::string& path, mode_t mode, VelkctlError** error);

/** An open file of an area; owner and mode are set through it, so that they reach this file and no other. */
class AreaFile {
  public:
    AreaFile(UniqueFd fd, std::string path) : fd_(std::move(fd)), path_(std::move(path)) {}

    [[nodiscard]] int fd() const { return fd_.get(); }
    [[nodiscard]] std::optional<struct stat> status() const;
    /** The path under which messages name it. */
    [[nodiscard]] const std::string& path() const { return path_; }
    /**
     * A path to this very file, whatever has its name by now, for this process and the programs that it runs.
     */
    [[nodiscard]] std::string access_path() const;
    /** "Failed setting ownership of %s: %s", code 10. */
    [[nodiscard]] bool set_owner(uid_t uid, gid_t gid, VelkctlError** error) const;
    /** "Failed setting permissions for %s: %s", code 10; also for what is no regular file. */
    [[nodiscard]] bool set_mode(mode_t mode, VelkctlError** error) const;
    /** Press it to the disk; not for one that was opened only for its owner and mode. "Failed flushing %s:
     * %s". */
    [[nodiscard]] bool flush(VelkctlError** error) const;

  private:
    UniqueFd fd_;
    std::string path_;
};

/**
 * Open the existing file at `relative` inside the directory for its owner and mode; links are followed as
 * long as they stay inside.
 *
 * @param operation  how a failure begins, such as "Failed setting permissions for", code 10; the path and the
 * system's text follow
 * @param error      a path that leads out is code 1 "Path %s is outside of application directory %s"
 */
[[nodiscard]] std::optional<AreaFile> open_area_file(const AreaDirectory& directory,
                                                     const std::string& relative, const char* operation,
                                                     VelkctlError** error);

/**
 * The same, where no link may lie on the way: one that stays inside fails the operation, one that leads out
 * is code 1 as well.
 */
[[nodiscard]] std::optional<AreaFile> open_area_file_itself(const AreaDirectory& directory,
                                                            const std::string& relative,
                                                            const char* operation, VelkctlError** error);

/** The regular file `name` for reading, or nothing when there is none; a link is none. */
[[nodiscard]] std::optional<AreaFile> find_area_file(const AreaDirectory& directory, const std::string& name);

/** What is in the regular file `name`, or nothing when there is none or it is longer; a link is none. */
[[nodiscard]] std::optional<std::string> read_area_file(const AreaDirectory& directory,
                                                        const std::string& name, size_t longest);

/** Make the file `name`, empty and root's own, to be filled through its access path. "Failed creating file
 * %s: %s", code 10, also when the name exists. */
[[nodiscard]] std::optional<AreaFile> make_area_file(const AreaDirectory& directory, const std::string& name,
                                                     VelkctlError** error);

/**
 * Make an empty file at `relative` inside the directory, which no link may lie on the way to, and give it to
 * the owner. An existing entry is kept and only given away.
 *
 * @param mode   permission bits of a new file, exact whatever the umask
 * @param error  code 10 "Failed creating file %s: %s" or "Failed setting ownership of file %s: %s"
 */
[[nodiscard]] bool create_area_file(const AreaDirectory& directory, const std::string& relative, mode_t mode,
                                    uid_t uid, gid_t gid, VelkctlError** error);

/** A path through an open descriptor, which means nothing to people, and the one by which they know the
 * thing. */
struct KnownPath {
    std::string access;
    std::string known;
};

/** Give a failure up to `error`, with known paths in its message. For what was told of access paths. */
void move_with_known_paths(ErrorSlot& failure, std::initializer_list<KnownPath> paths, VelkctlError** error);

/** Make the link `name`, unless the name exists. "Failed creating symbolic link from %s to %s: error %s",
 * code 10. */
[[nodiscard]] bool make_area_link_if_absent(const AreaDirectory& directory, const std::string& target,
                                            const std::string& name, VelkctlError** error);

/**
 * Remove the file `name` from the directory `directory_name` of an application directory. When one of these
 * is not there or has become a link, there is nothing of ours to remove.
 */
[[nodiscard]] bool remove_file_in_application(const std::string& application_directory,
                                              const std::string& directory_name, const std::string& name,
                                              VelkctlError** error);
