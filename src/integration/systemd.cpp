#include "integration/systemd.h"

#include <fnmatch.h>
#include <unistd.h>

#include <cassert>
#include <cstring>
#include <sstream>

#include "base/log.h"
#include "base/paths.h"
#include "integration/http.h"
#include "integration/squash-images.h"
#include "integration/units.h"
#include "manifest/manifest.h"
#include "manifest/names.h"
#include "system/file.h"
#include "system/subprocess.h"
#include "system/systemctl.h"
#include "system/tree.h"
#include "system/user-database.h"

namespace {

std::string unit_file(const std::string& name) { return std::string(paths::kSystemdUnits) + "/" + name; }

std::string drop_in_directory(const std::string& app) { return paths::service_unit_path(app) + ".d"; }

std::string overlay_drop_in_directory(const std::string& app) {
    return unit_file(mount_unit_name(paths::store_root_path(app))) + ".d";
}

std::string lower_directory(const std::string& app, const StoreLocation* location) {
    return store_path(app, location) + "/lower";
}

bool write_unit(const std::string& name, const std::optional<std::string>& text, VelkctlError** error) {
    return text && write_file(unit_file(name), *text, error);
}

// --- Whose a unit is ---

/** The directory that the unit file mounts something at; empty when it tells none. */
std::string mounted_at(const std::string& unit) {
    ErrorSlot unreadable;
    std::istringstream lines(read_file(unit_file(unit), unreadable).value_or(""));
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with("Where="))
            return line.substr(strlen("Where="));
    return "";
}

/**
 * Whether the unit file is there for the directory itself, or with `below` for one below it. Names of
 * mounts do not tell: a hyphen in an application's name looks in them like a step down.
 */
bool mounts_at(const std::string& unit, const std::string& directory, bool below) {
    const std::string place = mounted_at(unit);
    return below ? place.starts_with(directory + "/") : place == directory;
}

bool is_there_for_another(const std::string& unit, const std::string& directory, bool below) {
    return is_regular_file(unit_file(unit)) && !mounts_at(unit, directory, below);
}

/** The application whose service would have the name of this one's polling service. */
std::string namesake_of_polling_service(const std::string& app) { return app + "-disk-mounted"; }

bool is_polling_service_of_another(const std::string& app) {
    return is_regular_file(unit_file(disk_polling_unit_name(app))) &&
           !owner_of_polling_service(namesake_of_polling_service(app));
}

/** The application that has something mounted at the directory, in words. */
std::string owner_of_mount(const std::string& directory) {
    const std::string store = std::string(paths::kStoreRoot) + "/";
    if (!directory.starts_with(store))
        return "the system";
    const std::string below = directory.substr(store.size());
    return "application " + below.substr(0, below.find('/'));
}

bool refuse_unit_of_another(const std::string& unit, const std::string& app, const std::string& owner,
                            VelkctlError** error) {
    return fail(error, VELKCTL_ERROR_GENERAL, "The unit %s that application %s needs is one of %s",
                unit.c_str(), app.c_str(), owner.c_str());
}

bool check_mount_name(const std::string& app, const std::string& unit, const std::string& directory,
                      bool below, VelkctlError** error) {
    return !is_there_for_another(unit, directory, below) ||
           refuse_unit_of_another(unit, app, owner_of_mount(mounted_at(unit)), error);
}

/** The names of the two services that an application can have. */
bool check_service_names(const std::string& app, const StoreLocation* location, VelkctlError** error) {
    if (const std::optional<std::string> owner = owner_of_polling_service(app))
        return refuse_unit_of_another(paths::service_unit_name(app), app, "application " + *owner, error);
    return location->kind != STORE_SD_CARD1 || !is_polling_service_of_another(app) ||
           refuse_unit_of_another(disk_polling_unit_name(app), app,
                                  "application " + namesake_of_polling_service(app), error);
}

// --- Making ---

/** What is known of an application while its units are written. */
struct UnitJob {
    const ParsedManifest& parsed;
    const json_t* manifest;
    const StoreLocation* location;
    uid_t uid;
    std::string directory;
    std::string overlay_unit;
    std::vector<std::string> required_mounts;
};

/** The card may be missing or slow: that its overlay does not come up now must not keep the rest from being
 * made. */
void bring_up_overlay(const std::string& unit) {
    ErrorSlot error;
    if (!systemctl_enable(unit, error))
        log_warning("Failed to enable %s", unit.c_str());
    error.clear();
    if (!systemctl_start(unit, error))
        log_warning("Failed to start %s", unit.c_str());
}

bool create_overlay_drop_in(const OverlayUnit& unit, VelkctlError** error) {
    // The service manager refuses a mount whose directory has a hyphen in its name, and such a drop-in could
    // be one for the units of others that begin with the name.
    if (unit.app.find('-') != std::string::npos)
        return true;
    const std::string directory = overlay_drop_in_directory(unit.app);
    const std::optional<std::string> text = card_overlay_drop_in_text(unit, error);
    return text && make_reserved_dir(directory, 0755, error) &&
           write_file(directory + "/50-nodev.conf", *text, error);
}

bool create_card_units(UnitJob* job, VelkctlError** error) {
    const std::string& app = job->parsed.appName;
    const std::string polling = disk_polling_unit_name(app);
    const std::string overlay = mount_unit_name(job->directory);
    const OverlayUnit unit{app, job->directory, store_path(app, job->location), polling};
    // The link goes last: where it is missing there is a unit of the directory, by which teardown knows it.
    if (!write_unit(polling, disk_polling_unit_text(job->location->disk, error), error) ||
        !write_unit(overlay, card_overlay_unit_text(unit, error), error) ||
        !create_overlay_drop_in(unit, error) || !remove_if_symlink(job->directory, error))
        return false;
    fix_squash_images_in_package(job->manifest, app, job->location, job->uid);
    bring_up_overlay(overlay);
    job->overlay_unit = overlay;
    return true;
}

bool create_squashfs_units(UnitJob* job, VelkctlError** error) {
    const std::string& app = job->parsed.appName;
    const std::optional<std::vector<SquashImage>> images =
        read_squash_images(job->manifest, app, job->location, error);
    if (!images || !fix_squash_images(*images, app, job->location, job->uid, error))
        return false;
    for (const SquashImage& image : *images) {
        const std::string mount_point = job->directory + "/" + image.mount_point;
        const SquashfsUnit unit{app, job->directory, job->directory + "/" + image.image, mount_point};
        if (!write_unit(mount_unit_name(mount_point), squashfs_unit_text(unit, error), error))
            return false;
        job->required_mounts.push_back(mount_point);
    }
    return true;
}

bool create_service_unit(const UnitJob& job, const std::string& user, const std::string& group,
                         VelkctlError** error) {
    const ParsedManifest& parsed = job.parsed;
    const std::string socket = fcgi_socket_path(job.directory, parsed.appName);
    ErrorSlot unknown;
    ServiceUnit unit;
    unit.app = parsed.appName;
    unit.description = parsed.friendlyName.value_or(parsed.appName);
    unit.directory = job.directory;
    unit.run_options = parsed.runOptions;
    unit.run_mode = parsed.runMode;
    unit.user = user;
    unit.group = group;
    unit.overlay_unit = job.overlay_unit;
    unit.required_mounts = job.required_mounts;
    if (path_exists(socket, unknown))
        unit.fcgi_socket = socket;
    unit.scheduling_policy = parsed.schedulingPolicy;
    unit.real_time_priority = parsed.realTimePriority;
    unit.container_host = parsed.containerHost;
    unit.create_docker_symlinks = parsed.createDockerSymlinks;
    unit.uid = job.uid;
    return write_unit(paths::service_unit_name(parsed.appName), service_unit_text(unit, error), error);
}

bool create_drop_in(const std::string& app, VelkctlError** error) {
    const std::string directory = drop_in_directory(app);
    return make_reserved_dir(directory, 0755, error) &&
           write_file(directory + "/50-orvo-network.conf", network_drop_in_text(), error);
}

/** Fill in the ids that own a package's contents. */
bool look_up_contents_owners(ContentsUnit* unit, const std::string& user, VelkctlError** error) {
    unit->uid = find_user_id(user, error);
    if (unit->uid == static_cast<uid_t>(-1))
        return false;
    unit->admin_gid = find_group_id("admin", error);
    if (unit->admin_gid == static_cast<gid_t>(-1))
        return false;
    unit->www_gid = find_group_id("www", error);
    return unit->www_gid != static_cast<gid_t>(-1);
}

// --- Undoing ---

/** Run a step of the undoing: its failure is a warning, and the work goes on. */
bool survive(bool done, ErrorSlot* error) {
    warn_and_clear_error(*error, nullptr);
    return done;
}

bool remove_unit_file(const std::string& name) {
    ErrorSlot error;
    return survive(remove_file(unit_file(name), error), &error);
}

/**
 * Take back what `start` did to have the service run at boot. This is all that disabling does, and works for
 * a service whose unit file is gone already.
 */
bool remove_enabling_link(const std::string& app) {
    const std::string directory = unit_file("velk.target.wants");
    ErrorSlot error;
    const bool removed =
        survive(remove_if_symlink(directory + "/" + paths::service_unit_name(app), error), &error);
    rmdir(directory.c_str());  // goes with the last link, and stays with any other
    return removed;
}

bool remove_service(const std::string& app) {
    ErrorSlot error;
    bool ok = owner_of_polling_service(app) || remove_unit_file(paths::service_unit_name(app));
    ok = remove_enabling_link(app) && ok;
    return survive(remove_recursive(drop_in_directory(app), error), &error) && ok;
}

std::optional<std::vector<std::string>> mounts_below(const std::string& directory, VelkctlError** error) {
    const DirectoryPtr units(opendir(paths::kSystemdUnits));
    if (!units) {
        SET_GENERAL_ERROR(error, "The systemd path %s could not be opened", paths::kSystemdUnits);
        return std::nullopt;
    }
    const std::string full = mount_unit_name(directory + "/*");
    std::vector<std::string> names;
    while (const dirent* entry = readdir(units.get()))
        if (fnmatch(full.c_str(), entry->d_name, 0) == 0 &&
            !is_there_for_another(entry->d_name, directory, true))
            names.emplace_back(entry->d_name);
    return names;
}

/**
 * The name of an image's mount is made without escaping. Where it is not the one that the service manager
 * has for the directory, the unit was never loaded and there is nothing to stop.
 */
bool stop_image_mount(const std::string& name, VelkctlError** error) {
    constexpr const char* UNESCAPED = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789:-_.";
    ErrorSlot refused;
    if (name.find_first_not_of(UNESCAPED) != std::string::npos || !is_unit_loaded(name))
        return true;
    if (check_shell_arguments({name.c_str()}, refused) == 0)
        return systemctl_stop(name, error);
    refused.clear();
    return spawn_and_wait({"systemctl", "stop", "--quiet", "--", name}, nullptr, refused) == 0 ||
           FAIL_GENERAL(error, "Failed stopping %s", name.c_str());
}

bool remove_mounts_below(const std::string& directory) {
    ErrorSlot error;
    const std::optional<std::vector<std::string>> names = mounts_below(directory, error);
    bool ok = survive(names.has_value(), &error);
    for (const std::string& name : names.value_or(std::vector<std::string>())) {
        ok = survive(stop_image_mount(name, error), &error) && ok;
        ok = remove_unit_file(name) && ok;
    }
    return ok;
}

/** Disable and stop the mount of a directory. */
void stop_mount_unit(const std::string& directory) {
    const std::string unit = mount_unit_name(directory);
    ErrorSlot error;
    if (is_regular_file(unit_file(unit)))
        survive(systemctl_disable(unit, error), &error);
    survive(systemctl_stop(unit, error), &error);
}

/** Remove the directory that a mount stood on; whether it is gone. */
bool remove_mount_point(const std::string& directory) {
    ErrorSlot error;
    if (remove_link_or_empty_dir(directory, error))
        return true;
    error.clear();
    log_warning("Unmount of %s failed, will try with lazy flag", directory.c_str());
    survive(run_command(error, "umount --lazy %s", {directory.c_str()}) == 0, &error);
    if (remove_link_or_empty_dir(directory, error))
        return true;
    log_warning("Leaving behind non-empty directory %s", directory.c_str());
    return false;
}

/** Put back the link in the store root that the mount had taken the place of. */
bool restore_store_link(const std::string& app, const StoreLocation* location) {
    if (!location->subdir)
        return true;
    ErrorSlot error;
    return survive(
        make_symlink_if_absent(location_link_target(app, location), paths::store_root_path(app), error),
        &error);
}

/** The unit file goes last: after a crash it tells that the link is this application's and has to be put
 * back. */
bool unmount_application(const std::string& app, const StoreLocation* location) {
    const std::string directory = paths::store_root_path(app);
    if (is_there_for_another(mount_unit_name(directory), directory, false))
        return true;
    stop_mount_unit(directory);
    // Where the link stands nothing is mounted. Without it nothing would tell where the application is.
    const bool gone = is_symlink(directory) || remove_mount_point(directory);
    (void)restore_store_link(app, location);
    ErrorSlot error;
    survive(remove_recursive(overlay_drop_in_directory(app), error), &error);
    (void)remove_unit_file(mount_unit_name(directory));
    return gone;
}

bool unmount_or_warn(const std::string& app, const StoreLocation* location) {
    if (unmount_application(app, location))
        return true;
    ErrorSlot error;
    SET_GENERAL_ERROR(error, "Errors occurred when unmounting filesystems for %s", app.c_str());
    return survive(false, &error);
}

/** Without its file it would still poll, for ever when the card is gone. */
bool remove_polling_service(const std::string& app) {
    const std::string unit = disk_polling_unit_name(app);
    if (is_polling_service_of_another(app))
        return true;
    ErrorSlot error;
    if (is_regular_file(unit_file(unit)))
        survive(systemctl_stop(unit, error), &error);
    return remove_unit_file(unit);
}

/** What only applications on a card or in the layer-file store have. */
bool remove_location_mounts(const std::string& app, const StoreLocation* location) {
    if (location->kind == STORE_INTERNAL_VLPFS) {
        const bool overlay_gone = unmount_application(app, location);
        const std::string lower = lower_directory(app, location);
        stop_mount_unit(lower);
        const bool lower_gone = remove_mount_point(lower);
        (void)remove_unit_file(mount_unit_name(lower));
        return lower_gone && overlay_gone;
    }
    if (location->kind != STORE_SD_CARD1)
        return true;
    const bool polling_gone = remove_polling_service(app);
    return unmount_or_warn(app, location) && polling_gone;
}

}  // namespace

bool check_unit_names(const std::string& app, const json_t* manifest, const StoreLocation* location,
                      VelkctlError** error) {
    if (!check_service_names(app, location, error))
        return false;
    const std::string directory = paths::store_root_path(app);
    for (const std::string& point : named_mount_points(manifest))
        if (!check_mount_name(app, mount_unit_name(directory + "/" + point), directory, true, error))
            return false;
    const bool is_mounted = location->kind == STORE_SD_CARD1 || location->kind == STORE_INTERNAL_VLPFS;
    return !is_mounted || check_mount_name(app, mount_unit_name(directory), directory, false, error);
}

bool create_squashfs_mount_units(const ParsedManifest& parsed, const json_t* manifest,
                                 const std::string& user, const std::string& group,
                                 const StoreLocation* location, VelkctlError** error) {
    assert(error);
    const uid_t uid = find_user_id(user, error);
    UnitJob job{parsed, manifest, location, uid, paths::store_root_path(parsed.appName), {}, {}};
    if (uid == static_cast<uid_t>(-1))
        return false;
    if (location->kind == STORE_SD_CARD1 && !create_card_units(&job, error))
        return false;
    if (!create_squashfs_units(&job, error))
        return false;
    if (location->kind == STORE_INTERNAL_VLPFS)
        job.required_mounts.push_back(job.directory);
    return create_service_unit(job, user, group, error) && create_drop_in(parsed.appName, error);
}

bool create_package_contents_mounts(const ParsedManifest& parsed, const StoreLocation* location,
                                    const std::string& user, uint32_t features, VelkctlError** error) {
    const std::string& app = parsed.appName;
    const std::string directory = paths::store_root_path(app);
    const std::string layers = store_path(app, location);
    ContentsUnit contents{app, layers + "/lower.vlp", layers + "/lower", {}, {}, 0, 0, 0};
    if (features & FEATURE_SCRIPT_PERMISSIONS) {
        contents.post_install_script = parsed.postInstallScript;
        contents.pre_uninstall_script = parsed.preUninstallScript;
    }
    const std::string contents_unit = mount_unit_name(contents.mount_point);
    const std::string overlay_unit = mount_unit_name(directory);
    const OverlayUnit overlay{app, directory, layers, contents_unit};
    // The link goes last here too.
    if (!require_path(contents.package, error) || !look_up_contents_owners(&contents, user, error) ||
        !write_unit(contents_unit, contents_unit_text(contents, error), error) ||
        !write_unit(overlay_unit, layer_overlay_unit_text(overlay, error), error) ||
        !remove_if_symlink(directory, error))
        return false;
    for (const std::string& path : {directory, layers + "/lower", layers + "/upper", layers + "/work"})
        if (!make_reserved_dir(path, 0755, error))
            return false;
    return run_command(error, "systemctl enable --now '%s' '%s'",
                       {contents_unit.c_str(), overlay_unit.c_str()}) == 0;
}

void restore_unmounted_link(const std::string& app, const StoreLocation* location) {
    const std::string directory = paths::store_root_path(app);
    if (!location->subdir || !is_regular_file(unit_file(mount_unit_name(directory))))
        return;
    ErrorSlot mounted;
    (void)remove_empty_dir(directory, mounted);
    (void)restore_store_link(app, location);
}

bool teardown_systemd(const std::string& app, const StoreLocation* location, VelkctlError** error) {
    // The mounts of images lie on the application directory, so they have to go before it is unmounted; on
    // the layer store the order is the other way round, and stopping the directory's mount takes those above
    // it along.
    bool ok = location != nullptr;
    if (location && location->kind == STORE_INTERNAL_VLPFS)
        ok = remove_location_mounts(app, location) && ok;
    ok = remove_service(app) && ok;
    ok = remove_mounts_below(paths::store_root_path(app)) && ok;
    if (location && location->kind != STORE_INTERNAL_VLPFS)
        ok = remove_location_mounts(app, location) && ok;
    if (location)
        ok = restore_store_link(app, location) && ok;
    if (!ok)
        SET_GENERAL_ERROR(error, "Failure during teardown of systemd units for %s", app.c_str());
    return ok;
}
