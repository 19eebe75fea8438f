#include "lifecycle/velkctl-list.h"

#include <cassert>
#include <cstdlib>
#include <map>
#include <set>
#include <vector>

#include "base/handles.h"
#include "base/log.h"
#include "base/paths.h"
#include "integration/runstate.h"
#include "lifecycle/preinstalled.h"
#include "lifecycle/velkctl-package-conf.h"
#include "manifest/developer-mode-fields.h"
#include "manifest/manifest.h"
#include "manifest/names.h"
#include "store/lock.h"
#include "store/velkctl-store.h"
#include "store/velkctl-vsf.h"
#include "system/file.h"
#include "system/subprocess.h"
#include "system/systemctl.h"

namespace {

/** A manifest key that the listing copies, and how people call it. */
struct ListedKey {
    const char* key;
    const char* label;
};

const ListedKey kSetupKeys[] = {
    {"appId", "Application ID:"},
    {"appName", "Application Name:"},
    {"friendlyName", "Friendly Name:"},
    {"vendor", "Vendor:"},
    {"vendorUrl", "Vendor URL:"},
    {"version", "Version:"},
    {"labels", "Labels:"},
    {"compatibleOsVersions", "Compatible OS Versions:"},
};
const ListedKey kConfigurationKeys[] = {
    {"settingPage", "Configuration Page:"},
};

const char* yes_or_no(bool yes) { return yes ? "Yes" : "No"; }

void set_text(json_t* object, const char* key, const char* text) {
    json_object_set_new(object, key, json_string(text));
}

std::string dump(const json_t* json, size_t flags) {
    const std::unique_ptr<char, ReleaseWith<std::free>> text(json_dumps(json, flags));
    assert(text);
    return text.get();
}

void copy_setup_keys(json_t* object, const json_t* manifest) {
    for (const ListedKey& listed : kSetupKeys)
        if (json_t* value = manifest_object(manifest, nullptr, {"velkPackageConf", "setup", listed.key}))
            json_object_set(object, listed.key, value);
}

/** What is known of the device before the applications are described. */
struct Known {
    std::set<std::string> preinstalled;
    std::map<std::string, bool> active;
};

void add_status(json_t* object, const std::string& app, const Known& known) {
    ErrorSlot error;
    const auto told = known.active.find(app);
    const std::optional<bool> active =
        told != known.active.end() ? std::optional(told->second) : is_application_active(app, error);
    log_error(error.get());
    if (active)
        set_text(object, "status", *active ? "Running" : "Stopped");
    else
        json_object_set_new(object, "status", json_null());
}

void add_autostart(json_t* object, const std::string& app) {
    ErrorSlot error;
    const bool enabled = runstate_is_enabled(app.c_str(), error);
    // Code 10 is, for instance, an application that was never started: there is no run state yet.
    if (error.is_set() && error.code() != VELKCTL_ERROR_GENERAL)
        log_error(error.get());
    else
        set_text(object, "autostart", enabled ? "Enabled" : "Disabled");
}

void add_resources(json_t* object, const json_t* manifest) {
    const json_t* enabled =
        manifest_object(manifest, nullptr, {"resources", "deepLearningProcessor", "enabled"});
    json_object_set_new(object, "resources",
                        json_pack("[{s:s}]", "deepLearningProcessor", yes_or_no(json_is_true(enabled))));
}

void add_signature_status(json_t* object, const std::string& app) {
    ErrorSlot error;
    const std::optional<std::string> state = read_vsf_state(app, error);
    warn_and_clear_error(error, nullptr);
    set_text(object, "signatureStatus", state == "confirmed" ? "Signed" : "Unknown");
}

void add_setting_page(json_t* object, const json_t* manifest, const std::string& app) {
    for (const ListedKey& listed : kConfigurationKeys) {
        json_t* value = manifest_object(manifest, nullptr, {"velkPackageConf", "configuration", listed.key});
        if (json_is_string(value))
            set_text(object, listed.key, ("local/" + app + "/" + json_string_value(value)).c_str());
        else if (value)
            json_object_set(object, listed.key, value);
    }
}

void add_device_state(json_t* object, const json_t* manifest, const std::string& app, const Known& known) {
    add_status(object, app, known);
    add_autostart(object, app);
    set_text(object, "bundled", yes_or_no(known.preinstalled.contains(app)));
    set_text(object, "fullyInstalled", yes_or_no(is_set_up(app)));
    add_resources(object, manifest);
    set_text(object, "developerMode", yes_or_no(is_developer_mode_velk(manifest)));
    add_signature_status(object, app);
    add_setting_page(object, manifest, app);
}

/** One application's object. */
JsonPtr describe(const json_t* manifest, const Known& known) {
    ErrorSlot no_name;
    const std::optional<std::string> name =
        manifest_string(manifest, no_name, {"velkPackageConf", "setup", "appName"});
    log_error(no_name.get());
    JsonPtr object(json_object());
    copy_setup_keys(object.get(), manifest);
    if (name)
        add_device_state(object.get(), manifest, *name, known);
    return object;
}

/** Asked at once for all of them: a question for each takes most of the time of a listing. */
Known ask_device(const std::vector<JsonPtr>& manifests) {
    std::vector<std::string> names;
    for (const JsonPtr& manifest : manifests)
        if (std::optional<std::string> name = manifest_app_name(manifest.get(), nullptr))
            names.push_back(std::move(*name));
    return {preinstalled_names(), active_applications(names)};
}

std::string list_apps(const std::vector<JsonPtr>& manifests) {
    const JsonPtr list(json_array());
    const Known known = manifests.empty() ? Known{} : ask_device(manifests);
    for (const JsonPtr& manifest : manifests)
        json_array_append_new(list.get(), describe(manifest.get(), known).release());
    return dump(list.get(), JSON_INDENT(4));
}

bool require_listed(const std::string& app, VelkctlError** error) {
    return is_valid_app_name(app, error) && require_app_present(app, error);
}

/** The names of the applications in the store that a filter accepts, or nothing when one could not be looked
 * at. */
std::optional<std::vector<std::string>> store_names(const PathFilter& filter, VelkctlError** error) {
    ErrorSlot trouble;
    std::vector<std::string> names = collect_app_names(filter, trouble);
    if (!trouble.is_set())
        return names;
    trouble.move_to(error);
    return std::nullopt;
}

std::optional<std::string> size_line(const std::string& path, VelkctlError** error) {
    std::string output;
    if (run_command_with_output(&output, error, "du -s '%s'", {path.c_str()}) != 0)
        return std::nullopt;
    return output.substr(0, output.find('\t')) + "\t" + base_name(path) + "\n";
}

/** Whether a directory of a location is an application that is kept there, and not only linked. */
bool is_kept_at(const std::string& app, const StoreLocation* location) {
    ErrorSlot elsewhere;
    return is_valid_app_name(app, elsewhere) && find_app_location(app, elsewhere) == location;
}

std::optional<std::string> setup_text(const json_t* manifest, const char* key, VelkctlError** error) {
    return manifest_string(manifest, error, {"velkPackageConf", "setup", key});
}

std::optional<std::string> value_of_manifest(const json_t* manifest, int option, VelkctlError** error) {
    if (option == LIST_VERSION)
        return setup_text(manifest, "version", error);
    ErrorSlot none;
    const std::optional<std::string> friendly_name = setup_text(manifest, "friendlyName", none);
    return friendly_name ? friendly_name : setup_text(manifest, "appName", error);
}

std::optional<std::string> value_of_package_conf(const std::string& text, int option, VelkctlError** error) {
    if (option == LIST_VERSION)
        return package_conf_version(text, error);
    ErrorSlot none;
    const std::optional<std::string> package_name = find_package_conf_value(text, "PACKAGENAME", none);
    return package_name ? package_name : find_package_conf_value(text, "APPNAME", error);
}

}  // namespace

std::optional<std::string> velkctl_list_all(VelkctlError** error) {
    // Whatever has a manifest that can be read is an application: what was read to see that is kept.
    std::vector<JsonPtr> manifests;
    const auto read_manifest = [&manifests](const std::string& path) {
        ErrorSlot not_readable;
        JsonPtr manifest = load_manifest(path, not_readable);
        if (manifest)
            manifests.push_back(std::move(manifest));
        return !not_readable.is_set();
    };
    return store_names(read_manifest, error) ? std::optional(list_apps(manifests)) : std::nullopt;
}

std::optional<std::string> velkctl_list_one(const std::string& app, VelkctlError** error) {
    if (!require_listed(app, error))
        return std::nullopt;
    std::vector<JsonPtr> manifests;
    manifests.push_back(load_installed_manifest(app, error));
    return manifests.front() ? std::optional(list_apps(manifests)) : std::nullopt;
}

std::optional<std::string> velkctl_list_option(const std::string& app, int option, VelkctlError** error) {
    assert(option == LIST_FRIENDLY_NAME || option == LIST_VERSION);
    if (!require_listed(app, error))
        return std::nullopt;
    ErrorSlot no_manifest;
    if (const JsonPtr manifest = load_installed_manifest(app, no_manifest))
        return value_of_manifest(manifest.get(), option, error);
    ErrorSlot no_package_conf;
    const std::optional<std::string> conf =
        read_file(paths::store_root_path(app) + "/package.conf", no_package_conf);
    if (conf)
        return value_of_package_conf(*conf, option, error);
    no_manifest.move_to(error);
    return std::nullopt;
}

std::optional<std::string> velkctl_list_legacy(VelkctlError** error) {
    const std::optional<std::vector<std::string>> apps = store_names(is_legacy_app, error);
    if (!apps)
        return std::nullopt;
    const JsonPtr list(json_array());
    for (const std::string& app : *apps)
        json_array_append_new(list.get(), json_string(app.c_str()));
    return dump(list.get(), JSON_COMPACT);
}

std::optional<std::string> velkctl_list_sizes(VelkctlError** error) {
    std::string text;
    for (const StoreLocation& location : all_locations()) {
        if (!is_directory(location.path))
            continue;
        ErrorSlot trouble;
        for (const std::string& path :
             collect_paths(location.path, std::nullopt, is_directory_no_follow, trouble)) {
            if (!is_kept_at(base_name(path), &location))
                continue;
            const std::optional<std::string> line = size_line(path, error);
            if (!line)
                return std::nullopt;
            text += *line;
        }
        if (trouble.is_set()) {
            trouble.move_to(error);
            return std::nullopt;
        }
    }
    return text;
}

std::optional<std::string> velkctl_list_bundled(VelkctlError** error) { return preinstalled_list(error); }
