#include "store/lock.h"

#include <fcntl.h>
#include <glib.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdlib>

#include "base/handles.h"
#include "base/interruption.h"
#include "base/log.h"
#include "base/paths.h"
#include "manifest/names.h"
#include "store/velkctl-store.h"
#include "system/file.h"
#include "system/subprocess.h"
#include "system/systemctl.h"

static constexpr const char* kTemporaryEnding = ".tmp";
static constexpr int kTemporaryEndingLength = 4;
static constexpr int kLockDirectoryMode = 0700;

static int lock_counter = 0;

static bool make_lock_directory(VelkctlError** error) {
    const std::string directory = dir_name(paths::kLockFile).value_or("/");
    if (g_mkdir_with_parents(directory.c_str(), kLockDirectoryMode) == 0)
        return true;
    SET_GENERAL_ERROR(error, "Failed creating directory %s: %s", directory.c_str(),
                      system_error_text().c_str());
    return false;
}

static void remove_temporary(const std::string& path) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT)
        log_warning("Could not delete temporary file %s: %s", path.c_str(), system_error_text().c_str());
}

// The content is complete and on the disk before the link gives it the lock's name, so no lock file is ever
// partial; and the link fails when the name exists, whoever was faster.
static bool link_lock_file(const std::string& temporary, int fd, const std::string& content,
                           VelkctlError** error) {
    const ssize_t written = write(fd, content.data(), content.size());
    if (written != static_cast<ssize_t>(content.size())) {
        SET_GENERAL_ERROR(error, "Failed writing to temporary lock file %s: %s", temporary.c_str(),
                          system_error_text().c_str());
        return false;
    }
    sync();
    if (link(temporary.c_str(), paths::kLockFile) == 0) {
        lock_counter++;
        sync();
        return true;
    }
    if (errno == EEXIST)
        velkctl_error_set(error, VELKCTL_ERROR_LOCKED,
                          "Another instance is already running, lock file exists: %s", paths::kLockFile);
    else
        SET_GENERAL_ERROR(error, "Failed creating file %s: %s", paths::kLockFile,
                          system_error_text().c_str());
    return false;
}

bool lockfile_create(const char* appname, VelkctlError** error) {
    if (lock_counter > 0) {
        lock_counter++;
        return true;
    }
    if (!appname || !*appname) {
        velkctl_error_set(error, VELKCTL_ERROR_GENERAL, "%s: Invalid argument: %s is NULL or empty",
                          "lockfile_create", "appname");
        return false;
    }
    // Nothing is changed yet: the last moment at which nothing is to be taken back.
    if (fail_when_interrupted(error) || !ensure_store_root(error) || !make_lock_directory(error))
        return false;
    std::string temporary = std::string(paths::kLockFile) + "_XXXXXX" + kTemporaryEnding;
    const UniqueFd fd(mkostemps(temporary.data(), kTemporaryEndingLength, O_CLOEXEC));
    if (!fd)
        SET_GENERAL_ERROR(error, "Could not create temporary file: %s: %s", temporary.c_str(),
                          system_error_text().c_str());
    const bool taken = fd && link_lock_file(temporary, fd.get(), appname, error);
    remove_temporary(temporary);
    return taken;
}

void lockfile_release() {
    if (lock_counter == 0)
        return;
    lock_counter--;
    if (lock_counter > 0)
        return;
    if (unlink(paths::kLockFile) != 0)
        log_general_error("%sUnlinking lock file failed: %s", LOG_PREAMBLE, system_error_text().c_str());
    sync();
}

bool lockfile_remove(VelkctlError** error) {
    if (!remove_file(paths::kLockFile, error))
        return false;
    run_command(nullptr, "rm -f %s*.tmp > /dev/null 2>&1", {paths::kLockFile});
    sync();
    lock_counter = 0;
    return true;
}

bool lockfile_read(std::string* content, VelkctlError** error) {
    if (!content) {
        set_null_argument_error(error, "lockfile_read", "appname");
        return false;
    }
    ErrorSlot reason;
    std::optional<std::string> text = read_file(paths::kLockFile, reason);
    if (text) {
        *content = std::move(*text);
        return true;
    }
    ErrorSlot existence;
    if (path_exists(paths::kLockFile, existence) || existence.is_set())
        SET_GENERAL_ERROR(error, "Failed reading file: %s: Error: %s", paths::kLockFile, reason.message());
    return false;
}

void lockfile_take_over() {
    assert(lock_counter == 0);
    lock_counter = 1;
}

bool OperationLock::take(const std::string& app, VelkctlError** error) {
    if (!lockfile_create(app.c_str(), error))
        return false;
    levels_++;
    return true;
}

void OperationLock::release() {
    for (; levels_ > 0; levels_--)
        lockfile_release();
}

bool is_set_up(const std::string& app) {
    return is_regular_file(paths::service_unit_path(app)) && !owner_of_polling_service(app);
}

bool lock_app_for_operation(const std::string& app, const char* command, OperationLock* lock,
                            VelkctlError** error) {
    return is_valid_app_name(app, error) && lock->take(app, error) &&
           require_application_stopped(app, command, error) && require_app_present(app, error);
}

bool lock_app_not_set_up(const std::string& app, const char* command, OperationLock* lock,
                         VelkctlError** error) {
    if (!is_valid_app_name(app, error) || !lock->take(app, error) || !require_app_present(app, error))
        return false;
    if (!is_set_up(app))
        return true;
    velkctl_error_set(error, VELKCTL_ERROR_GENERAL,
                      "Application %s is set up. Please run teardown before running 'velkctl %s'.",
                      app.c_str(), command);
    return false;
}
