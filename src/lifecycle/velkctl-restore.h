#pragma once

#include <string>

#include "base/velkctl-error.h"

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
