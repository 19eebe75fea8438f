#include "lifecycle/velkctl-clean.h"

#include <sys/stat.h>
#include <unistd.h>

#include "base/log.h"
#include "base/paths.h"
#include "integration/velkctl-teardown.h"
#include "manifest/names.h"
#include "store/lock.h"
#include "store/velkctl-remove.h"
#include "store/velkctl-store.h"
#include "system/file.h"
#include "system/systemctl.h"
#include "system/tree.h"

static constexpr int kRemovalAttempts = 20;
static constexpr useconds_t kRemovalPause = 50'000;

namespace {

std::string strip(const std::string& text) {
    const char* blanks = " \t\n\v\f\r";
    const size_t first = text.find_first_not_of(blanks);
    const size_t last = text.find_last_not_of(blanks);
    return first == std::string::npos ? "" : text.substr(first, last - first + 1);
}

/** The name in the lock file, as it stands; nothing without an error when there is no lock file. */
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

// What unpacks may live on when only velkctl was killed, and it goes on until its directory is gone.
void remove_staging_directory(const std::string& app) {
    const std::string staging = paths::store_root_path(app) + ".tmp";
    log_info("Removing %s", staging.c_str());
    ErrorSlot leftover;
    for (int left = kRemovalAttempts; !remove_recursive(staging, leftover); left--) {
        if (left == 0) {
            warn_and_clear_error(leftover, nullptr);
            return;
        }
        leftover.clear();
        usleep(kRemovalPause);
    }
}

/**
 * Whether a directory came to its place since the lock was taken, and so by the command that died under it.
 * In whole seconds, since not every card keeps more.
 */
bool is_newer_than_lock(const std::string& directory) {
    struct stat lock {};
    struct stat placed {};
    return stat(paths::kLockFile, &lock) == 0 && lstat(directory.c_str(), &placed) == 0 &&
           placed.st_ctim.tv_sec >= lock.st_mtim.tv_sec;
}

// An import makes the root's link to an application elsewhere last. Without it the application would count as
// absent, and stay. One that has been there for longer, on a card that came from another device, is not to
// go.
void finish_import(const std::string& app) {
    ErrorSlot trouble;
    if (!is_valid_app_name(app, trouble) || app_exists(app.c_str(), trouble))
        return;
    ErrorSlot nowhere;
    const StoreLocation* location = find_app_location(app, nowhere);
    if (location && location->subdir && is_newer_than_lock(store_path(app, location)) &&
        !make_symlink(location_link_target(app, location), paths::store_root_path(app), trouble))
        warn_and_clear_error(trouble, nullptr);
}

bool undo(const std::string& app, VelkctlError** error) {
    if (app == NO_CLEAN_ON_FAILURE)
        return true;
    finish_import(app);
    if (velkctl_teardown(app, true, false, error) == 0)
        return velkctl_remove(app, error) == 0;
    ErrorSlot ignored;
    if (velkctl_remove(app, ignored) != 0)
        velkctl_finish_removal(app);
    return false;
}

}  // namespace

int velkctl_clean(std::optional<std::string>* appname_out, VelkctlError** error) {
    ErrorSlot ignored;
    if (appname_out && appname_out->has_value()) {
        set_not_null_argument_error(error, "velkctl_clean", "appname");
        (void)lockfile_remove(ignored);
        return -1;
    }
    ErrorSlot failure;
    const std::optional<std::string> app = read_interrupted(failure);
    if (!app && !failure.is_set())
        return 0;
    if (app) {
        remove_staging_directory(*app);
        lockfile_take_over();
    }
    if (!app || !undo(*app, failure)) {
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
