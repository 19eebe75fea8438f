#include "lifecycle/velkctl-install.h"

#include <cassert>

#include "base/log.h"
#include "integration/http.h"
#include "integration/velkctl-teardown.h"
#include "lifecycle/velkctl-backup.h"
#include "lifecycle/velkctl-restore.h"
#include "manifest/app-user.h"
#include "manifest/manifest-rules.h"
#include "manifest/manifest.h"
#include "manifest/names.h"
#include "store/lock.h"
#include "store/velkctl-import.h"
#include "store/velkctl-remove.h"
#include "system/file.h"
#include "system/systemctl.h"

namespace {

/** One installation: what was asked for, and what the package says of itself. */
struct Installation {
    const std::string& package;
    const StoreLocation* location;
    const SetupOptions& options;
    JsonPtr manifest;
    ParsedManifest parsed;

    [[nodiscard]] const std::string& app() const { return parsed.appName; }
};

bool import_and_set_up(const Installation& installation, VelkctlError** error) {
    std::string imported;
    if (velkctl_import(installation.package, installation.location, &imported, error) != 0)
        return false;
    if (velkctl_setup(installation.app(), installation.options, error) == 0)
        return true;
    ErrorSlot cleanup;
    velkctl_remove(installation.app(), cleanup);
    return false;
}

bool install_fresh(const Installation& installation, OperationLock* lock, VelkctlError** error) {
    return lock->take(installation.app(), error) && import_and_set_up(installation, error);
}

// The lock content says that nothing is to be undone: a crash in here must not cost the still intact
// application.
bool back_up_installed(const std::string& app, VelkctlError** error) {
    OperationLock lock;
    return lock.take(NO_CLEAN_ON_FAILURE, error) && back_up_application(app, error);
}

/** Whether the installed version runs as the same user as the new one, so that the user can be kept. */
bool keeps_user(const Installation& installation) {
    ErrorSlot unreadable;
    const std::optional<std::string> installed = application_username(installation.app().c_str(), unreadable);
    return installed && *installed == installation.parsed.user;
}

bool upgrade(const Installation& installation, OperationLock* lock, VelkctlError** error) {
    const std::string& app = installation.app();
    if (!check_vendor_id(installation.manifest.get(), error) || !back_up_installed(app, error) ||
        !lock->take(app, error))
        return false;
    const bool persist_user = keeps_user(installation);
    if (!require_application_stopped(app, "install", error) ||
        !check_restorable(app, installation.manifest.get(), *installation.location, 0, error) ||
        velkctl_teardown(app, false, persist_user, error) != 0)
        return false;
    if (velkctl_remove(app, error) == 0 && import_and_set_up(installation, error))
        return true;
    reload_web_server();
    return false;
}

/** Take an application away whose data could not be restored; the backup goes aside only when the application
 * is gone. */
void uninstall_unstable(const std::string& app) {
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

/** The package's manifest and its parsed form, or nothing. */
std::optional<Installation> examine(const std::string& path, const StoreLocation* location,
                                    const SetupOptions& options, VelkctlError** error) {
    const std::optional<std::string> resolved = canonical_path(path, error);
    if (!resolved || !check_package_file_name(*resolved, error))
        return std::nullopt;
    JsonPtr manifest = load_package_manifest(*resolved, error);
    std::optional<ParsedManifest> parsed =
        manifest ? parse_manifest(manifest.get(), error) : std::optional<ParsedManifest>();
    if (!parsed)
        return std::nullopt;
    return Installation{path, location, options, std::move(manifest), std::move(*parsed)};
}

}  // namespace

int velkctl_install(const std::string& package, const StoreLocation* location, const SetupOptions& options,
                    std::string* app_name, VelkctlError** error) {
    const char* path = package.c_str();
    assert(path && app_name && error);
    const std::optional<Installation> installation = examine(package, location, options, error);
    if (!installation)
        return -1;
    const std::string& app = installation->app();
    *app_name = app;

    OperationLock lock;
    ErrorSlot failure;
    const bool installed = app_exists(app.c_str(), failure) ? upgrade(*installation, &lock, failure)
                                                            : install_fresh(*installation, &lock, failure);
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
