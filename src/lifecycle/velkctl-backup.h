#pragma once

#include <string>

#include "base/velkctl-error.h"

/** The directory that holds the application's backup, whether or not there is one. */
std::string backup_path(const std::string& app);

/** Whether there is a backup of the application. */
bool backup_exists(const std::string& app);

/**
 * Back up the settings file, the parameter file and the data of an application that is not running. Once the
 * new backup is complete the previous one is renamed aside and the new one takes its place: an interruption
 * leaves one of them whole, or, between the two renames, none. What teardown takes away is kept from the
 * previous one while the application is not set up.
 *
 * @param error  required (asserted). Code 10 for a name that cannot be one, an application that runs, a
 * `conf` directory that is a link, or a copy that failed, 12 when locked, 4 when the application is not in
 * the store. The previous backup then stays, and nothing of the new one.
 * @return 0 or -1
 */
int velkctl_perform_backup(const std::string& app, VelkctlError** error);

/** The same under a lock that the caller holds, whether the application runs or not. Returns success. */
[[nodiscard]] bool back_up_application(const std::string& app, VelkctlError** error);

/**
 * Delete the application's backup and what an interrupted one left; none counts as success. It is renamed
 * first, so that a crash leaves a whole backup or none.
 *
 * @param error  code 10 "Could not remove backup. Rename failed.", or that of the removal
 * @return 0 or -1
 */
int remove_backup(const std::string& app, VelkctlError** error);
