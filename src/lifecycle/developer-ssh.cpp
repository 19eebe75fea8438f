#include <glib.h>

#include <algorithm>

#include "base/handles.h"
#include "base/log.h"
#include "integration/users.h"
#include "lifecycle/velkctl-developer-mode.h"
#include "lifecycle/velkctl-list.h"
#include "manifest/app-user.h"
#include "manifest/developer-mode-fields.h"
#include "manifest/manifest-rules.h"
#include "manifest/manifest.h"
#include "system/user-database.h"

static constexpr const char* kSshGroup = "ssh-users";

static std::optional<std::vector<std::string>> groups_of_app(const std::string& app_name,
                                                             VelkctlError** error) {
    const std::optional<std::string> user = application_username(app_name.c_str(), error);
    return user ? supplementary_groups(*user, error) : std::nullopt;
}

bool enable_ssh_for_app(const std::string& app_name, VelkctlError** error) {
    std::optional<std::vector<std::string>> groups = groups_of_app(app_name, error);
    if (!groups)
        return false;
    if (std::find(groups->begin(), groups->end(), kSshGroup) != groups->end()) {
        log_info("SSH access is already enabled for app %s", app_name.c_str());
        return true;
    }
    groups->push_back(kSshGroup);
    std::sort(groups->begin(), groups->end());
    if (!modify_user(app_name, *groups, error))
        return false;
    log_info("Enabled SSH access for app %s", app_name.c_str());
    return true;
}

bool enable_ssh_for_app_if_dynamic_user(const ParsedManifest& installed_manifest, VelkctlError** error) {
    if (installed_manifest.userIsDynamic)
        return enable_ssh_for_app(installed_manifest.appName, error);
    log_info("SSH access is not granted for '%s' running as static user.",
             installed_manifest.appName.c_str());
    return true;
}

bool disable_ssh_for_app(const std::string& app_name, VelkctlError** error) {
    std::optional<std::vector<std::string>> groups = groups_of_app(app_name, error);
    if (!groups)
        return false;
    if (std::erase(*groups, kSshGroup) == 0)
        return true;
    const JsonPtr manifest = load_installed_manifest(app_name, error);
    const std::optional<ParsedManifest> parsed =
        manifest ? parse_manifest_leniently(manifest.get(), error) : std::nullopt;
    if (!parsed)
        return false;
    if (!parsed->userIsDynamic) {
        SET_GENERAL_ERROR(error, "Application '%s' uses a static user with SSH enabled", app_name.c_str());
        return false;
    }
    std::sort(groups->begin(), groups->end());
    return modify_user(app_name, *groups, error);
}

/** A text of one application in the listing; a missing one is a warning. */
static std::optional<std::string> listed_text(const json_t* listed, const char* key) {
    const char* text = json_string_value(json_object_get(listed, key));
    if (text)
        return text;
    log_warning("Failed getting %s field from velkctl list.", key);
    return std::nullopt;
}

static bool enable_ssh_for_listed(const json_t* listed, const std::string& vendor, VelkctlError** error) {
    const std::optional<std::string> installed = listed_text(listed, "fullyInstalled");
    if (!installed || *installed != "Yes")
        return true;
    const std::optional<std::string> app = listed_text(listed, "appName");
    if (!app)
        return true;
    ErrorSlot absent;
    const JsonPtr manifest = load_installed_manifest(*app, absent);
    if (!manifest) {
        log_warning("Cannot enable SSH for app %s: manifest not found", app->c_str());
        return true;
    }
    ErrorSlot unparsable;
    const std::optional<ParsedManifest> parsed = parse_manifest_leniently(manifest.get(), unparsable);
    if (!parsed) {
        const std::string preamble = "Cannot enable SSH for app " + *app + ": failed to parse manifest: ";
        warn_and_clear_error_with_preamble(preamble.c_str(), unparsable, nullptr);
        return true;
    }
    const bool is_of_vendor =
        parsed->vendorId && g_ascii_strcasecmp(parsed->vendorId->c_str(), vendor.c_str()) == 0;
    if (!is_of_vendor || is_developer_mode_velk(manifest.get()))
        return true;
    return enable_ssh_for_app_if_dynamic_user(*parsed, error);
}

bool enable_ssh_for_vendor(const DeveloperModeRecord& record, VelkctlError** error) {
    const std::optional<std::string> text = velkctl_list_all(error);
    if (!text)
        return false;
    const JsonPtr listing(json_loadb(text->data(), text->size(), 0, nullptr));
    if (!json_is_array(listing.get())) {
        velkctl_error_set(error, VELKCTL_ERROR_GENERAL,
                          "Got invalid or unexpected JSON from velkctl_list_all.");
        return false;
    }
    for (size_t i = 0; i < json_array_size(listing.get()); i++) {
        if (!enable_ssh_for_listed(json_array_get(listing.get(), i), record.vendorId, error))
            return false;
    }
    return true;
}
