#pragma once

#include <string>

#include "base/velkctl-error.h"

/**
 * Undo everything that setup did; the application stays in the store. A running application is stopped first.
 * Goes on past failing steps, each of which is a warning.
 *
 * @param reload        reload the service manager and the web server at the end
 * @param persist_user  keep the application's own user and its sub-ID ranges
 * @param error         code 10 "Failure during teardown of %s" when any step failed; an invalid name, a
 * service that does not stop, the lock and a missing application end the teardown at once with their own
 * @return 0 or -1
 */
int velkctl_teardown(const std::string& app, bool reload, bool persist_user, VelkctlError** error);

/**
 * Take back a setup that failed: velkctl_teardown without reloading, the user included.
 *
 * @param user_refused  setup refused the user that the manifest names; that was said, and is not said again
 * @param error         required; as of velkctl_teardown
 */
int undo_setup(const std::string& app, bool user_refused, VelkctlError** error);
