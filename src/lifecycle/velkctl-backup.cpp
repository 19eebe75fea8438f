#include "lifecycle/velkctl-backup.h"

#include <unistd.h>

#include <cassert>
#include <cstdio>

#include "base/paths.h"
#include "integration/users.h"
#include "store/lock.h"
#include "store/velkctl-store.h"
#include "system/area.h"
#include "system/file.h"
#include "system/mounts.h"
#include "system/tree.h"

std::string backup_path(const std::string& app) { return paths::store_root_path("_backup") + "/" + app; }

bool backup_exists(const std::string& app) { return is_directory(backup_path(app)); }

/** Where an application's settings and data are. */
struct Source {
    std::string directory;
    bool is_hidden;  ///< it holds the two directories of a card that are to be seen as one
};

static bool is_mounted(const std::string& app) {
    ErrorSlot not_mounted;
    return find_mount_entry(paths::kMounts, paths::store_root_path(app), not_mounted).has_value();
}

/**
 * Whether what a first card's application has written is not to be seen at its place: it lies in a directory
 * of its own, which is mounted over the application's files. Nothing was written where that is empty.
 */
static bool is_hidden(const std::string& app, const StoreLocation* location) {
    return location->kind == STORE_SD_CARD1 && !is_mounted(app) &&
           is_filled_directory(store_path(app, location) + "/upper");
}

static std::optional<AreaDirectory> open_hidden(const std::string& directory, VelkctlError** error) {
    UniqueFd overlay = open_overlay(directory + "/upper", directory + "/lower", error);
    return overlay ? std::optional(area_without_place(std::move(overlay))) : std::nullopt;
}

// As long as nothing is mounted, an application of the layer store is reached through its layer only.
static Source find_source(const std::string& app, const StoreLocation* location) {
    if (is_hidden(app, location))
        return {store_path(app, location), true};
    const bool unmounted = location->kind == STORE_INTERNAL_VLPFS && !(is_set_up(app) && is_mounted(app));
    return {unmounted ? location_link_target(app, location) : paths::store_root_path(app), false};
}

/**
 * Copy a configuration file that is there. Teardown takes them away, so that of an application that is not
 * set up the one of the backup before is kept: an upgrade that failed behind its teardown can be tried again.
 */
static bool copy_configuration_file(const AreaDirectory* conf, const std::string& app,
                                    const std::string& name, const std::string& target,
                                    VelkctlError** error) {
    if (conf && area_entry_kind(*conf, name) != 0) {
        ErrorSlot failure;
        if (copy_path_if_present(conf->access_path(name), target + "/" + name, failure))
            return true;
        move_with_known_paths(failure, {{conf->access_path(""), conf->path_of("")}}, error);
        return false;
    }
    return is_set_up(app) || copy_path_if_present(backup_path(app) + "/" + name, target + "/" + name, error);
}

static bool copy_configuration(const AreaDirectory& application, const std::string& app,
                               const std::string& target, VelkctlError** error) {
    // A link is not left out but refused: a new version would otherwise begin without the settings.
    const mode_t kind = area_entry_kind(application, "conf");
    std::optional<AreaDirectory> conf;
    if ((kind == S_IFDIR || kind == S_IFLNK) && !(conf = open_area_directory(application, "conf", error)))
        return false;
    return copy_configuration_file(conf ? &*conf : nullptr, app, app + ".conf", target, error) &&
           copy_configuration_file(conf ? &*conf : nullptr, app, "param_" + app + ".conf", target, error);
}

static bool copy_into(const Source& source, const std::string& app, const std::string& target,
                      VelkctlError** error) {
    if (!is_directory(source.directory))
        return true;
    const std::optional<AreaDirectory> application =
        source.is_hidden ? open_hidden(source.directory, error) : open_area(source.directory, error);
    if (!application || !copy_configuration(*application, app, target, error))
        return false;
    // A link could lead anywhere, and what it leads to is not the application's data.
    const std::string data = application->path_of("localdata");
    return (source.is_hidden || remove_if_symlink(data, error)) &&
           (!is_directory_no_follow(data) || copy_path(data, target + "/localdata", error));
}

static bool rename_or_fail(const std::string& from, const std::string& to, VelkctlError** error) {
    if (std::rename(from.c_str(), to.c_str()) == 0)
        return true;
    SET_GENERAL_ERROR(error, "Failed renaming %s to %s: %s", from.c_str(), to.c_str(),
                      system_error_text().c_str());
    return false;
}

/** Where a backup waits for its deletion. */
static std::string doomed_path(const std::string& backup) { return backup + ".remove"; }

static bool put_in_place(const std::string& complete, const std::string& backup, VelkctlError** error) {
    const std::string doomed = doomed_path(backup);
    if (!remove_recursive(doomed, error))
        return false;
    sync();
    // The old one goes as a whole first: a deletion that is cut short must not leave half of it under the
    // name.
    const bool replaces = is_directory(backup);
    if ((replaces && !rename_or_fail(backup, doomed, error)) || !rename_or_fail(complete, backup, error)) {
        if (replaces)
            (void)std::rename(doomed.c_str(), backup.c_str());
        return false;
    }
    sync();
    return remove_recursive(doomed, error);
}

bool back_up_application(const std::string& app, VelkctlError** error) {
    const StoreLocation* location = find_app_location(app, error);
    if (!location)
        return false;
    end_left_processes(app);
    const Source source = find_source(app, location);
    // What cannot be seen, for instance behind a link that leads nowhere, replaces nothing that was saved.
    if (!is_directory(source.directory) && backup_exists(app))
        return true;
    const std::string backup = backup_path(app);
    const std::string staging = staging_path(backup);
    if (!remove_recursive(staging, error))
        return false;
    if (make_dirs(staging, error) && copy_into(source, app, staging, error) &&
        put_in_place(staging, backup, error))
        return true;
    // A full disk does not stay so.
    ErrorSlot cleanup;
    (void)remove_recursive(staging, cleanup);
    return false;
}

int velkctl_perform_backup(const std::string& app, VelkctlError** error) {
    assert(error);
    OperationLock lock;
    return lock_app_for_operation(app, "backup", &lock, error) && back_up_application(app, error) ? 0 : -1;
}

int remove_backup(const std::string& app, VelkctlError** error) {
    sync();
    const std::string backup = backup_path(app);
    const std::string doomed = doomed_path(backup);
    ErrorSlot leftover;  // of an interrupted backup, which must not outlive the application
    (void)remove_recursive(staging_path(backup), leftover);
    if (!backup_exists(app)) {
        leftover.clear();
        (void)remove_recursive(doomed, leftover);
        return 0;
    }
    if (!remove_recursive(doomed, error))
        return -1;
    if (std::rename(backup.c_str(), doomed.c_str()) != 0) {
        SET_GENERAL_ERROR(error, "Could not remove backup. Rename failed.");
        return -1;
    }
    sync();
    if (!remove_recursive(doomed, error))
        return -1;
    sync();
    return 0;
}
