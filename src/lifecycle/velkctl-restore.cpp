#include "lifecycle/velkctl-restore.h"

#include <unistd.h>

#include <cassert>
#include <cstdio>

#include "base/paths.h"
#include "integration/cfgtree.h"
#include "lifecycle/velkctl-backup.h"
#include "manifest/app-user.h"
#include "platform/libvelkctl.h"
#include "store/lock.h"
#include "system/file.h"
#include "system/key-file.h"
#include "system/subprocess.h"
#include "system/tree.h"

namespace {

/** What is restored, for whom. The saved files are found in the working directory, by their names. */
struct Restoration {
    std::string app;
    std::string directory;  ///< the application directory
    AppOwner owner;

    [[nodiscard]] std::string conf() const { return directory + "/conf"; }
};

bool give_to_owner(const Restoration& restoration, const std::string& path, VelkctlError** error) {
    return set_owner_and_mode(path, restoration.owner.user, restoration.owner.group, 0600, error);
}

/** The temporary file beside `current`, with nothing at its place: an application could have planted a link
 * there. */
std::optional<std::string> fresh_temporary(const std::string& current, VelkctlError** error) {
    std::string temporary = current + ".tmp";
    return remove_file(temporary, error) ? std::optional(std::move(temporary)) : std::nullopt;
}

bool merge_settings(const Restoration& restoration, VelkctlError** error) {
    const std::string saved = restoration.app + ".conf";
    if (!is_regular_file_no_follow(saved))
        return true;
    const std::string current = restoration.conf() + "/" + saved;
    const std::optional<std::string> temporary = fresh_temporary(current, error);
    if (!temporary)
        return false;
    if (is_regular_file_no_follow(current)) {
        const std::string text =
            merge_key_files(parameter_group_name(restoration.app), current, saved, error);
        if (text.empty() || !write_file(*temporary, text, error))
            return false;
    } else if (!copy_path(saved, *temporary, error)) {
        return false;
    }
    return give_to_owner(restoration, *temporary, error);
}

bool merge_parameter_files(const std::string& current, const std::string& saved, const std::string& merged,
                           VelkctlError** error) {
    ErrorSlot reason;
    if (velkctl_parconf_merge_files(current.c_str(), saved.c_str(), merged.c_str(), reason))
        return true;
    velkctl_error_set(error, reason.is_set() ? reason.code() : VELKCTL_ERROR_GENERAL, "%s", reason.message());
    return false;
}

bool merge_parameters(const Restoration& restoration, VelkctlError** error) {
    const std::string saved = "param_" + restoration.app + ".conf";
    const std::string current = restoration.conf() + "/" + saved;
    const bool has_saved = is_regular_file_no_follow(saved);
    const bool has_current = is_regular_file_no_follow(current);
    if (!has_saved && !has_current)
        return true;
    const std::optional<std::string> temporary = fresh_temporary(current, error);
    if (!temporary)
        return false;
    const bool written = has_saved && has_current ? merge_parameter_files(current, saved, *temporary, error)
                                                  : copy_path(has_saved ? saved : current, *temporary, error);
    return written && give_to_owner(restoration, *temporary, error);
}

bool put_settings_in_place(const Restoration& restoration, VelkctlError** error) {
    const std::string conf = restoration.conf();
    if (!is_directory(conf))
        return true;
    for (const std::string& name : {restoration.app + ".conf", "param_" + restoration.app + ".conf"}) {
        const std::string target = conf + "/" + name;
        if (!flush_and_rename_if_present(target + ".tmp", target, error))
            return false;
    }
    return flush_path(conf, error);
}

bool restore_data(const Restoration& restoration, VelkctlError** error) {
    if (!is_directory_no_follow("localdata"))
        return true;
    const std::string data = restoration.directory + "/localdata";
    const std::string staging = data + ".tmp";
    if (!remove_if_symlink(staging, error) || !remove_recursive(staging, error) ||
        !copy_path("localdata", staging, error) ||
        run_command(error, "chown -hR '%s' '%s'", {restoration.owner.user.c_str(), staging.c_str()}) != 0 ||
        !remove_if_symlink(data, error) || !remove_recursive(data, error))
        return false;
    sync();
    if (std::rename(staging.c_str(), data.c_str()) != 0) {
        SET_GENERAL_ERROR(error, "Failed renaming %s to %s: %s", staging.c_str(), data.c_str(),
                          system_error_text().c_str());
        return false;
    }
    return flush_path(restoration.directory, error);
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
    const std::string& app_name = app;
    assert(!app_name.empty() && error);
    OperationLock lock;
    if (!lock_app_for_operation(app, "restore", &lock, error) || !require_restorable(app, error))
        return -1;
    std::optional<AppOwner> owner = application_owner(app.c_str(), error);
    WorkingDirectory working_directory;
    if (!owner || !working_directory.remember(error) || !working_directory.enter(backup_path(app), error))
        return -1;
    const Restoration restoration{app, paths::store_root_path(app), std::move(*owner)};
    const bool restored = merge_settings(restoration, error) && merge_parameters(restoration, error) &&
                          put_settings_in_place(restoration, error) && reload_parameters(app, error) &&
                          restore_data(restoration, error);
    return restored ? 0 : -1;
}
