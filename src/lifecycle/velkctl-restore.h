#pragma once

#include <jansson.h>

#include <cstdint>
#include <string>

#include "base/velkctl-error.h"
#include "store/velkctl-store.h"

/**
 * Bring the backed up settings and data of an application back into its set-up version: saved settings are
 * merged into the current ones, saved data replaces the current data, and all of it belongs to the
 * application's user.
 *
 * @param error  required (asserted). Code 10 for a name that cannot be one, a running application, no backup
 *               ("No backup was found for: %s"), an application that is not set up, or a step that failed; 12
 * when locked, 4 when the application is not in the store. The settings are put in place by renames only
 * after every merge succeeded, and no temporary one of them is left; the backup stays.
 * @return 0 or -1
 */
int velkctl_restore(const std::string& app, VelkctlError** error);

/**
 * Check, before the installed version goes, that what is saved of an application can be restored into a new
 * one: that the saved settings can be merged with those that setup will write, and that there is room for the
 * saved data beside the new version. Nothing is changed; without a backup there is nothing to check.
 *
 * @param manifest      of the new version
 * @param location      where it is to be kept
 * @param version_size  what it takes there, in bytes
 * @param error         that of velkctl_restore for what cannot be merged; 29 for parameters that cannot be
 * set up; 3 "No room for the saved data of %s. Required: %lu bytes, available: %lu bytes."
 */
[[nodiscard]] bool check_restorable(const std::string& app, const json_t* manifest,
                                    const StoreLocation& location, uint64_t version_size,
                                    VelkctlError** error);
