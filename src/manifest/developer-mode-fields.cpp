#include "manifest/developer-mode-fields.h"

#include <glib.h>

#include "manifest/manifest.h"
#include "system/dbus-call.h"

bool is_developer_mode_velk(const json_t* manifest) {
    return manifest_object(manifest, nullptr, {"velkPackageConf", "developerMode"}) &&
           manifest_app_name(manifest, nullptr) == DEVELOPER_MODE_APP;
}

static std::optional<std::string> required_field(const json_t* manifest, const char* field,
                                                 VelkctlError** error) {
    std::optional<std::string> value =
        manifest_string(manifest, nullptr, {"velkPackageConf", "developerMode", field});
    if (!value)
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST,
                          "Developer Mode manifest is missing required field: 'developerMode.%s'", field);
    return value;
}

bool read_developer_mode_fields(const json_t* manifest, DeveloperModeRecord* record, VelkctlError** error) {
    std::optional<std::string> vendor = required_field(manifest, "vendorId", error);
    if (!vendor)
        return false;
    std::optional<std::string> serial = required_field(manifest, "deviceSerialNumber", error);
    if (!serial)
        return false;
    *record = {std::move(*vendor), std::move(*serial)};
    return true;
}

bool check_developer_mode_device(const DeveloperModeRecord& record, VelkctlError** error) {
    const std::optional<std::string> device = device_information("SerialNumber", error);
    if (!device)
        return false;
    if (g_ascii_strcasecmp(device->c_str(), record.deviceSerialNumber.c_str()) == 0)
        return true;
    velkctl_error_set(error, VELKCTL_ERROR_SERIAL_MISMATCH,
                      "Device serial number '%s' does not match manifest serial number '%s'", device->c_str(),
                      record.deviceSerialNumber.c_str());
    return false;
}
