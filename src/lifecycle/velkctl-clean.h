#pragma once

#include <optional>
#include <string>

#include "base/velkctl-error.h"

/**
 * Recover from a command that died: read the lock file it left, tear down and remove the application it was
 * changing (unless the lock says that nothing is to be undone), and delete the lock file. After a backup that
 * died the backup is made first. The lock file goes on every failure too, so that a failed recovery does not
 * leave the device locked; the application may then remain half removed.
 *
 * Temporary files that dead commands left go as well, also when there is no lock file. Nothing is touched
 * while a living process holds the lock.
 *
 * @param appname_out  receives the content of the lock file on success and stays empty when there was none;
 * must be empty on entry (code 10)
 * @param error        code 10 for an empty or unreadable lock file and for an application that still runs; 12
 * when a command or another recovery is at work; else that of teardown or removal
 * @return 0 or -1
 */
int velkctl_clean(std::optional<std::string>* appname_out, VelkctlError** error);
