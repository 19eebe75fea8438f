#include "manifest/manifest-rules.h"

#include <cassert>
#include <span>
#include <string>

#include "manifest/app-user.h"
#include "manifest/developer-mode-fields.h"
#include "manifest/manifest.h"
#include "manifest/names.h"
#include "system/regex.h"

static constexpr const char* kSemanticVersion =
    R"(^(0|[1-9]\d*)\.(0|[1-9]\d*)\.(0|[1-9]\d*))"
    R"((?:-((?:0|[1-9]\d*|\d*[a-zA-Z-][0-9a-zA-Z-]*)(?:\.(?:0|[1-9]\d*|\d*[a-zA-Z-][0-9a-zA-Z-]*))*))?)"
    R"((?:\+([0-9a-zA-Z-]+(?:\.[0-9a-zA-Z-]+)*))?$)";
static constexpr const char* kPartialVersion = R"(^(0|[1-9]\d*)(\.(0|[1-9]\d*)){0,2}$)";

static bool fail(VelkctlError** error, const char* text) {
    velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST, "%s", text);
    return false;
}

bool read_sem_version_or_fail_with_invalid_manifest(const json_t* object, const char* key,
                                                    const char* pattern, Version* version,
                                                    InvalidVersionHandler on_invalid, VelkctlError** error) {
    assert(version);
    const std::optional<std::string> text = manifest_string(object, error, {key});
    if (!text)
        return false;
    ErrorSlot engine;
    const bool matches = check_regex(pattern, *text, engine);
    if (engine.is_set()) {
        engine.move_to(error);
        return false;
    }
    if (matches && scan_version(text->c_str(), version) >= 1)
        return true;
    on_invalid(error, text->c_str());
    return false;
}

/*
 * The steps of the parse, in order. A step fills its fields when it succeeds and leaves them empty when it
 * fails.
 */

static bool read_app_name(const json_t* root, ParsedManifest* parsed, VelkctlError** error) {
    std::optional<std::string> name = manifest_app_name(root, error);
    if (!name || !check_manifest_app_name(*name, error))
        return false;
    parsed->appName = std::move(*name);
    return true;
}

static bool read_friendly_name(const json_t* root, ParsedManifest* parsed, VelkctlError** error) {
    std::optional<std::string> name;
    if (!manifest_optional_string(root, &name, error, {"velkPackageConf", "setup", "friendlyName"}) ||
        !check_no_newline(name, "friendlyName", error))
        return false;
    parsed->friendlyName = std::move(name);
    return true;
}

static void set_version_error(VelkctlError** error, const char* text) {
    velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST,
                      "Version '%s' does not follow the semantic version format", text);
}

static bool read_version(const json_t* root, ParsedManifest* parsed, VelkctlError** error) {
    const json_t* setup = manifest_object(root, nullptr, {"velkPackageConf", "setup"});
    return read_sem_version_or_fail_with_invalid_manifest(setup, "version", kSemanticVersion,
                                                          &parsed->version, set_version_error, error);
}

static bool read_vendor_id(const json_t* root, ParsedManifest* parsed, VelkctlError** error) {
    return manifest_optional_string(root, &parsed->vendorId, error, {"velkPackageConf", "setup", "vendorId"});
}

static bool read_architecture(const json_t* root, ParsedManifest* parsed, VelkctlError** error) {
    return manifest_optional_string(root, &parsed->architecture, error,
                                    {"velkPackageConf", "setup", "architecture"});
}

static bool read_developer_mode(const json_t* root, ParsedManifest* parsed, VelkctlError** error) {
    if (!is_developer_mode_velk(root))
        return true;
    DeveloperModeRecord record;
    if (!read_developer_mode_fields(root, &record, error))
        return false;
    parsed->developerMode = std::move(record);
    return true;
}

static bool check_device(const json_t*, ParsedManifest* parsed, VelkctlError** error) {
    if (!parsed->developerMode || check_developer_mode_device(*parsed->developerMode, error))
        return true;
    parsed->developerMode.reset();
    return false;
}

static bool read_user(const json_t* root, ParsedManifest* parsed, VelkctlError** error) {
    // Without an accepted application name there is no user name to form, and the missing name was reported.
    if (parsed->appName.empty())
        return true;
    std::optional<std::string> user =
        get_manifest_app_user(parsed->appName, root, &parsed->userIsDynamic, error);
    if (!user)
        return false;
    parsed->user = std::move(*user);
    return true;
}

static bool read_run_options(const json_t* root, ParsedManifest* parsed, VelkctlError** error) {
    std::optional<std::string> options;
    if (!manifest_optional_string(root, &options, error, {"velkPackageConf", "setup", "runOptions"}) ||
        !check_no_newline(options, "runOptions", error))
        return false;
    parsed->runOptions = std::move(options).value_or("");
    return true;
}

static bool read_run_mode(const json_t* root, ParsedManifest* parsed, VelkctlError** error) {
    std::optional<std::string> mode = manifest_string(root, error, {"velkPackageConf", "setup", "runMode"});
    if (!mode || !check_no_newline(mode, "runMode", error))
        return false;
    parsed->runMode = std::move(*mode);
    return true;
}

static void set_range_value_error(VelkctlError** error, const char* text) {
    velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST,
                      "compatibleOsVersions contains invalid values: '%s'", text);
}

static bool read_range_end(const json_t* element, const char* key, Version* end, VelkctlError** error) {
    return read_sem_version_or_fail_with_invalid_manifest(element, key, kPartialVersion, end,
                                                          set_range_value_error, error);
}

static bool read_range(const json_t* element, VersionRange* range, VelkctlError** error) {
    if (!json_is_object(element))
        return fail(error, "compatibleOsVersions element is not an object");
    if (!read_range_end(element, "min", &range->min, error) ||
        !read_range_end(element, "max", &range->max, error))
        return false;
    const Version min = complete_lower_bound(range->min);
    const Version max = complete_upper_bound(range->max);
    if (version_compare(&min, &max) <= 0)
        return true;
    velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST,
                      "Invalid compatibleOsVersions range: min %s > max %s",
                      format_version(range->min).c_str(), format_version(range->max).c_str());
    return false;
}

static const json_t* os_version_list(const json_t* root) {
    return manifest_object(root, nullptr, {"velkPackageConf", "setup", "compatibleOsVersions"});
}

static bool read_os_version_ranges(const json_t* root, ParsedManifest* parsed, VelkctlError** error) {
    const json_t* list = os_version_list(root);
    if (!list)
        return true;
    if (!json_is_array(list))
        return fail(error, "compatibleOsVersions in manifest is not an array");
    if (json_array_size(list) == 0)
        return fail(error, "compatibleOsVersions in manifest cannot be empty");
    std::vector<VersionRange> ranges(json_array_size(list));
    for (size_t i = 0; i < ranges.size(); i++) {
        if (!read_range(json_array_get(list, i), &ranges[i], error))
            return false;
    }
    parsed->osVersionRanges = std::move(ranges);
    return true;
}

static bool read_post_install_script(const json_t* root, ParsedManifest* parsed, VelkctlError** error) {
    return manifest_optional_string(root, &parsed->postInstallScript, error,
                                    {"velkPackageConf", "installation", "postInstallScript"});
}

static bool read_pre_uninstall_script(const json_t* root, ParsedManifest* parsed, VelkctlError** error) {
    return manifest_optional_string(root, &parsed->preUninstallScript, error,
                                    {"velkPackageConf", "uninstallation", "preUninstallScript"});
}

static bool read_app_id(const json_t* root, ParsedManifest* parsed, VelkctlError** error) {
    return manifest_app_id(root, &parsed->appId, error);
}

static bool read_dlpu_enabled(const json_t* root, ParsedManifest* parsed, VelkctlError** error) {
    return manifest_boolean(root, &parsed->dlpuEnabled, error,
                            {"resources", "deepLearningProcessor", "enabled"});
}

static bool read_dlpu_required(const json_t* root, ParsedManifest* parsed, VelkctlError** error) {
    return manifest_boolean(root, &parsed->dlpuRequired, error,
                            {"resources", "deepLearningProcessor", "required"});
}

static bool check_dlpu(const json_t*, ParsedManifest* parsed, VelkctlError** error) {
    if (!parsed->dlpuRequired || parsed->dlpuEnabled)
        return true;
    parsed->dlpuRequired = false;
    return fail(error,
                "DLPU access cannot be granted when required but enabled is set to false in the manifest");
}

static bool read_container_host(const json_t* root, ParsedManifest* parsed, VelkctlError** error) {
    return manifest_boolean(root, &parsed->containerHost, error,
                            {"velkPackageConf", "configuration", "containers", "containerHost"});
}

static bool read_docker_symlinks(const json_t* root, ParsedManifest* parsed, VelkctlError** error) {
    return manifest_boolean(root, &parsed->createDockerSymlinks, error,
                            {"velkPackageConf", "configuration", "containers", "createDockerSymlinks"});
}

static bool read_real_time_priority(const json_t* root, ParsedManifest* parsed, VelkctlError** error) {
    std::optional<std::string> priority;
    if (!manifest_optional_string(root, &priority, error,
                                  {"velkPackageConf", "configuration", "cpuScheduling", "realTimePriority"}))
        return false;
    if (!priority)
        return true;
    if (!convert_manifest_string_to_integer(priority->c_str(), "realTimePriority", 1, 99,
                                            &parsed->realTimePriority, error))
        return false;
    parsed->schedulingPolicy = "rr";
    return true;
}

static bool read_access_level(const std::string& text, AccessLevel* level, VelkctlError** error) {
    static constexpr const char* kNames[] = {"admin", "operator", "viewer"};
    for (int32_t i = 0; i < 3; i++) {
        if (text == kNames[i]) {
            *level = static_cast<AccessLevel>(i);
            return true;
        }
    }
    return fail(error, "Invalid access level in manifest");
}

static bool read_cgi_type(const std::string& text, CgiType* type, VelkctlError** error) {
    if (text != "transferCgi" && text != "fastCgi")
        return fail(error, "Invalid CGI type in manifest");
    *type = text == "fastCgi" ? CGI_FAST : CGI_TRANSFER;
    return true;
}

static bool read_cgi_name(const json_t* element, std::string* result, VelkctlError** error) {
    std::optional<std::string> name = manifest_string(element, error, {"name"});
    if (!name || !check_no_newline(name, "httpConfig.name", error) ||
        !check_no_path_traversal(name, "httpConfig.name", error))
        return false;
    *result = std::move(*name);
    return true;
}

static bool read_cgi_entry(const json_t* element, const std::string& type, const std::string& access,
                           CgiEntry* entry, VelkctlError** error) {
    return read_access_level(access, &entry->access, error) && read_cgi_type(type, &entry->type, error) &&
           read_cgi_name(element, &entry->name, error);
}

static bool read_http_element(const json_t* element, AccessLevel* directory, std::vector<CgiEntry>* entries,
                              VelkctlError** error) {
    const std::optional<std::string> type = manifest_string(element, error, {"type"});
    if (!type)
        return false;
    const std::optional<std::string> access = manifest_string(element, error, {"access"});
    if (!access)
        return false;
    if (*type == "directory")
        return read_access_level(*access, directory, error);
    CgiEntry entry = {};
    if (!read_cgi_entry(element, *type, *access, &entry, error))
        return false;
    entries->push_back(std::move(entry));
    return true;
}

static const json_t* http_list(const json_t* root) {
    return manifest_object(root, nullptr, {"velkPackageConf", "configuration", "httpConfig"});
}

static bool read_http_config(const json_t* root, ParsedManifest* parsed, VelkctlError** error) {
    const json_t* list = http_list(root);
    if (!list)
        return true;
    if (!json_is_array(list))
        return fail(error, "httpConfig in manifest is not an array");
    // Taken over all together or not at all: half of an application's web configuration would open what the
    // other half was to protect.
    AccessLevel directory = ACCESS_ADMIN;
    std::vector<CgiEntry> entries;
    for (size_t i = 0; i < json_array_size(list); i++) {
        if (!read_http_element(json_array_get(list, i), &directory, &entries, error))
            return false;
    }
    parsed->directoryAccess = directory;
    parsed->cgiEntries = std::move(entries);
    return true;
}

/*
 * The rules of a list's single elements, for whoever wants to hear of all faults at once: each by the key it
 * concerns, the last, without a key, for the element as a whole.
 */

struct ElementRule {
    const char* key;
    bool (*check)(const json_t* element, VelkctlError** error);
};

static constexpr ElementRule kRangeRules[] = {
    {"min",
     [](const json_t* element, VelkctlError** error) {
         Version ignored;
         return read_range_end(element, "min", &ignored, error);
     }},
    {"max",
     [](const json_t* element, VelkctlError** error) {
         Version ignored;
         return read_range_end(element, "max", &ignored, error);
     }},
    {"",
     [](const json_t* element, VelkctlError** error) {
         VersionRange ignored;
         return read_range(element, &ignored, error);
     }},
};

static bool is_directory_element(const json_t* element) {
    return manifest_string(element, nullptr, {"type"}) == "directory";
}

static constexpr ElementRule kHttpRules[] = {
    {"type",
     [](const json_t* element, VelkctlError** error) {
         CgiType ignored = CGI_TRANSFER;
         const std::optional<std::string> type = manifest_string(element, error, {"type"});
         return type && (is_directory_element(element) || read_cgi_type(*type, &ignored, error));
     }},
    {"access",
     [](const json_t* element, VelkctlError** error) {
         AccessLevel ignored = ACCESS_ADMIN;
         const std::optional<std::string> access = manifest_string(element, error, {"access"});
         return access && read_access_level(*access, &ignored, error);
     }},
    {"name",
     [](const json_t* element, VelkctlError** error) {
         std::string ignored;
         return is_directory_element(element) || read_cgi_name(element, &ignored, error);
     }},
    {"",
     [](const json_t* element, VelkctlError** error) {
         AccessLevel ignored = ACCESS_ADMIN;
         std::vector<CgiEntry> entries;
         return read_http_element(element, &ignored, &entries, error);
     }},
};

/** One step of the parse. */
struct ParseStep {
    const char* key;  ///< the way to what it reads, for people
    bool (*read)(const json_t* root, ParsedManifest* parsed, VelkctlError** error);
    const json_t* (*list)(const json_t* root) = nullptr;  ///< where it reads a list
    std::span<const ElementRule> elements = {};           ///< the rules of that
    bool asks_device = false;
};

static constexpr ParseStep kSteps[] = {
    {"velkPackageConf.setup.appName", read_app_name},
    {"velkPackageConf.setup.friendlyName", read_friendly_name},
    {"velkPackageConf.setup.version", read_version},
    {"velkPackageConf.setup.vendorId", read_vendor_id},
    {"velkPackageConf.setup.architecture", read_architecture},
    {"velkPackageConf.developerMode", read_developer_mode},
    {.key = "velkPackageConf.developerMode.deviceSerialNumber", .read = check_device, .asks_device = true},
    {"velkPackageConf.setup.user", read_user},
    {"velkPackageConf.setup.runOptions", read_run_options},
    {"velkPackageConf.setup.runMode", read_run_mode},
    {"velkPackageConf.setup.compatibleOsVersions", read_os_version_ranges, os_version_list, kRangeRules},
    {"velkPackageConf.installation.postInstallScript", read_post_install_script},
    {"velkPackageConf.uninstallation.preUninstallScript", read_pre_uninstall_script},
    {"velkPackageConf.setup.appId", read_app_id},
    {"resources.deepLearningProcessor.enabled", read_dlpu_enabled},
    {"resources.deepLearningProcessor.required", read_dlpu_required},
    {"resources.deepLearningProcessor", check_dlpu},
    {"velkPackageConf.configuration.containers.containerHost", read_container_host},
    {"velkPackageConf.configuration.containers.createDockerSymlinks", read_docker_symlinks},
    {"velkPackageConf.configuration.cpuScheduling.realTimePriority", read_real_time_priority},
    {"velkPackageConf.configuration.httpConfig", read_http_config, http_list, kHttpRules},
};

static std::optional<ParsedManifest> parse(const json_t* manifest, bool strict, VelkctlError** error) {
    if (!manifest_object(manifest, error, {"velkPackageConf", "setup"}))
        return std::nullopt;
    ParsedManifest parsed;
    for (const ParseStep& step : kSteps) {
        ErrorSlot broken_rule;
        if (step.read(manifest, &parsed, broken_rule) || !strict)
            continue;
        broken_rule.move_to(error);
        return std::nullopt;
    }
    return parsed;
}

std::optional<ParsedManifest> parse_manifest(const json_t* manifest, VelkctlError** error) {
    return parse(manifest, true, error);
}

std::optional<ParsedManifest> parse_manifest_leniently(const json_t* manifest, VelkctlError** error) {
    return parse(manifest, false, error);
}

/** Add what is wrong with one element of a list, which as a whole is said only when no single key is at
 * fault.
 */
static void find_element_faults(const json_t* element, std::span<const ElementRule> rules,
                                const std::string& key, std::vector<ManifestFinding>* findings) {
    const size_t before = findings->size();
    for (const ElementRule& rule : rules) {
        ErrorSlot fault;
        const bool is_whole = *rule.key == '\0';
        if (is_whole ? findings->size() > before : !json_is_object(element))
            continue;
        if (!rule.check(element, fault))
            findings->push_back({is_whole ? key : key + "." + rule.key, fault.message()});
    }
}

static void find_step_faults(const ParseStep& step, const json_t* manifest, ParsedManifest* parsed,
                             std::vector<ManifestFinding>* findings) {
    ErrorSlot fault;
    if (step.read(manifest, parsed, fault))
        return;
    const json_t* list = step.list ? step.list(manifest) : nullptr;
    const size_t count = json_array_size(list);
    for (size_t i = 0; i < count; i++)
        find_element_faults(json_array_get(list, i), step.elements,
                            std::string(step.key) + "[" + std::to_string(i) + "]", findings);
    if (count == 0)
        findings->push_back({step.key, fault.message()});
}

std::vector<ManifestFinding> find_manifest_faults(const json_t* manifest) {
    ErrorSlot missing;
    if (!manifest_object(manifest, missing, {"velkPackageConf", "setup"})) {
        const bool has_outer = manifest_object(manifest, nullptr, {"velkPackageConf"});
        return {{has_outer ? "velkPackageConf.setup" : "velkPackageConf", missing.message()}};
    }
    std::vector<ManifestFinding> findings;
    ParsedManifest parsed;
    for (const ParseStep& step : kSteps)
        if (!step.asks_device)
            find_step_faults(step, manifest, &parsed, &findings);
    return findings;
}
