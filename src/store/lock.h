#pragma once

#include <string>

#include "base/velkctl-error.h"
#include "manifest/names.h"

/*
 * The lock that keeps a second state-changing command away. It is a file whose content tells `velkctl clean`
 * what a command that died was changing. Within one process it nests.
 */

/** Lock content of a command that leaves nothing to undo when it dies. */
inline constexpr const char* NO_CLEAN_ON_FAILURE = NO_APP_NAME;

/**
 * Take the lock, or take it one level deeper when this process holds it already.
 *
 * @param appname  what the file names; when the lock is held already the outermost name stays
 * @param error    code 12 "Another instance is already running, lock file exists: %s"; code 10 when the name
 * is null or empty, when the lock cannot be made, or when the command is asked to end. Nothing is taken and
 * no file is left then.
 */
[[nodiscard]] bool lockfile_create(const char* appname, VelkctlError** error);

/** Give one level back; the last one deletes the file and syncs. Without a level it does nothing. */
void lockfile_release();

/**
 * Delete the lock file and stale temporary files of it, and forget all levels.
 *
 * @param error  code 10 "Failed removing %s: %s"; the levels are then kept
 */
[[nodiscard]] bool lockfile_remove(VelkctlError** error);

/**
 * The content of the lock file, into `content`. False without an error when there is no lock file.
 *
 * @param error  code 10 when there is one that cannot be read, or when `content` is null; `content` is then
 * untouched
 */
[[nodiscard]] bool lockfile_read(std::string* content, VelkctlError** error);

/** Adopt the lock file of a process that died, as the first level. No level may be held (asserted). */
void lockfile_take_over();

/** Holds levels of the lock and gives back, at the end of its scope, exactly those that it took. */
class OperationLock {
  public:
    OperationLock() = default;
    OperationLock(const OperationLock&) = delete;
    OperationLock& operator=(const OperationLock&) = delete;
    ~OperationLock() { release(); }

    /** Take one level, as lockfile_create. */
    [[nodiscard]] bool take(const std::string& app, VelkctlError** error);
    /** Give back what was taken. */
    void release();

  private:
    int levels_ = 0;
};

/** Whether setup was done for the application: its service unit file, and not another application's unit of
 * that name, exists as a regular file. */
[[nodiscard]] bool is_set_up(const std::string& app);

/**
 * What backup and restore check first: the name, then, with the lock taken into `lock`, that the application
 * is not running and that it is in the store. `lock` keeps what it took also when a later check fails.
 *
 * @param command  the command's word, for the message
 * @param error    code 10 for the name, the lock or a running application; 12 for a lock held elsewhere; 4
 */
[[nodiscard]] bool lock_app_for_operation(const std::string& app, const char* command, OperationLock* lock,
                                          VelkctlError** error);

/**
 * What removal and setup check first: the name, then, with the lock taken into `lock`, that the application
 * is in the store and not set up. `lock` keeps what it took also when a later check fails.
 *
 * @param command  the command's word, for the message
 * @param error    required (asserted); code 10 for the name, the lock or an application that is set up; 12; 4
 */
[[nodiscard]] bool lock_app_not_set_up(const std::string& app, const char* command, OperationLock* lock,
                                       VelkctlError** error);
