#include "integration/velkctl-teardown.h"

#include "base/handles.h"
#include "base/interruption.h"
#include "base/log.h"
#include "base/paths.h"
#include "integration/cfgtree.h"
#include "integration/containers.h"
#include "integration/http.h"
#include "integration/plugins.h"
#include "integration/runstate.h"
#include "integration/script-policy.h"
#include "integration/squash-images.h"
#include "integration/sub-id.h"
#include "integration/systemd.h"
#include "integration/users.h"
#include "manifest/app-user.h"
#include "manifest/manifest-rules.h"
#include "manifest/manifest.h"
#include "manifest/names.h"
#include "store/application.h"
#include "store/lock.h"
#include "system/key-file.h"
#include "system/script.h"
#include "system/systemctl.h"

namespace {

/** A teardown under way: what is known of the application, and whether every step has worked so far. */
struct Teardown {
    Application application;
    const std::string& app;
    std::string directory;
    JsonPtr manifest{};  ///< none when it cannot be read
    std::optional<ParsedManifest>
        parsed{};               ///< none when the manifest cannot be read; what needs it is then left out
    bool user_refused = false;  ///< setup has refused the user just now, and said so
    std::optional<std::string> user{};  ///< the application's, unless setup would refuse it
    bool ok = true;

    /** Note how a step ended: its failure is a warning and, unless it is not to count, fails the teardown. */
    void finish(bool done, const char* failure, VelkctlError** error, bool counts = true) {
        const std::string preamble = std::string(failure) + " during teardown of " + app + ": ";
        warn_and_clear_error_with_preamble(preamble.c_str(), error, nullptr);
        ok = ok && (done || !counts);
    }
};

bool stop_if_running(const std::string& app, VelkctlError** error) {
    const std::optional<bool> active = is_application_active(app, error);
    return active && (!*active || velkctl_stop(app, nullptr, error) == 0);
}

/** Take the lock and find the application, which must be in the store. */
std::optional<Application> begin(const std::string& app, OperationLock* lock, VelkctlError** error) {
    if (!lock->take(app, error))
        return std::nullopt;
    Application application = find_application(app);
    if (application.location)
        restore_unmounted_link(app, application.location);
    return require_app_present(app, error) ? std::optional(std::move(application)) : std::nullopt;
}

void read_teardown_manifest(Teardown* teardown) {
    ErrorSlot error;
    teardown->manifest = load_installed_manifest(teardown->app, error);
    if (!teardown->manifest)
        return teardown->finish(false, "Failed to get the manifest JSON object", error);
    teardown->parsed = parse_manifest_leniently(teardown->manifest.get(), error);
    if (!teardown->parsed)
        teardown->finish(false, "Failed to read the manifest", error);
}

/**
 * The user as whom the application runs, if setup gives it to an application. Any other was never this one's,
 * and nothing is run or taken away in that user's name: it could be anybody's, root's included.
 */
std::optional<std::string> find_application_user(const Teardown& teardown) {
    if (!teardown.manifest || has_dynamic_user(teardown.manifest.get()))
        return dynamic_user_name(teardown.app);
    if (!teardown.parsed || teardown.user_refused)
        return std::nullopt;
    ErrorSlot refused;
    const std::optional<AppUser> user =
        check_static_user(teardown.app, teardown.manifest.get(), *teardown.parsed, refused);
    if (user)
        return user->user;
    if (refused.code() != VELKCTL_ERROR_NOT_ALLOWLISTED)  // of which the check itself has told
        warn_and_clear_error(refused, nullptr);
    return std::nullopt;
}

bool run_pre_uninstall_script(const Teardown& teardown, VelkctlError** error) {
    ScriptRunOptions options = {
        .exec_directly = false,
        .abort_on_ex_config = false,
        .fail_on_ex_noperm = false,
        .fail_on_nonzero = false,
        .timeout_s = 0,
    };
    int32_t configured = 0;
    if (!get_keyfile_int(&configured, paths::kSettingsFile, "Install", "PreUninstallScriptTimeout", error))
        return false;
    options.timeout_s = effective_script_timeout(install_script_policy(), configured);
    const std::optional<std::string>& script = teardown.parsed->preUninstallScript;
    return !script || !teardown.user ||
           run_script_as_user(*script, teardown.directory, *teardown.user, options, error);
}

void take_leave_of_application(Teardown* teardown) {
    ErrorSlot error;
    teardown->finish(call_plugins(teardown->app, "remove", error), "Failed to run remove for plugins", error);
    if (teardown->parsed)
        teardown->finish(run_pre_uninstall_script(*teardown, error), "Failed to run pre-uninstall script",
                         error);
}

void remove_configuration(Teardown* teardown) {
    ErrorSlot error;
    const std::string& directory = teardown->directory;
    teardown->finish(teardown_parameters(directory, teardown->app, error), "Failed to teardown params",
                     error);
    teardown->finish(teardown_http(directory, teardown->app, teardown->user, error),
                     "Failed to teardown http setup", error);
    if (teardown->parsed && teardown->parsed->createDockerSymlinks && holds_container_tools(directory))
        teardown->finish(remove_container_links(teardown->app, directory, error),
                         "Failed to teardown docker setup", error);
}

/** Remove the user when it is the application's own: its manifest names none, readable otherwise or not. */
bool remove_dynamic_user(const std::string& app, VelkctlError** error) {
    const JsonPtr manifest = load_installed_manifest(app, error);
    if (!manifest)
        return false;
    if (!has_dynamic_user(manifest.get()))
        return true;
    end_left_processes(app);  // a process of it would be one of the next application's
    return remove_user(app, error);
}

void remove_user_and_ranges(Teardown* teardown) {
    ErrorSlot error;
    // The ranges go first, since they are found by the user. Ranges that stay behind harm nobody: no failure.
    // Those of a static user were never written by setup.
    if (teardown->parsed && teardown->parsed->containerHost && has_dynamic_user(teardown->manifest.get()))
        teardown->finish(teardown_sub_ids(device_sub_id_files(), teardown->app, error),
                         "Failed to teardown subuid/subgid", error, false);
    teardown->finish(remove_dynamic_user(teardown->app, error), "Failed to teardown user", error);
}

void remove_units(Teardown* teardown) {
    ErrorSlot error;
    const StoreLocation* location = teardown->application.location;
    teardown->finish(teardown_systemd(teardown->app, location, error), "Failed to teardown systemd", error);
    // Nothing of them is mounted any more.
    if (location && teardown->manifest)
        release_squash_images(teardown->manifest.get(), teardown->app, location);
}

void reload_services(Teardown* teardown) {
    ErrorSlot error;
    teardown->finish(systemctl_daemon_reload(error), "Failed to reload the systemd manager configuration",
                     error);
    reload_web_server();
}

bool tear_down(const std::string& app, bool reload, bool persist_user, bool user_refused,
               VelkctlError** error) {
    OperationLock lock;
    if (!is_valid_app_name(app, error) || !stop_if_running(app, error))
        return false;
    std::optional<Application> application = begin(app, &lock, error);
    if (!application)
        return false;
    Teardown teardown{.application = std::move(*application),
                      .app = app,
                      .directory = paths::store_root_path(app),
                      .user_refused = user_refused};
    read_teardown_manifest(&teardown);
    teardown.user = find_application_user(teardown);
    take_leave_of_application(&teardown);
    const Uninterrupted shield;  // what is left takes moments, and half of it would be left to somebody
    end_left_processes(app);
    remove_configuration(&teardown);
    if (!persist_user)
        remove_user_and_ranges(&teardown);
    remove_units(&teardown);
    if (reload)
        reload_services(&teardown);
    if (!teardown.ok)
        SET_GENERAL_ERROR(error, "Failure during teardown of %s", app.c_str());
    return teardown.ok;
}

}  // namespace

// A null slot is allowed here and not below, so the steps always get one of their own.
int velkctl_teardown(const std::string& app, bool reload, bool persist_user, VelkctlError** error) {
    ErrorSlot own;
    const bool done = tear_down(app, reload, persist_user, false, own);
    own.move_to(error);
    return done ? 0 : -1;
}

int undo_setup(const std::string& app, bool user_refused, VelkctlError** error) {
    return tear_down(app, false, false, user_refused, error) ? 0 : -1;
}
