#include "lifecycle/velkctl-firmware-compatibility.h"

#include <cstdlib>
#include <map>
#include <set>

#include "base/handles.h"
#include "base/log.h"
#include "base/paths.h"
#include "lifecycle/preinstalled.h"
#include "lifecycle/velkctl-developer-mode.h"
#include "lifecycle/velkctl-package-conf.h"
#include "manifest/manifest-rules.h"
#include "manifest/manifest.h"
#include "store/velkctl-store.h"
#include "store/velkctl-vsf.h"
#include "system/file.h"
#include "system/key-file.h"

namespace {

/** From this major version on an application needs a manifest that names the firmware it runs on. */
constexpr int32_t kFirstStrictMajor = 13;

/** The question, and the answer as far as it is known. */
struct Inquiry {
    const std::string& version_text;
    Version version;
    std::set<std::string> preinstalled;
    bool unsigned_allowed;
    json_t* incompatible;                        ///< array, borrowed
    std::map<std::string, JsonPtr> manifests{};  ///< those that were read already, by the application's name
};

// --- Entries of the answer ---

/** Texts of the older package form may be anything; JSON holds UTF-8. */
json_t* json_text(const std::string& text) {
    const GStringPtr valid(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
    return json_string(valid.get());
}

void add_entry(const Inquiry& inquiry, const std::string& app, const std::string& friendly_name,
               const std::string& version, int32_t code, const std::string& reason) {
    const std::string description =
        friendly_name + " (" + app + " " + version + "): " + std::to_string(code) + " " + reason;
    json_t* entry = json_object();
    json_object_set_new(entry, "description", json_text(description));
    json_object_set_new(entry, "appName", json_text(app));
    json_object_set_new(entry, "friendlyName", json_text(friendly_name));
    json_object_set_new(entry, "version", json_text(version));
    json_object_set_new(entry, "error", json_integer(code));
    json_array_append_new(inquiry.incompatible, entry);
}

void add_manifest_entry(const Inquiry& inquiry, const std::string& app, const json_t* manifest, int32_t code,
                        const std::string& reason) {
    std::optional<std::string> friendly_name =
        manifest_string(manifest, nullptr, {"velkPackageConf", "setup", "friendlyName"});
    if (!friendly_name)
        friendly_name = manifest_app_name(manifest, nullptr).value_or(app);
    const std::string version = manifest_version(manifest, nullptr).value_or("unknown");
    add_entry(inquiry, app, *friendly_name, version, code, reason);
}

// --- Applications without a manifest ---

void add_legacy_entry(const Inquiry& inquiry, const std::string& app) {
    ErrorSlot absent;
    const std::string conf = read_file(paths::store_root_path(app) + "/package.conf", absent).value_or("");
    const auto value = [&conf](const char* key) {
        ErrorSlot refused;
        return find_package_conf_value(conf, key, refused);
    };
    std::optional<std::string> friendly_name = value("PACKAGENAME");
    if (!friendly_name)
        friendly_name = value("APPNAME").value_or(app);
    ErrorSlot incomplete;
    const std::string version = package_conf_version(conf, incomplete).value_or("unknown");
    add_entry(inquiry, app, *friendly_name, version, VELKCTL_ERROR_INVALID_PACKAGE,
              "Applications without a manifest.json file are no longer supported.");
}

/** The names of the applications that a filter keeps; what could not be enumerated is a warning. */
std::vector<std::string> enumerate(const PathFilter& filter, const char* kind) {
    ErrorSlot trouble;
    std::vector<std::string> names = collect_app_names(filter, trouble);
    if (trouble.is_set())
        log_warning("Could not enumerate %s apps: %s", kind, trouble.message());
    return names;
}

void examine_legacy_apps(Inquiry& inquiry) {
    // An application is of the older form when its manifest cannot be read; one that was read is kept for
    // later.
    const auto is_legacy = [&inquiry](const std::string& path) {
        if (!holds_package_conf(path))
            return false;
        ErrorSlot not_readable;
        JsonPtr manifest = load_manifest(path, not_readable);
        const bool legacy = !manifest;
        if (manifest)
            inquiry.manifests[base_name(path)] = std::move(manifest);
        return legacy;
    };
    for (const std::string& app : enumerate(is_legacy, "legacy")) {
        if (inquiry.preinstalled.contains(app))
            log_info("Skipping preinstalled legacy app: %s", app.c_str());
        else
            add_legacy_entry(inquiry, app);
    }
}

// --- Applications with a manifest ---

bool unsigned_will_be_allowed(const std::string& version_text) {
    ErrorSlot unreadable;
    const bool setting =
        get_keyfile_bool(paths::kSettingsFile, "Install", "AllowUnsigned", false, unreadable);
    if (unreadable.is_set()) {
        log_warning(
            "Could not determine if unsigned apps are allowed for firmware version %s: %s. Proceeding as not "
            "allowed.",
            version_text.c_str(), unreadable.message());
        return false;
    }
    ErrorSlot unknown;
    return (setting && path_exists(paths::kDevelopmentMarker, unknown)) || get_developer_mode();
}

void examine_ranges(const Inquiry& inquiry, const std::string& app, const json_t* manifest) {
    ErrorSlot error;
    const std::optional<ParsedManifest> parsed = parse_manifest_leniently(manifest, error);
    if (!parsed) {
        // Whoever reads the log is told what is wrong; which application it is stands in the line before.
        log_warning("Could not parse manifest for %s", error.message());
        return;
    }
    if (!parsed->osVersionRanges) {
        if (inquiry.version.major >= kFirstStrictMajor)
            add_manifest_entry(inquiry, app, manifest, VELKCTL_ERROR_INVALID_MANIFEST,
                               "Manifest is missing required field 'compatibleOsVersions'.");
        return;
    }
    if (!check_compatibility(inquiry.version, *parsed->osVersionRanges, error))
        add_manifest_entry(inquiry, app, manifest, error.code(), error.message());
}

/** The manifest of an application, from what was read already when it was. */
JsonPtr take_manifest(Inquiry& inquiry, const std::string& app) {
    const auto read = inquiry.manifests.find(app);
    if (read != inquiry.manifests.end())
        return std::move(read->second);
    ErrorSlot unreadable;
    JsonPtr manifest = load_installed_manifest(app, unreadable);
    if (!manifest)
        log_warning("Could not load manifest for %s: %s", app.c_str(), unreadable.message());
    return manifest;
}

void examine_manifest_app(Inquiry& inquiry, const std::string& app) {
    if (inquiry.preinstalled.contains(app)) {
        log_info("Skipping preinstalled manifest app: %s", app.c_str());
        return;
    }
    const bool is_refused = !inquiry.unsigned_allowed && !vsf_is_confirmed(app);
    const JsonPtr manifest = take_manifest(inquiry, app);
    if (!is_refused)
        examine_ranges(inquiry, app, manifest.get());
    else if (manifest)
        add_manifest_entry(inquiry, app, manifest.get(), VELKCTL_ERROR_SIGNATURE,
                           "Unsigned apps are not allowed.");
}

std::string answer_text(json_t* incompatible) {
    if (json_array_size(incompatible) == 0)
        return "{}";
    const JsonPtr answer(json_pack("{s:O}", "incompatible_apps", incompatible));
    const std::unique_ptr<char, ReleaseWith<std::free>> text(json_dumps(answer.get(), JSON_COMPACT));
    return text.get();
}

}  // namespace

std::optional<std::string> velkctl_firmware_compatibility(const std::string& version, VelkctlError** error) {
    const std::optional<Version> parsed = parse_firmware_version_string(version.c_str(), error);
    if (!parsed)
        return std::nullopt;
    const JsonPtr incompatible(json_array());
    Inquiry inquiry = {version, *parsed, cached_preinstalled_names(), true, incompatible.get()};
    if (parsed->major >= kFirstStrictMajor) {
        examine_legacy_apps(inquiry);
        inquiry.unsigned_allowed = unsigned_will_be_allowed(version);
    }
    // Not has_manifest, which would load each manifest once more and hide those that are broken.
    for (const std::string& app : enumerate(holds_manifest_file, "manifest"))
        examine_manifest_app(inquiry, app);
    std::string text = answer_text(incompatible.get());
    if (text != "{}")
        log_info("For fw version %s the following apps are incompatible: %s", version.c_str(), text.c_str());
    return text;
}
