#include "lifecycle/velkctl-backup.h"

#include <unistd.h>

#include <cassert>
#include <cstdio>

#include "base/log.h"
#include "base/paths.h"
#include "integration/users.h"
#include "store/application.h"
#include "store/lock.h"
#include "store/velkctl-store.h"
#include "system/area.h"
#include "system/copy-tree.h"
#include "system/file.h"
#include "system/mounts.h"
#include "system/tree.h"

std::string backup_path(const std::string& app) { return paths::store_root_path("_backup") + "/" + app; }

bool backup_exists(const std::string& app) { return is_directory(backup_path(app)); }

namespace {

/** Where an application's settings and data are. */
struct Source {
    std::string directory;
    bool is_hidden;  ///< it holds the two directories of a card that are to be seen as one
};

bool is_mounted(const std::string& app) {
    ErrorSlot not_mounted;
    return find_mount_entry(paths::kMounts, paths::store_root_path(app), not_mounted).has_value();
}

/**
 * Whether what a first card's application has written is not to be seen at its place: it lies in a directory
 * of its own, which is mounted over the application's files. Nothing was written where that is empty.
 */
bool is_hidden(const Application& application) {
    return application.location->kind == STORE_SD_CARD1 && !is_mounted(application.name) &&
           is_filled_directory(application.home() + "/upper");
}

std::optional<AreaDirectory> open_hidden(const std::string& directory, VelkctlError** error) {
    UniqueFd overlay = open_overlay(directory + "/upper", directory + "/lower", error);
    return overlay ? std::optional(area_without_place(std::move(overlay))) : std::nullopt;
}

// As long as nothing is mounted, an application of the layer store is reached through its layer only.
Source find_source(const Application& application) {
    const std::string& app = application.name;
    if (is_hidden(application))
        return {application.home(), true};
    const bool unmounted =
        application.location->kind == STORE_INTERNAL_VLPFS && !(is_set_up(app) && is_mounted(app));
    return {unmounted ? location_link_target(app, application.location) : application.directory(), false};
}

/** A copy on its way: what of which application goes where. */
struct Copy {
    const std::string& app;
    const AreaDirectory& application;
    const AreaDirectory& target;
    bool is_hidden;
};

/**
 * Copy a configuration file that is there. Teardown takes them away, so that of an application that is not
 * set up the one of the backup before is kept: an upgrade that failed behind its teardown can be tried again.
 */
bool copy_configuration_file(const Copy& copy, const AreaDirectory* conf, const std::string& name,
                             VelkctlError** error) {
    const mode_t kind = conf ? area_entry_kind(*conf, name) : 0;
    if (kind == S_IFREG)
        return copy_area_file(*conf, name, copy.target, name, LARGEST_CONFIGURATION_FILE, nullptr, error);
    if (kind != 0) {
        log_warning("Leaving out %s, which is no regular file", conf->path_of(name).c_str());
        return true;
    }
    ErrorSlot none;
    const std::optional<AreaDirectory> before =
        is_set_up(copy.app) ? std::nullopt : open_area(backup_path(copy.app), none);
    return !before || area_entry_kind(*before, name) != S_IFREG ||
           copy_area_file(*before, name, copy.target, name, LARGEST_CONFIGURATION_FILE, nullptr, error);
}

bool copy_configuration(const Copy& copy, VelkctlError** error) {
    // A link is not left out but refused: a new version would otherwise begin without the settings.
    const mode_t kind = area_entry_kind(copy.application, "conf");
    std::optional<AreaDirectory> conf;
    if ((kind == S_IFDIR || kind == S_IFLNK) &&
        !(conf = open_area_directory(copy.application, "conf", error)))
        return false;
    return copy_configuration_file(copy, conf ? &*conf : nullptr, copy.app + ".conf", error) &&
           copy_configuration_file(copy, conf ? &*conf : nullptr, "param_" + copy.app + ".conf", error);
}

bool copy_data(const Copy& copy, VelkctlError** error) {
    const mode_t kind = area_entry_kind(copy.application, "localdata");
    // A link could lead anywhere, and what it leads to is not the application's data.
    if (kind == S_IFLNK)
        return copy.is_hidden || remove_area_file(copy.application, "localdata", error);
    if (kind != S_IFDIR)
        return true;
    const std::optional<AreaDirectory> data = open_area_directory(copy.application, "localdata", error);
    return data && copy_tree(*data, copy.target, "localdata", std::nullopt, error);
}

bool copy_into(const Source& source, const std::string& app, const std::string& target,
               VelkctlError** error) {
    if (!is_directory(source.directory))
        return true;
    const std::optional<AreaDirectory> application =
        source.is_hidden ? open_hidden(source.directory, error) : open_area(source.directory, error);
    const std::optional<AreaDirectory> directory = application ? open_area(target, error) : std::nullopt;
    if (!directory)
        return false;
    const Copy copy{app, *application, *directory, source.is_hidden};
    return copy_configuration(copy, error) && copy_data(copy, error);
}

bool rename_or_fail(const std::string& from, const std::string& to, VelkctlError** error) {
    if (std::rename(from.c_str(), to.c_str()) == 0)
        return true;
    return FAIL_GENERAL(error, "Failed renaming %s to %s: %s", from.c_str(), to.c_str(),
                        system_error_text().c_str());
}

/** Where a backup waits for its deletion. */
std::string doomed_path(const std::string& backup) { return backup + ".remove"; }

/** Where a backup that was given up is kept. */
std::string aside_path(const std::string& app) { return backup_path(app) + ".aside"; }

/** Take the place of the backup before in two steps, where the file system knows no other way. */
bool replace_in_two_steps(const std::string& complete, const std::string& backup, VelkctlError** error) {
    const std::string doomed = doomed_path(backup);
    // The old one goes as a whole first: a deletion that is cut short must not leave half of it under the
    // name.
    if (!rename_or_fail(backup, doomed, error))
        return false;
    if (rename_or_fail(complete, backup, error))
        return true;
    (void)std::rename(doomed.c_str(), backup.c_str());
    return false;
}

bool put_in_place(const std::string& complete, const std::string& backup, VelkctlError** error) {
    const std::string doomed = doomed_path(backup);
    if (!remove_recursive(doomed, error))
        return false;
    sync();
    bool is_in_place = false;
    if (!is_directory(backup))
        is_in_place = rename_or_fail(complete, backup, error);
    else if (exchange_names(complete, backup))  // at every moment one whole backup has the name
        is_in_place = rename_or_fail(complete, doomed, error);
    else
        is_in_place = replace_in_two_steps(complete, backup, error);
    if (!is_in_place)
        return false;
    sync();
    return remove_recursive(doomed, error);
}

}  // namespace

bool back_up_application(const std::string& app, VelkctlError** error) {
    const Application application = find_application(app);
    if (!application.location)
        return fail(error, VELKCTL_ERROR_NOT_FOUND, "Application not found in store: %s", app.c_str());
    if (application.location->disk && !application.is_reachable())
        return FAIL_GENERAL(error, "Failed backing up %s: Its files at %s cannot be reached", app.c_str(),
                            application.home().c_str());
    end_left_processes(app);
    const Source source = find_source(application);
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
    leftover.clear();
    (void)remove_recursive(backup + ".merge", leftover);
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

bool put_backup_aside(const std::string& app, VelkctlError** error) {
    if (!backup_exists(app))
        return true;
    const std::string aside = aside_path(app);
    if (!remove_recursive(aside, error) || !rename_or_fail(backup_path(app), aside, error))
        return false;
    sync();
    log_warning("The backup of %s is kept at %s", app.c_str(), aside.c_str());
    return true;
}

bool remove_backup_aside(const std::string& app, VelkctlError** error) {
    return remove_recursive(aside_path(app), error);
}
