#include "store/velkctl-remove.h"

#include <cstdio>

#include "base/interruption.h"
#include "base/log.h"
#include "base/paths.h"
#include "manifest/names.h"
#include "store/application.h"
#include "store/lock.h"
#include "store/velkctl-store.h"
#include "store/velkctl-vsf.h"
#include "system/file.h"
#include "system/tree.h"

/** Move the application out of its place in one step, so that a crash leaves a staging directory and no half
 * of it. */
static bool move_aside(const std::string& directory, const std::string& staging, VelkctlError** error) {
    clear_staging(staging);
    if (std::rename(directory.c_str(), staging.c_str()) == 0)
        return true;
    SET_GENERAL_ERROR(error, "Failed renaming %s to %s: %s", directory.c_str(), staging.c_str(),
                      system_error_text().c_str());
    return false;
}

/** Delete the root's link to an application that was kept elsewhere. */
static bool remove_root_link(const std::string& link, VelkctlError** error) {
    if (remove_file(link, error))
        return true;
    ErrorSlot cleanup;
    if (!remove_recursive(link, cleanup))
        warn_and_clear_error(cleanup, nullptr);
    return false;
}

// The application is to be gone from its own disk before anything that tells of it goes from another: nothing
// else orders what two disks hold when the power fails, and what is not listed any more is not removed any
// more.
static void flush_or_warn(const std::string& directory) {
    ErrorSlot trouble;
    if (is_directory(directory) && !flush_path(directory, trouble))
        warn_and_clear_error(trouble, nullptr);
}

/** Delete the verification state file; a failure is a warning. */
static bool remove_state(const std::string& app) {
    ErrorSlot trouble;
    const bool removed = remove_vsf(app, trouble);
    warn_and_clear_error(trouble, nullptr);
    flush_or_warn(paths::kVerificationStates);
    return removed;
}

static bool remove_files(const std::string& app, const StoreLocation& location, VelkctlError** error) {
    bool ok = remove_state(app);
    const std::string directory = store_path(app, &location);
    const std::string staging = staging_path(directory);
    const bool moved = move_aside(directory, staging, error);
    if (moved)
        ok = remove_recursive(staging, error) && ok;
    flush_or_warn(location.path);
    ok = ok && moved;
    if (!location.subdir)
        return ok;

    const std::string link = paths::store_root_path(app);
    ErrorSlot cleanup;
    if (ok)
        return remove_root_link(link, error);
    (void)remove_file(link, cleanup);
    return false;
}

static int remove_application(const std::string& app, VelkctlError** error) {
    OperationLock lock;
    if (!lock_app_not_set_up(app, "remove", &lock, error))
        return -1;
    const Uninterrupted shield;  // half an application is of no use to anybody
    const StoreLocation* location = find_app_location(app, error);
    return location && remove_files(app, *location, error) ? 0 : -1;
}

int velkctl_remove(const std::string& app, VelkctlError** error) {
    ErrorSlot reason;
    const int result = remove_application(app, reason);
    reason.move_to(error);
    return result;
}

void velkctl_forget(const std::string& app) {
    const Application application = find_application(app);
    const std::string link = paths::store_root_path(app);
    if (application.is_reachable() || !is_symlink(link))
        return;
    if (application.location)
        log_warning("What %s left at %s cannot be reached and stays there", app.c_str(),
                    application.home().c_str());
    (void)remove_state(app);
    ErrorSlot trouble;
    if (!remove_file(link, trouble))
        warn_and_clear_error(trouble, nullptr);
}

/**
 * Whether the root's entry is the link to an application at this location that is not there any more. One on
 * a card that is out is still there.
 */
static bool is_link_of_removed(const std::string& app, const StoreLocation& location) {
    return location.subdir && is_directory(location.path) &&
           !is_directory_no_follow(store_path(app, &location)) &&
           is_symlink_target_equal_to(paths::store_root_path(app), location_link_target(app, &location));
}

void velkctl_finish_removal(const std::string& app) {
    ErrorSlot trouble;
    if (!is_valid_app_name(app, trouble))
        return;
    for (const StoreLocation& location : all_locations()) {
        if (!is_link_of_removed(app, location))
            continue;
        (void)remove_state(app);
        clear_staging(staging_path(store_path(app, &location)));
        flush_or_warn(location.path);
        if (!remove_root_link(paths::store_root_path(app), trouble))
            warn_and_clear_error(trouble, nullptr);
    }
}
