#pragma once

#include <jansson.h>

#include "base/velkctl-error.h"
#include "manifest/parsed-manifest.h"

/** The name of the one application that can put a device in developer mode. */
inline constexpr const char* DEVELOPER_MODE_APP = "developer_mode";

/** Whether the manifest is that of a developer-mode application: by its name, and by having the section,
 * whatever it holds. */
[[nodiscard]] bool is_developer_mode_velk(const json_t* manifest);

/**
 * Read the developer-mode section.
 *
 * @param record  untouched on failure
 * @param error   code 29 "Developer Mode manifest is missing required field: 'developerMode.%s'"
 */
[[nodiscard]] bool read_developer_mode_fields(const json_t* manifest, DeveloperModeRecord* record,
                                              VelkctlError** error);

/**
 * Whether the section was made for this very device, by the serial number and whatever its letter case.
 *
 * @param error  the error of the device information service; code 51 "Device serial number '%s' does not
 * match manifest serial number '%s'"
 */
[[nodiscard]] bool check_developer_mode_device(const DeveloperModeRecord& record, VelkctlError** error);
