#include "lifecycle/velkctl-clean.h"

#include <vector>

#include "base/interruption.h"
#include "base/log.h"
#include "base/paths.h"
#include "integration/velkctl-teardown.h"
#include "lifecycle/leftovers.h"
#include "lifecycle/velkctl-backup.h"
#include "manifest/names.h"
#include "store/lock.h"
#include "store/velkctl-import.h"
#include "store/velkctl-remove.h"
#include "store/velkctl-store.h"
#include "system/file.h"
#include "system/systemctl.h"
#include "system/tree.h"

namespace {

std::string strip(const std::string& text) {
    const char* blanks = " \t\n\v\f\r";
    const size_t first = text.find_first_not_of(blanks);
    const size_t last = text.find_last_not_of(blanks);
    return first == std::string::npos ? "" : text.substr(first, last - first + 1);
}

/** The name in the lock file, as it stands; nothing without an error when the lock file has gone. */
std::optional<std::string> read_interrupted(VelkctlError** error) {
    std::string content;
    if (!lockfile_read(&content, error))
        return std::nullopt;
    if (content.empty()) {
        SET_GENERAL_ERROR(error, "Lock file is empty: %s", paths::kLockFile);
        return std::nullopt;
    }
    // The content is asked about as it was read: one that was written by hand with a line end is refused
    // here.
    if (!require_application_stopped(content, "clean", error))
        return std::nullopt;
    return strip(content);
}

/** The staging directories of the application: of import and of removal, wherever it may have been about to
 * be. */
std::vector<std::string> staging_directories(const std::string& app) {
    std::vector<std::string> directories = {staging_path(paths::store_root_path(app))};
    ErrorSlot no_name;
    for (const StoreLocation& location : all_locations()) {
        const std::string staging = staging_path(store_path(app, &location));
        if (location.subdir && is_valid_app_name(app, no_name) && is_directory_no_follow(location.path) &&
            is_directory_no_follow(staging))
            directories.push_back(staging);
        no_name.clear();
    }
    return directories;
}

void remove_or_warn(const std::string& directory) {
    ErrorSlot failure;
    if (!remove_recursive(directory, failure))
        warn_and_clear_error(failure, nullptr);
}

/** Removes the staging directories now, and what is left of them once more at the end of its scope. */
class StagingRemoval {
  public:
    explicit StagingRemoval(const std::string& app) : directories_(staging_directories(app)) {
        for (const std::string& directory : directories_) {
            log_info("Removing %s", directory.c_str());
            // When only velkctl was killed, what unpacks goes on until its directory is gone.
            end_work_in(directory);
            remove_or_warn(directory);
        }
    }
    StagingRemoval(const StagingRemoval&) = delete;
    StagingRemoval& operator=(const StagingRemoval&) = delete;
    ~StagingRemoval() {
        for (const std::string& directory : directories_)
            remove_or_warn(directory);
    }

  private:
    std::vector<std::string> directories_;
};

// An import makes the root's link to an application elsewhere last. Without it the application would count as
// absent, and stay. What the dead import did not say it would place, on a card that came from another device,
// is not to go.
void finish_import(const std::string& app) {
    ErrorSlot trouble;
    if (!is_valid_app_name(app, trouble) || app_exists(app.c_str(), trouble))
        return;
    for (const StoreLocation& location : all_locations())
        if (lockfile_has_note(import_note(location)) && is_directory_no_follow(store_path(app, &location)) &&
            !make_symlink(location_link_target(app, &location), paths::store_root_path(app), trouble))
            warn_and_clear_error(trouble, nullptr);
}

// The lock of a backup names the application, which is to go. What its operator wanted was to keep the data.
void finish_backup(const std::string& app) {
    ErrorSlot failure;
    if (!lockfile_has_note(BACKUP_COMMAND) || !is_valid_app_name(app, failure))
        return;
    const Uninterrupted whole;  // what follows it takes the data away
    if (back_up_application(app, failure))
        log_info("Backed up application %s", app.c_str());
    else
        warn_and_clear_error_with_preamble(("Failed to back up " + app + ": ").c_str(), failure, nullptr);
    // Once the application is being taken away, a second recovery has nothing better to save.
    lockfile_forget_note(BACKUP_COMMAND);
}

bool undo(const std::string& app, VelkctlError** error) {
    if (app == NO_CLEAN_ON_FAILURE)
        return true;
    finish_import(app);
    finish_backup(app);
    if (velkctl_teardown(app, true, false, error) == 0)
        return velkctl_remove(app, error) == 0;
    ErrorSlot ignored;
    if (velkctl_remove(app, ignored) != 0)
        velkctl_finish_removal(app);
    return false;
}

bool recover(const std::string& app, VelkctlError** error) {
    const StagingRemoval staging(app);
    lockfile_take_over();
    const bool undone = undo(app, error);
    sweep_unfinished_backups();
    return undone;
}

}  // namespace

int velkctl_clean(std::optional<std::string>* appname_out, VelkctlError** error) {
    ErrorSlot ignored;
    bool found = false;
    if (appname_out && appname_out->has_value()) {
        set_not_null_argument_error(error, "velkctl_clean", "appname");
        if (lockfile_seize(&found, ignored))
            (void)lockfile_remove(ignored);
        return -1;
    }
    if (!lockfile_seize(&found, error))
        return -1;
    ErrorSlot failure;
    const std::optional<std::string> app = found ? read_interrupted(failure) : std::nullopt;
    const bool undone = app && recover(*app, failure);
    sweep_temporary_files();
    if (!app && !failure.is_set())
        return 0;
    if (!undone) {
        (void)lockfile_remove(ignored);
        failure.move_to(error);
        return -1;
    }
    if (appname_out)
        *appname_out = app;
    if (lockfile_remove(error))
        return 0;
    (void)lockfile_remove(ignored);
    return -1;
}
