#include "manifest/app-user.h"

#include <glib.h>

#include <cassert>

#include "base/handles.h"
#include "manifest/allowlist.h"
#include "manifest/manifest.h"
#include "system/user-database.h"

/** Where a manifest names the user; one that does not is for a user of the application's own. */
static constexpr ManifestPath kUsername = {"velkPackageConf", "setup", "user", "username"};

std::string dynamic_user_name(const std::string& app_name) {
    std::string name = "velk-" + app_name;
    for (char& letter : name)
        letter = g_ascii_tolower(letter);
    return name;
}

bool has_dynamic_user(const json_t* manifest) { return !manifest_object(manifest, nullptr, kUsername); }

std::optional<std::string> get_manifest_app_user(const std::string& app_name, const json_t* manifest,
                                                 bool* is_dynamic, VelkctlError** error) {
    assert(is_dynamic);
    if (has_dynamic_user(manifest)) {
        *is_dynamic = true;
        return dynamic_user_name(app_name);
    }
    if (manifest_object(manifest, nullptr, {"resources", "linux", "user"})) {
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST,
                          "Manifest contains both application specific user and legacy user");
        return std::nullopt;
    }
    std::optional<std::string> user = manifest_string(manifest, error, kUsername);
    if (user)
        *is_dynamic = false;
    return user;
}

std::optional<std::string> application_username(const char* app_name, VelkctlError** error) {
    if (!app_name) {
        set_null_argument_error(error, "application_username", "path");
        return std::nullopt;
    }
    const JsonPtr manifest = load_installed_manifest(app_name, error);
    bool is_dynamic = false;
    return manifest ? get_manifest_app_user(app_name, manifest.get(), &is_dynamic, error) : std::nullopt;
}

std::optional<UserEntry> find_own_user(const std::string& app_name) {
    ErrorSlot unknown;
    const JsonPtr manifest = load_installed_manifest(app_name, unknown);
    if (!manifest || !has_dynamic_user(manifest.get()))
        return std::nullopt;
    std::optional<UserEntry> user = find_user(dynamic_user_name(app_name), unknown);
    return user && user->uid != 0 ? user : std::nullopt;
}

std::optional<AppOwner> application_owner(const char* app_name, VelkctlError** error) {
    std::optional<std::string> user = application_username(app_name, error);
    std::optional<std::string> group = user ? primary_group_of(*user, error) : std::nullopt;
    if (!group)
        return std::nullopt;
    return AppOwner{std::move(*user), std::move(*group)};
}

std::optional<std::vector<std::string>> get_valid_groups_from_manifest(const json_t* manifest,
                                                                       const ParsedManifest* manifest_struct,
                                                                       VelkctlError** error) {
    assert(manifest && manifest_struct);
    std::optional<std::vector<std::string>> groups =
        manifest_strings(manifest, error, {"resources", "linux", "user", "groups"});
    if (!groups || verify_secondary_groups(manifest_struct->appName, *groups, error) != 0)
        return std::nullopt;
    const std::optional<std::vector<std::string>> conditional =
        manifest_strings(manifest, error, {"resources", "linux", "user", "conditionalGroups"});
    if (!conditional)
        return std::nullopt;
    for (const std::string& group : *conditional) {
        if (is_allowlisted_group(group) && group_exists(group))
            groups->push_back(group);
    }
    return groups;
}
