#include "integration/users.h"

#include "manifest/allowlist.h"
#include "manifest/app-user.h"
#include "manifest/manifest.h"
#include "platform/dlpu.h"
#include "system/dbus-call.h"
#include "system/systemctl.h"
#include "system/user-database.h"
#include "system/user-processes.h"

namespace {

// Methods that would let an application reach beyond its own rights. An entry matches only a method that
// begins with it and does not hold it again further on, so a wildcard entry refuses the wildcard itself and
// not what it stands for.
constexpr const char* DENIED_METHODS[] = {
    "*",
    "com.*",
    "com.orvo.*",
    "com.orvo.policykit-system.*",
    "com.orvo.policykit-system.restrictrootaccess",
    "com.orvo.keystore1.*",
    "com.orvo.keystore1.getreferencekey.*",
    "com.orvo.keystore1.getreferencekey.signedvideo",
    "com.orvo.ssh.",
    "com.orvo.usermanagement1.",
    "com.orvo.velkmanager1.",
    "com.orvo.addonmanager.",
    "com.orvo.addondevmode1.",
    "com.orvo.addonexample1.",
};

constexpr const char* DLPU_METHOD = "com.orvo.Nerva1.DlpuAuth";

// The user-management service's name for users that belong to applications.
constexpr const char* USER_NAMESPACE = "velk";

std::string lower_cased(const std::string& text) {
    std::string lower = text;
    for (char& character : lower)
        character = g_ascii_tolower(character);
    return lower;
}

bool call_user_management(const char* method, GVariant* parameters, VelkctlError** error) {
    return dbus_call("com.orvo.UserManagement1", "/com/orvo/UserManagement1",
                     "com.orvo.UserManagement1.Application", method, parameters, error) != nullptr;
}

bool call_with_list(const char* method, const std::string& app, const std::vector<std::string>& list,
                    VelkctlError** error) {
    std::vector<const char*> items;
    items.reserve(list.size() + 1);
    for (const std::string& item : list)
        items.push_back(item.c_str());
    items.push_back(nullptr);
    return call_user_management(
        method, g_variant_new("(ss^as)", USER_NAMESPACE, lower_cased(app).c_str(), items.data()), error);
}

bool fail_manifest(VelkctlError** error, const char* message) {
    velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST, "%s", message);
    return false;
}

bool user_exists(const std::string& name) {
    ErrorSlot ignored;
    return find_user(name, ignored).has_value();
}

/** The rules for a manifest that names an existing user. */
bool check_static_rules(const json_t* manifest, const ParsedManifest& parsed, const std::string& user,
                        const std::optional<std::string>& group, VelkctlError** error) {
    if (manifest_object(manifest, nullptr, {"resources", "dbus"}))
        return fail_manifest(error, "Manifest contains dbus methods together with a legacy user");
    if (parsed.dlpuEnabled)
        return fail_manifest(error, "Manifest requests DLPU access together with a legacy user");
    if (!group)
        return fail_manifest(error, "Manifest contains one of user/group but lacks the other");
    if (!user_exists(user))
        return fail_manifest(error, "User in manifest does not exist");
    if (!group_exists(*group))
        return fail_manifest(error, "Group in manifest does not exist");
    return true;
}

}  // namespace

bool add_user(const std::string& app, const std::vector<std::string>& groups, VelkctlError** error) {
    return call_with_list("AddUser", app, groups, error);
}

bool modify_user(const std::string& app, const std::vector<std::string>& groups, VelkctlError** error) {
    return call_with_list("ModifyUser", app, groups, error);
}

bool remove_user(const std::string& app, VelkctlError** error) {
    return call_user_management("RemoveUser", g_variant_new("(ss)", USER_NAMESPACE, lower_cased(app).c_str()),
                                error);
}

bool set_api_access_rights(const std::string& app, const std::vector<std::string>& methods,
                           VelkctlError** error) {
    return call_with_list("SetAPIAccessRights", app, methods, error);
}

void end_left_processes(const std::string& app) {
    const std::optional<UserEntry> user = find_own_user(app);
    if (!user || count_processes_of_user(user->uid) == 0)
        return;
    // An upgrade saves the data before it refuses an application that runs.
    ErrorSlot unknown;
    if (is_application_active(app, unknown) == std::optional(false))
        end_processes_of_user(user->uid, user->name);
}

const char* find_denied_method_entry(const std::string& method) {
    const std::string lower = lower_cased(method);
    for (const char* entry : DENIED_METHODS)
        if (lower.rfind(entry) == 0)
            return entry;
    return nullptr;
}

std::optional<std::vector<std::string>> requested_methods(const json_t* manifest, VelkctlError** error) {
    std::optional<std::vector<std::string>> methods =
        manifest_strings(manifest, error, {"resources", "dbus", "requiredMethods"});
    const std::optional<std::vector<std::string>> conditional =
        methods ? manifest_strings(manifest, error, {"resources", "dbus", "conditionalMethods"})
                : std::nullopt;
    if (!conditional)
        return std::nullopt;
    methods->insert(methods->end(), conditional->begin(), conditional->end());
    for (const std::string& method : *methods) {
        const char* entry = find_denied_method_entry(method);
        if (!entry)
            continue;
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST,
                          "Manifest contains the disallowed dbus method \"%s\"", entry);
        return std::nullopt;
    }
    return methods;
}

std::optional<AppUser> create_dynamic_user(const json_t* manifest, const ParsedManifest& parsed,
                                           VelkctlError** error) {
    const std::optional<std::vector<std::string>> groups =
        get_valid_groups_from_manifest(manifest, &parsed, error);
    if (!groups)
        return std::nullopt;
    const bool made = user_exists(parsed.user) ? modify_user(parsed.appName, *groups, error)
                                               : add_user(parsed.appName, *groups, error);
    const std::optional<std::string> group = made ? primary_group_of(parsed.user, error) : std::nullopt;
    return group ? std::optional(AppUser{parsed.user, *group, *groups}) : std::nullopt;
}

bool grant_api_access(const json_t* manifest, const ParsedManifest& parsed, VelkctlError** error) {
    std::optional<std::vector<std::string>> methods = requested_methods(manifest, error);
    if (!methods)
        return false;
    if (parsed.dlpuRequired && !device_has_dlpu()) {
        velkctl_error_set(error, VELKCTL_ERROR_NO_DLPU,
                          "No DLPU support on the device, DLPU access not granted");
        return false;
    }
    if (parsed.dlpuEnabled)
        methods->emplace_back(DLPU_METHOD);
    return set_api_access_rights(parsed.appName, *methods, error);
}

std::optional<AppUser> check_static_user(const std::string& app, const json_t* manifest,
                                         const ParsedManifest& parsed, VelkctlError** error) {
    bool is_dynamic = false;
    const std::optional<std::string> user = get_manifest_app_user(app, manifest, &is_dynamic, error);
    std::optional<std::string> group;
    if (!user ||
        !manifest_optional_string(manifest, &group, error, {"velkPackageConf", "setup", "user", "group"}) ||
        !check_static_rules(manifest, parsed, *user, group, error) ||
        verify_user_and_group(app, *user, *group, error) != 0)
        return std::nullopt;
    return AppUser{*user, *group, {}};
}
