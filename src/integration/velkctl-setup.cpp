#include "integration/velkctl-setup.h"

#include <algorithm>
#include <cerrno>
#include <vector>

#include "base/handles.h"
#include "base/interruption.h"
#include "base/log.h"
#include "base/paths.h"
#include "integration/cfgtree.h"
#include "integration/containers.h"
#include "integration/http.h"
#include "integration/plugins.h"
#include "integration/script-policy.h"
#include "integration/squash-images.h"
#include "integration/sub-id.h"
#include "integration/systemd.h"
#include "integration/users.h"
#include "integration/velkctl-teardown.h"
#include "manifest/manifest-rules.h"
#include "manifest/manifest.h"
#include "manifest/names.h"
#include "store/lock.h"
#include "store/velkctl-store.h"
#include "system/area.h"
#include "system/file.h"
#include "system/key-file.h"
#include "system/script.h"
#include "system/systemctl.h"
#include "system/tree.h"
#include "system/user-database.h"

namespace {

// The platform's fixed feature words.
constexpr uint32_t CONTENTS_FEATURES = 7;

/** One application on its way to being set up: filled in by the steps, in their order. */
struct Setup {
    const std::string& app;
    SetupOptions options;
    const StoreLocation* location;
    std::string directory;
    JsonPtr manifest{};
    ParsedManifest parsed{};
    AppUser user{};
    uid_t uid = 0;
    gid_t admin_gid = 0;
    int32_t script_timeout_s = 0;

    [[nodiscard]] bool on_layers() const { return location->kind == STORE_INTERNAL_VLPFS; }
    [[nodiscard]] bool on_first_card() const { return location->kind == STORE_SD_CARD1; }
};

bool read_setup_manifest(Setup* setup, VelkctlError** error) {
    setup->manifest = load_installed_manifest(setup->app, error);
    std::optional<ParsedManifest> parsed =
        setup->manifest ? parse_manifest(setup->manifest.get(), error) : std::nullopt;
    if (!parsed)
        return false;
    setup->parsed = std::move(*parsed);
    return true;
}

json_t* configuration_value(const Setup& setup, const char* key) {
    return manifest_object(setup.manifest.get(), nullptr, {"velkPackageConf", "configuration", key});
}

/** A card can be taken out, and the web server and the parameter service would then point to nothing. */
bool check_location(const Setup& setup, VelkctlError** error) {
    if (!setup.on_first_card())
        return true;
    if (!setup.options.allow_external_location) {
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_LOCATION,
                          "Installation to location %s is not supported.", setup.location->name);
        return false;
    }
    if (!configuration_value(setup, "httpConfig") && !configuration_value(setup, "paramConfig"))
        return true;
    velkctl_error_set(
        error, VELKCTL_ERROR_DEFAULT_LOCATION_ONLY,
        "Manifest includes HTTP or parameter configuration which means the application can only be "
        "installed to the default location");
    return false;
}

// --- The steps, from the first that leaves something to undo ---

bool make_user(Setup* setup, VelkctlError** error) {
    const ParsedManifest& parsed = setup->parsed;
    std::optional<AppUser> user = parsed.userIsDynamic
                                      ? create_dynamic_user(setup->manifest.get(), parsed, error)
                                      : check_static_user(setup->app, setup->manifest.get(), parsed, error);
    if (!user)
        return false;
    setup->user = std::move(*user);
    if (!parsed.userIsDynamic)
        return true;
    return (!parsed.containerHost || allocate_sub_ids(device_sub_id_files(), setup->user.user,
                                                      setup->user.group, setup->user.groups, error)) &&
           grant_api_access(setup->manifest.get(), parsed, error);
}

/** Those that a setup which died has fixed: nobody could be made their owner. */
bool release_images(Setup* setup, VelkctlError** /*error*/) {
    release_squash_images(setup->manifest.get(), setup->app, setup->location);
    return true;
}

bool mount_contents(Setup* setup, VelkctlError** error) {
    return !setup->on_layers() || create_package_contents_mounts(setup->parsed, setup->location,
                                                                 setup->user.user, CONTENTS_FEATURES, error);
}

bool require_license(Setup* setup, VelkctlError** error) {
    if (is_regular_file(setup->directory + "/LICENSE"))
        return true;
    velkctl_error_set(error, VELKCTL_ERROR_GENERAL, "No LICENSE file found");
    return false;
}

bool validate_with_plugins(Setup* setup, VelkctlError** error) {
    return call_plugins(setup->app, "validate", error);
}

/** The files belong to the application and the group of administrators, not to the application's own group.
 */
bool look_up_owner(Setup* setup, VelkctlError** error) {
    setup->uid = find_user_id(setup->user.user, error);
    if (setup->uid == static_cast<uid_t>(-1) ||
        find_group_id(setup->user.group, error) == static_cast<gid_t>(-1))
        return false;
    setup->admin_gid = find_group_id("admin", error);
    return setup->admin_gid != static_cast<gid_t>(-1);
}

bool make_own_directories(Setup* setup, VelkctlError** error) {
    const std::optional<AreaDirectory> application = open_area(setup->directory, error);
    if (!application)
        return false;
    for (const char* name : {"conf", "localdata"}) {
        const std::optional<AreaDirectory> made = make_area_directory(*application, name, error);
        if (!made || !set_open_owner(made->fd(), made->path(), setup->uid, setup->admin_gid, error))
            return false;
    }
    return true;
}

/** The two control files are immutable, so they keep their owner. */
bool may_stay_unowned(const std::string& name, int reason) {
    return reason == EPERM && (name == "manifest.json" || name == "package.conf");
}

bool own_tree(const Setup& setup, const AreaDirectory& tree, VelkctlError** error) {
    int failed = 0;
    const int result = walk_tree(tree.fd(), {.with_paths = true}, [&](const TreeEntry& entry) {
        if (set_entry_owner(entry, setup.uid, setup.admin_gid) || may_stay_unowned(entry.name, errno))
            return true;
        failed = errno;
        const std::string path = tree.path() + entry.below;
        log_warning("Failed to change owner of %s: %s", path.c_str(), system_error_text(failed).c_str());
        return false;
    });
    if (result == 0)
        return true;
    SET_GENERAL_ERROR(error, "Failed recursively setting ownership of files in %s: %s", tree.path().c_str(),
                      system_error_text(failed != 0 ? failed : result).c_str());
    return false;
}

bool prepare_scripts(const Setup& setup, const AreaDirectory& tree, VelkctlError** error) {
    for (const auto& script : {setup.parsed.postInstallScript, setup.parsed.preUninstallScript})
        if (script && !prepare_install_script(install_script_policy(), tree, *script, error))
            return false;
    return true;
}

/** Give the application directory itself away; the store's own link to it is followed and stays the system's.
 */
bool own_application_directory(const Setup& setup, std::optional<mode_t> mode, VelkctlError** error) {
    const std::optional<AreaDirectory> directory = open_area(setup.directory, error);
    return directory &&
           set_open_owner(directory->fd(), directory->path(), setup.uid, setup.admin_gid, error) &&
           (!mode || set_open_mode(directory->fd(), directory->path(), *mode, error));
}

/** The groups by which the device itself shares an application's files; any other is that of the user it has
 * or had. */
std::vector<gid_t> sharing_groups() {
    std::vector<gid_t> groups;
    for (const char* name : {"root", "admin", "operator", "viewer", "www"}) {
        ErrorSlot unknown;
        groups.push_back(find_group_id(name, unknown));
    }
    return groups;
}

/**
 * What an application on the first card or in the layer store has written lies in a layer of its own, where
 * it outlives a teardown. Its user may have another number by now, and the old one may be another
 * application's: what was the user's is the user's again. The system's own files there stay the system's.
 */
bool own_writable_layer(const Setup& setup, VelkctlError** error) {
    // A layer must not be changed while it is mounted, and the layer store's is mounted by now.
    const std::string root =
        setup.on_layers() ? setup.directory : store_path(setup.app, setup.location) + "/upper";
    if (!is_directory(root))
        return true;
    const std::optional<AreaDirectory> layer = open_area(root, error);
    const gid_t own_gid = find_group_id(setup.user.group, error);
    if (!layer || own_gid == static_cast<gid_t>(-1))
        return false;
    const std::vector<gid_t> shared = sharing_groups();
    int failed = 0;
    const int result = walk_tree(layer->fd(), {}, [&](const TreeEntry& entry) {
        const bool is_shared = std::find(shared.begin(), shared.end(), entry.status.st_gid) != shared.end();
        const gid_t gid = is_shared ? static_cast<gid_t>(-1) : own_gid;
        if (entry.status.st_uid == 0 || entry.status.st_uid == setup.uid ||
            set_entry_owner(entry, setup.uid, gid))
            return true;
        failed = errno;
        return false;
    });
    if (result != 0)
        SET_GENERAL_ERROR(error, "Failed recursively setting ownership of files in %s: %s", root.c_str(),
                          system_error_text(failed != 0 ? failed : result).c_str());
    return result == 0;
}

bool own_files(Setup* setup, VelkctlError** error) {
    if (setup->on_layers())  // the mount's options own the contents
        return own_writable_layer(*setup, error) && own_application_directory(*setup, std::nullopt, error);
    const std::string root =
        setup->on_first_card() ? store_path(setup->app, setup->location) + "/lower" : setup->directory;
    const std::optional<AreaDirectory> tree = open_area(root, error);
    return tree && own_tree(*setup, *tree, error) &&
           (!setup->on_first_card() || own_writable_layer(*setup, error)) &&
           prepare_scripts(*setup, *tree, error) && own_application_directory(*setup, 0755, error);
}

bool check_setting_page(Setup* setup, VelkctlError** error) {
    const json_t* page = configuration_value(*setup, "settingPage");
    return !json_is_string(page) || check_no_path_traversal(json_string_value(page), "settingPage", error);
}

bool set_up_parameters(Setup* setup, VelkctlError** error) {
    return setup_parameters(setup->manifest.get(), setup->directory, setup->app, setup->user.user,
                            setup->user.group, setup->location->kind, error);
}

bool set_up_web(Setup* setup, VelkctlError** error) {
    return setup_http(setup->parsed, setup->directory, setup->on_layers(), setup->user.user,
                      setup->user.group, error);
}

bool link_container_tools(Setup* setup, VelkctlError** error) {
    return !setup->parsed.createDockerSymlinks || !holds_container_tools(setup->directory) ||
           create_container_links(setup->directory, setup->user.user, error);
}

bool create_units(Setup* setup, VelkctlError** error) {
    return create_squashfs_mount_units(setup->parsed, setup->manifest.get(), setup->user.user,
                                       setup->user.group, setup->location, error);
}

bool configure_plugins(Setup* setup, VelkctlError** error) {
    return call_plugins(setup->app, "config", error);
}

bool read_script_timeout(Setup* setup, VelkctlError** error) {
    int32_t configured = 0;
    if (!get_keyfile_int(&configured, paths::kSettingsFile, "Install", "PostInstallScriptTimeout", error))
        return false;
    setup->script_timeout_s = effective_script_timeout(install_script_policy(), configured);
    return true;
}

bool run_post_install_script(Setup* setup, VelkctlError** error) {
    const ScriptRunOptions options = {
        .exec_directly = false,
        .abort_on_ex_config = setup->options.abort_on_script_config_error,
        .fail_on_ex_noperm = true,
        .fail_on_nonzero = false,
        .timeout_s = setup->script_timeout_s,
    };
    const std::optional<std::string>& script = setup->parsed.postInstallScript;
    return !script || run_script_as_user(*script, setup->directory, setup->user.user, options, error);
}

bool reload_services(Setup* setup, VelkctlError** error) {
    if (!setup->options.reload)
        return true;
    if (!systemctl_daemon_reload(error))
        return false;
    reload_web_server();
    return true;
}

/** The overlay that now stands at the application directory has a root of its own. */
bool own_overlay(Setup* setup, VelkctlError** error) {
    return !setup->on_first_card() || own_application_directory(*setup, 0755, error);
}

using Step = bool (*)(Setup*, VelkctlError**);

// In this order: each step builds on what the ones before it made.
constexpr Step STEPS[] = {
    make_user,
    release_images,
    mount_contents,
    require_license,
    validate_with_plugins,
    look_up_owner,
    make_own_directories,
    own_files,
    check_setting_page,
    set_up_parameters,
    set_up_web,
    link_container_tools,
    create_units,
    configure_plugins,
    read_script_timeout,
    run_post_install_script,
    reload_services,
    own_overlay,
};

bool run_steps(Setup* setup, VelkctlError** error) {
    for (const Step step : STEPS)
        if (!step(setup, error))
            return false;
    return true;
}

void undo(const Setup& setup) {
    const Uninterrupted shield;
    ErrorSlot error;
    const bool user_refused = !setup.parsed.userIsDynamic && setup.user.user.empty();
    if (undo_setup(setup.app, user_refused, error) != 0)
        log_warning("Automatic teardown on failed setup failed. Code: %d, Message: %s", error.code(),
                    error.message());
}

bool set_up(const std::string& app, SetupOptions options, VelkctlError** error) {
    const StoreLocation* location = find_app_location(app, error);
    if (!location)
        return false;
    OperationLock lock;
    Setup setup{
        .app = app, .options = options, .location = location, .directory = paths::store_root_path(app)};
    if (!lock_app_not_set_up(app, "setup", &lock, error) || !read_setup_manifest(&setup, error) ||
        !check_location(setup, error) || !check_unit_names(app, setup.manifest.get(), location, error))
        return false;
    if (run_steps(&setup, error))
        return true;
    undo(setup);
    return false;
}

}  // namespace

// A null slot is allowed here and not below, so the steps always get one of their own.
int velkctl_setup(const std::string& app, SetupOptions options, VelkctlError** error) {
    ErrorSlot own;
    const bool done = set_up(app, options, own);
    own.move_to(error);
    return done ? 0 : -1;
}
