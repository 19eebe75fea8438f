#pragma once

#include <string>

#include "base/velkctl-error.h"
#include "integration/velkctl-setup.h"
#include "store/velkctl-store.h"

/**
 * Install a package: import it and set it up. An installed version of the same application is replaced, its
 * data and settings kept. The application is not started; a running one is not replaced.
 *
 * @param package   the package file
 * @param location  where the application is to be kept
 * @param app_name  required (asserted); receives the application's name as soon as the package's manifest has
 * told it, also when the installation then fails
 * @param error     required (asserted). Code 27 when the vendor differs from the installed version's, 12 when
 * another command is at work; else the code of the step that failed. After a failed fresh installation
 * nothing of the application is left. After a failed upgrade the backup of the data stays on disk; the
 *                  installed version stands untouched when the new one was found to be bad, and stored as
 * long as its removal had not begun. The lock is given back.
 * @return 0, also when the package's own script asked for the installation to be skipped and the options
 * allow that; -1 on failure
 */
int velkctl_install(const std::string& package, const StoreLocation* location, const SetupOptions& options,
                    std::string* app_name, VelkctlError** error);

/**
 * Uninstall an application: delete its backup, tear it down, remove it from the store.
 *
 * @param reload  reload the service manager and the web server
 * @param error   code 10 for a name that cannot be one or a backup that cannot be deleted, 12 when locked, 4
 * when the application is not in the store. Every other trouble of teardown and removal is only a warning.
 * @return 0 or -1
 */
int velkctl_uninstall(const std::string& app, bool reload, VelkctlError** error);
