#include "lifecycle/velkctl-install.h"

#include <cassert>

#include "base/interruption.h"
#include "base/log.h"
#include "integration/http.h"
#include "integration/velkctl-teardown.h"
#include "lifecycle/velkctl-backup.h"
#include "lifecycle/velkctl-restore.h"
#include "manifest/app-user.h"
#include "manifest/manifest.h"
#include "manifest/names.h"
#include "store/application.h"
#include "store/lock.h"
#include "store/velkctl-import.h"
#include "store/velkctl-remove.h"
#include "system/file.h"
#include "system/systemctl.h"

namespace {

/** One installation: the package, and what was asked for. */
struct Installation {
    Package* package;
    const StoreLocation* location;
    const SetupOptions& options;

    [[nodiscard]] const std::string& app() const { return package->app(); }
};

/** Set up what was imported, or take it away again. */
bool set_up_imported(const Installation& installation, VelkctlError** error) {
    if (velkctl_setup(installation.app(), installation.options, error) == 0)
        return true;
    const Uninterrupted shield;
    ErrorSlot cleanup;
    velkctl_remove(installation.app(), cleanup);
    return false;
}

bool install_fresh(const Installation& installation, OperationLock* lock, VelkctlError** error) {
    return lock->take(installation.app(), error) &&
           import_package(installation.package, *installation.location, error) &&
           set_up_imported(installation, error);
}

// The lock content says that nothing is to be undone: a crash in here must not cost the still intact
// application.
bool back_up_installed(const std::string& app, VelkctlError** error) {
    OperationLock lock;
    return lock.take(NO_CLEAN_ON_FAILURE, error) && back_up_application(app, error);
}

/** Whether the installed version runs as the same user as the new one, so that the user can be kept. */
bool keeps_user(const Installation& installation) {
    // What the root's link leads to, whether or not something is mounted in its place just now.
    const Application stored = find_application(installation.app());
    const bool is_linked = stored.location && stored.location->subdir;
    ErrorSlot unreadable;
    const JsonPtr manifest = load_manifest(
        is_linked ? location_link_target(stored.name, stored.location) : stored.directory(), unreadable);
    bool is_dynamic = false;
    const std::optional<std::string> installed =
        manifest ? get_manifest_app_user(installation.app(), manifest.get(), &is_dynamic, unreadable)
                 : std::nullopt;
    return installed && *installed == installation.package->parsed().user;
}

/** Find all that is wrong with the new version while the old one still stands. */
bool check_new_version(const Installation& installation, VelkctlError** error) {
    const Package& package = *installation.package;
    return verify_for_import(installation.package, *installation.location, error) &&
           check_replacement(installation.package, *installation.location, error) &&
           check_restorable(package.app(), package.manifest(), *installation.location,
                            package.size() ? package.size()->bytes : 0, error);
}

bool upgrade(const Installation& installation, OperationLock* lock, VelkctlError** error) {
    const std::string& app = installation.app();
    if (!check_vendor_id(installation.package->manifest(), error) || !back_up_installed(app, error) ||
        !lock->take(app, error))
        return false;
    const bool persist_user = keeps_user(installation);
    if (!require_application_stopped(app, "install", error) || !check_new_version(installation, error) ||
        velkctl_teardown(app, false, persist_user, error) != 0 || fail_when_interrupted(error))
        return false;
    if (velkctl_remove(app, error) == 0 &&
        import_verified(installation.package, *installation.location, error) &&
        set_up_imported(installation, error))
        return true;
    reload_web_server();
    return false;
}

/** Take an application away whose data could not be restored; the backup goes aside only when the application
 * is gone. */
void uninstall_unstable(const std::string& app) {
    const Uninterrupted shield;
    log_warning("Failed to restore %s. Will attempt to uninstall it.", app.c_str());
    ErrorSlot ignored;
    if (velkctl_teardown(app, false, false, ignored) != 0 || velkctl_remove(app, ignored) != 0 ||
        !put_backup_aside(app, ignored))
        log_warning("Failed to teardown and/or remove unstable app %s", app.c_str());
}

bool restore_saved_data(const std::string& app, VelkctlError** error) {
    if (!backup_exists(app))
        return true;
    if (velkctl_restore(app, error) != 0) {
        uninstall_unstable(app);
        return false;
    }
    ErrorSlot leftover;
    if (!remove_backup_aside(app, leftover))
        warn_and_clear_error(leftover, nullptr);
    return true;
}

}  // namespace

int velkctl_install(const std::string& package, const StoreLocation* location, const SetupOptions& options,
                    std::string* app_name, VelkctlError** error) {
    const char* path = package.c_str();
    assert(path && app_name && error);
    Package opened;
    if (!opened.open(package, error) || !opened.read_manifest(error))
        return -1;
    const Installation installation = {&opened, location, options};
    const std::string& app = opened.app();
    *app_name = app;

    OperationLock lock;
    ErrorSlot failure;
    const bool installed = app_exists(app.c_str(), failure) ? upgrade(installation, &lock, failure)
                                                            : install_fresh(installation, &lock, failure);
    opened.release_data();  // before the lock is given back
    const bool complete = installed && restore_saved_data(app, failure);
    lock.release();
    const bool skipped = failure.code() == VELKCTL_ERROR_INSTALL_ABORTED;
    if (!complete && !skipped) {
        failure.move_to(error);
        return -1;
    }
    if (skipped) {
        log_info("Installation of %s was skipped", path);
        return put_backup_aside(app, error) ? 0 : -1;
    }
    return remove_backup(app, error);
}

int velkctl_uninstall(const std::string& app, bool reload, VelkctlError** error) {
    OperationLock lock;
    if (!is_valid_app_name(app, error) || !lock.take(app, error) || remove_backup(app, error) != 0 ||
        !remove_backup_aside(app, error))
        return -1;
    ErrorSlot trouble;
    if (velkctl_teardown(app, reload, false, trouble) != 0) {
        if (trouble.code() == VELKCTL_ERROR_NOT_FOUND) {
            trouble.move_to(error);
            return -1;
        }
        warn_and_clear_error(trouble, nullptr);
    }
    if (velkctl_remove(app, trouble) != 0)
        velkctl_forget(app);
    warn_and_clear_error(trouble, nullptr);
    return 0;
}
