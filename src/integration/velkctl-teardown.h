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
