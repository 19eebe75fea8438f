#include "lifecycle/velkctl-restore.h"

#include <unistd.h>

#include <cassert>
#include <cstdio>

#include "base/paths.h"
#include "integration/cfgtree.h"
#include "integration/users.h"
#include "lifecycle/velkctl-backup.h"
#include "manifest/app-user.h"
#include "platform/libvelkctl.h"
#include "store/lock.h"
#include "system/area.h"
#include "system/file.h"
#include "system/key-file.h"
#include "system/subprocess.h"
#include "system/tree.h"
#include "system/user-database.h"

namespace {

/** What is restored, for whom. The saved files are found in the working directory, by their names. */
struct Restoration {
    std::string app;
    AppOwner owner;
    AreaDirectory application;  ///< the application directory
};

/** One of the two configuration files, with the directory it is to come back to. */
struct ConfigurationFile {
    const Restoration& restoration;
    const AreaDirectory& conf;
    std::string name;

    [[nodiscard]] std::string temporary() const { return name + ".tmp"; }
    [[nodiscard]] bool is_saved() const { return is_regular_file_no_follow(name); }
    [[nodiscard]] KnownPath known_directory() const { return {conf.access_path(""), conf.path_of("")}; }
};

bool give_to_owner(const ConfigurationFile& file, VelkctlError** error) {
    const AppOwner& owner = file.restoration.owner;
    const gid_t gid = find_group_id(owner.group, error);
    const uid_t uid =
        gid == static_cast<gid_t>(-1) ? static_cast<uid_t>(-1) : find_user_id(owner.user, error);
    if (uid == static_cast<uid_t>(-1))
        return false;
    const std::optional<AreaFile> made =
        open_area_file(file.conf, file.temporary(), "Failed setting ownership of", error);
    return made && made->set_owner(uid, gid, error) && made->set_mode(0600, error);
}

/** Copy a file over an empty one of its own, so that no link that appears meanwhile is written through. */
bool copy_to_temporary(const ConfigurationFile& file, const std::string& source, VelkctlError** error) {
    const std::optional<AreaFile> made = make_area_file(file.conf, file.temporary(), error);
    if (!made)
        return false;
    ErrorSlot failure;
    if (copy_path(source, made->access_path(), failure))
        return true;
    move_with_known_paths(failure, {file.known_directory(), {made->access_path(), made->path()}}, error);
    return false;
}

/** Merge the saved settings file with the current one, which is given. */
bool merge_key_file(const ConfigurationFile& file, const AreaFile& current, VelkctlError** error) {
    ErrorSlot failure;
    const std::string group = parameter_group_name(file.restoration.app);
    const std::string text = merge_key_files(group, current.access_path(), file.name, failure);
    if (!text.empty())
        return write_area_file(file.conf, file.temporary(), text, error);
    move_with_known_paths(failure, {{current.access_path(), current.path()}}, error);
    return false;
}

bool merge_settings(const ConfigurationFile& file, VelkctlError** error) {
    if (!file.is_saved())
        return true;
    const std::optional<AreaFile> current = find_area_file(file.conf, file.name);
    const bool written =
        current ? merge_key_file(file, *current, error) : copy_to_temporary(file, file.name, error);
    return written && give_to_owner(file, error);
}

/** Merge the saved parameter file with the current one, which is given. */
bool merge_parameter_file(const ConfigurationFile& file, const AreaFile& current, VelkctlError** error) {
    ErrorSlot reason;
    if (velkctl_parconf_merge_files(current.access_path().c_str(), file.name.c_str(),
                                    file.conf.access_path(file.temporary()).c_str(), reason))
        return true;
    if (!reason.is_set())
        SET_GENERAL_ERROR(reason, "Failed merging %s and %s", current.path().c_str(), file.name.c_str());
    move_with_known_paths(reason, {file.known_directory(), {current.access_path(), current.path()}}, error);
    return false;
}

bool merge_parameters(const ConfigurationFile& file, VelkctlError** error) {
    const std::optional<AreaFile> current = find_area_file(file.conf, file.name);
    if (!file.is_saved() && !current)
        return true;
    const std::string only = file.is_saved() ? file.name : file.conf.access_path(file.name);
    const bool written = file.is_saved() && current ? merge_parameter_file(file, *current, error)
                                                    : copy_to_temporary(file, only, error);
    return written && give_to_owner(file, error);
}

bool put_in_place(const ConfigurationFile& file, VelkctlError** error) {
    return flush_and_rename_area_file(file.conf, file.temporary(), file.name, error);
}

bool restore_configuration(const Restoration& restoration, VelkctlError** error) {
    const std::string settings_name = restoration.app + ".conf";
    const std::string parameters_name = "param_" + restoration.app + ".conf";
    const bool is_saved =
        is_regular_file_no_follow(settings_name) || is_regular_file_no_follow(parameters_name);
    if (!is_saved && area_entry_kind(restoration.application, "conf") != S_IFDIR)
        return true;
    const std::optional<AreaDirectory> conf = open_area_directory(restoration.application, "conf", error);
    if (!conf)
        return false;
    const ConfigurationFile settings{restoration, *conf, settings_name};
    const ConfigurationFile parameters{restoration, *conf, parameters_name};
    // Whatever an earlier restore or the application left there would otherwise be put in place below.
    const bool restored = clear_area_entry(*conf, settings.temporary(), error) &&
                          clear_area_entry(*conf, parameters.temporary(), error) &&
                          merge_settings(settings, error) && merge_parameters(parameters, error) &&
                          put_in_place(settings, error) && put_in_place(parameters, error) &&
                          flush_area_directory(*conf, error);
    if (restored)
        return true;
    ErrorSlot cleanup;
    for (const ConfigurationFile* file : {&settings, &parameters}) {
        (void)clear_area_entry(*conf, file->temporary(), cleanup);
        cleanup.clear();
    }
    return false;
}

/** Put the saved data in the place of the application's, by way of `staging`. */
bool replace_data(const Restoration& restoration, const std::string& staging, const std::string& data,
                  VelkctlError** error) {
    if (!copy_path("localdata", staging, error) ||
        run_command(error, "chown -hR '%s' '%s'", {restoration.owner.user.c_str(), staging.c_str()}) != 0 ||
        !remove_if_symlink(data, error) || !remove_recursive(data, error))
        return false;
    sync();
    if (std::rename(staging.c_str(), data.c_str()) == 0)
        return true;
    SET_GENERAL_ERROR(error, "Failed renaming %s to %s: %s", staging.c_str(), data.c_str(),
                      system_error_text().c_str());
    return false;
}

bool restore_data(const Restoration& restoration, VelkctlError** error) {
    if (!is_directory_no_follow("localdata"))
        return true;
    const std::string data = restoration.application.path_of("localdata");
    const std::string staging = data + ".tmp";
    if (!clear_area_entry(restoration.application, base_name(staging), error))
        return false;
    if (replace_data(restoration, staging, data, error))
        return flush_area_directory(restoration.application, error);
    ErrorSlot cleanup;
    (void)clear_area_entry(restoration.application, base_name(staging), cleanup);
    return false;
}

bool require_restorable(const std::string& app, VelkctlError** error) {
    if (!backup_exists(app)) {
        velkctl_error_set(error, VELKCTL_ERROR_GENERAL, "No backup was found for: %s", app.c_str());
        return false;
    }
    if (is_set_up(app))
        return true;
    velkctl_error_set(error, VELKCTL_ERROR_GENERAL,
                      "Applicaiton %s is not set up. Please run setup before running 'velkctl restore'.",
                      app.c_str());
    return false;
}

}  // namespace

int velkctl_restore(const std::string& app, VelkctlError** error) {
    const char* app_name = app.c_str();
    assert(app_name && error);
    OperationLock lock;
    if (!lock_app_for_operation(app, "restore", &lock, error) || !require_restorable(app, error))
        return -1;
    std::optional<AppOwner> owner = application_owner(app_name, error);
    WorkingDirectory working_directory;
    if (!owner || !working_directory.remember(error) || !working_directory.enter(backup_path(app), error))
        return -1;
    end_left_processes(app);
    std::optional<AreaDirectory> application = open_area(paths::store_root_path(app), error);
    if (!application)
        return -1;
    const Restoration restoration{app, std::move(*owner), std::move(*application)};
    const bool restored = restore_configuration(restoration, error) && reload_parameters(app, error) &&
                          restore_data(restoration, error);
    return restored ? 0 : -1;
}
