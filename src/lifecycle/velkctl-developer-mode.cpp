#include "lifecycle/velkctl-developer-mode.h"

#include <glib.h>

#include <cstdlib>

#include "base/handles.h"
#include "base/log.h"
#include "base/paths.h"
#include "lifecycle/velkctl-json-validate.h"
#include "manifest/developer-mode-fields.h"
#include "manifest/manifest.h"
#include "store/velkctl-store.h"
#include "store/velkctl-vsf.h"

std::optional<DeveloperModeRecord> get_developer_mode() {
    ErrorSlot absent;
    const JsonPtr manifest = load_installed_manifest(DEVELOPER_MODE_APP, absent);
    if (!manifest || !is_developer_mode_velk(manifest.get()) || !vsf_is_confirmed(DEVELOPER_MODE_APP))
        return std::nullopt;
    // A card may come from anywhere.
    ErrorSlot nowhere;
    if (find_app_location(DEVELOPER_MODE_APP, nowhere) != default_location())
        return std::nullopt;
    DeveloperModeRecord record;
    ErrorSlot bad_state;
    if (read_developer_mode_fields(manifest.get(), &record, bad_state) &&
        check_developer_mode_device(record, bad_state))
        return record;
    warn_and_clear_error_with_preamble("The installed Developer Mode app is in a bad state: ", bad_state,
                                       nullptr);
    return std::nullopt;
}

/** Turn the answer of the schema search into an error; true when a schema accepted the manifest. */
static bool report_schema_search(int result, const std::string& message, const std::string& app,
                                 VelkctlError** error) {
    switch (result) {
        case JSON_VALID:
            return true;
        case JSON_INPUT_UNUSABLE:
            SET_GENERAL_ERROR(error, "%s - Failed to re-parse manifest for %s", message.c_str(), app.c_str());
            return false;
        case JSON_SCHEMA_UNUSABLE:
            SET_GENERAL_ERROR(error, "Developer Mode app's schema is invalid");
            return false;
        case JSON_NOT_VALID:
            velkctl_error_set(error, VELKCTL_ERROR_NO_MATCHING_SCHEMA, "%s - No matching schema for %s",
                              message.c_str(), app.c_str());
            return false;
        case JSON_DIRECTORY_UNUSABLE:
            SET_GENERAL_ERROR(error, "Developer mode app lacks schemas");
            return false;
        default:
            SET_GENERAL_ERROR(error, "Unknown error");
            return false;
    }
}

bool velkctl_validate_manifest_content(const DeveloperModeRecord& record, const json_t* manifest,
                                       VelkctlError** error) {
    const std::optional<std::string> app = manifest_app_name(manifest, error);
    if (!app)
        return false;
    const std::optional<std::string> vendor = manifest_vendor_id(manifest, error);
    if (!vendor)
        return false;
    if (g_ascii_strcasecmp(vendor->c_str(), record.vendorId.c_str()) != 0) {
        velkctl_error_set(error, VELKCTL_ERROR_DEVMODE_VENDOR_MISMATCH,
                          "App vendor ID doesn't match devmode vendor ID");
        return false;
    }
    const std::unique_ptr<char, ReleaseWith<std::free>> text(json_dumps(manifest, JSON_COMPACT));
    if (!text) {
        SET_GENERAL_ERROR(error, "Failed to dump application JSON for %s to string", app->c_str());
        return false;
    }
    std::string message;
    const std::string schemas = paths::store_root_path(DEVELOPER_MODE_APP) + "/schema";
    // A developer-mode application without a single schema is broken, which is not the fault of the one that
    // asks.
    const int result = schema_dir_has_schemas(schemas)
                           ? validate_text_against_schema_dir(*app, text.get(), schemas, &message)
                           : JSON_DIRECTORY_UNUSABLE;
    return report_schema_search(result, message, *app, error);
}

bool validate_manifest(const std::string& app, VelkctlError** error) {
    if (vsf_is_confirmed(app))
        return true;
    ErrorSlot not_loaded;
    const JsonPtr manifest = load_installed_manifest(app, not_loaded);
    if (!manifest) {
        velkctl_error_set(error, VELKCTL_ERROR_NOT_FOUND, "%s", not_loaded.message());
        return false;
    }
    const std::optional<DeveloperModeRecord> record = get_developer_mode();
    if (!record) {
        velkctl_error_set(error, VELKCTL_ERROR_SIGNATURE, "device is not in developer mode");
        return false;
    }
    return velkctl_validate_manifest_content(*record, manifest.get(), error);
}
