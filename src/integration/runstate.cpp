#include "integration/runstate.h"

#include <fcntl.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>

#include "base/handles.h"
#include "base/paths.h"
#include "manifest/manifest.h"
#include "manifest/names.h"
#include "store/lock.h"
#include "store/velkctl-store.h"
#include "system/area.h"
#include "system/file.h"
#include "system/systemctl.h"

static constexpr const char* FILE_NAME = "runstate.conf";

static std::string configuration_directory(const std::string& app) {
    return paths::store_root_path(app) + "/conf";
}

static std::optional<AreaDirectory> open_configuration(const std::string& app, VelkctlError** error) {
    const std::optional<AreaDirectory> application = open_area(paths::store_root_path(app), error);
    return application ? open_area_directory(*application, "conf", error) : std::nullopt;
}

bool runstate_write(const std::string& app, bool enabled, VelkctlError** error) {
    ErrorSlot no_directory;
    const std::optional<AreaDirectory> conf = open_configuration(app, no_directory);
    if (conf)
        return write_area_file(*conf, FILE_NAME, enabled ? "ENABLED=yes\n" : "ENABLED=no\n", error);
    SET_GENERAL_ERROR(error, "Failed writing to file: %s/%s: %s", configuration_directory(app).c_str(),
                      FILE_NAME, no_directory.message());
    return false;
}

/**
 * The beginning of the record, which is all that counts. It lies in a directory of the application's, so no
 * link is followed, nothing is waited for, and it does not matter how much there is.
 */
static std::optional<std::string> read_record(const std::string& app, VelkctlError** error) {
    ErrorSlot no_directory;
    const std::optional<AreaDirectory> conf = open_configuration(app, no_directory);
    const UniqueFd fd(conf ? openat(conf->fd(), FILE_NAME, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)
                           : -1);
    char beginning[64];
    const ssize_t length = fd ? read(fd.get(), beginning, sizeof beginning) : -1;
    if (length >= 0)
        return std::string(beginning, static_cast<size_t>(length));
    const std::string path = configuration_directory(app) + "/" + FILE_NAME;
    SET_GENERAL_ERROR(error, "Failed opening %s: %s", path.c_str(), system_error_text().c_str());
    return std::nullopt;
}

bool runstate_is_enabled(const char* app, VelkctlError** error) {
    if (!app) {
        set_null_argument_error(error, "runstate_is_enabled", "appname");
        return false;
    }
    if (!require_app_present(app, error))
        return false;
    ErrorSlot unreadable;
    const std::optional<std::string> record = read_record(app, unreadable);
    if (record)
        return record->starts_with("ENABLED=yes");
    velkctl_error_set(error, VELKCTL_ERROR_GENERAL,
                      "Failed reading runstate for application %s. Code: %d Message: %s", app,
                      unreadable.code(), unreadable.message());
    return false;
}

std::optional<ServiceState> service_name_and_active_state(const std::string& app, VelkctlError** error) {
    assert(error);
    if (!require_app_present(app, error))
        return std::nullopt;
    const std::optional<bool> active = is_application_active(app, error);
    return active ? std::optional(ServiceState{paths::service_unit_name(app), *active}) : std::nullopt;
}

/** The run mode of the installed application, which must be one of the four. */
static std::optional<std::string> read_run_mode(const std::string& app, VelkctlError** error) {
    const JsonPtr manifest = load_installed_manifest(app, error);
    if (!manifest)
        return std::nullopt;
    std::optional<std::string> mode =
        manifest_string(manifest.get(), error, {"velkPackageConf", "setup", "runMode"});
    if (!mode)
        return std::nullopt;
    for (const char* known : {"once", "respawn", "respawnOnFailure", "never"})
        if (*mode == known)
            return mode;
    velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST, "Invalid runMode value");
    return std::nullopt;
}

/** What start and stop begin with: the lock, then the name, then the state. */
static std::optional<ServiceState> take_service(const std::string& app, OperationLock* lock, bool* was_active,
                                                VelkctlError** error) {
    if (!lock->take(NO_CLEAN_ON_FAILURE, error) || !is_valid_app_name(app, error))
        return std::nullopt;
    std::optional<ServiceState> service = service_name_and_active_state(app, error);
    if (service && was_active)
        *was_active = service->active;
    return service;
}

static bool start_service(const std::string& app, bool* already_started, VelkctlError** error) {
    OperationLock lock;
    const std::optional<ServiceState> service = take_service(app, &lock, already_started, error);
    if (!service)
        return false;
    const std::optional<std::string> mode = read_run_mode(app, error);
    if (!mode || !systemctl_enable(service->name, error))
        return false;
    // Enabled first also when it is not to start at boot: enabling repairs a link that points to an older
    // unit file.
    const bool at_boot = *mode != "never";
    return (at_boot || systemctl_disable(service->name, error)) && systemctl_restart(service->name, error) &&
           runstate_write(app, at_boot, error);
}

static bool stop_service(const std::string& app, bool* was_running, VelkctlError** error) {
    OperationLock lock;
    const std::optional<ServiceState> service = take_service(app, &lock, was_running, error);
    if (!service)
        return false;
    // An application that was not running counts as wanted: the switch of the web interface shows it so.
    if (!service->active)
        return runstate_write(app, true, error);
    return systemctl_stop(service->name, error) && systemctl_disable(service->name, error) &&
           runstate_write(app, false, error);
}

// A null slot is allowed here and not below, so the steps always get one of their own.
int velkctl_start(const std::string& app, bool* already_started, VelkctlError** error) {
    ErrorSlot own;
    const bool done = start_service(app, already_started, own);
    own.move_to(error);
    return done ? 0 : -1;
}

int velkctl_stop(const std::string& app, bool* was_running, VelkctlError** error) {
    ErrorSlot own;
    const bool done = stop_service(app, was_running, own);
    own.move_to(error);
    return done ? 0 : -1;
}
