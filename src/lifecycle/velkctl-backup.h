#pragma once

#include <sys/types.h>

#include <string>

#include "base/velkctl-error.h"

/** A settings or parameter file that is larger is not the application's settings; in bytes. */
inline constexpr off_t LARGEST_CONFIGURATION_FILE = 1048576;

/** The directory that holds the application's backup, whether or not there is one. */
std::string backup_path(const std::string& app);

/** Whether there is a backup of the application. */
bool backup_exists(const std::string& app);

/**
 * Back up the settings file, the parameter file and the data of an application that is not running. Once the
 * new backup is complete it takes the place of the previous one in one step: an interruption leaves one of
 * them whole. What is no regular file in the place of a settings file is left out with a warning. What
 * teardown takes away is kept from the
 * previous one while the application is not set up.
 *
 * @param error  required (asserted). Code 10 for a name that cannot be one, an application that runs, a
 * `conf` directory that is a link, a settings file of more than 1 MiB, a copy that failed, or an application
 * on a card that is out, 12 when locked, 4 when the application is not in
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

/**
 * Keep a backup that is given up beside its place, instead of an older one there, and say in a warning where.
 * Nothing is done without one.
 *
 * @param error  code 10 "Failed renaming %s to %s: %s", or that of the older one's removal
 */
[[nodiscard]] bool put_backup_aside(const std::string& app, VelkctlError** error);

/** Delete what put_backup_aside kept; none counts as success. Code 10, that of the removal. */
[[nodiscard]] bool remove_backup_aside(const std::string& app, VelkctlError** error);
