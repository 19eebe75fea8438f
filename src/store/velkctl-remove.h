#pragma once

#include <string>

#include "base/velkctl-error.h"

/**
 * Remove an application that is not set up from the content store, with its verification state file.
 *
 * The operation lock is taken and given back.
 *
 * @param error  optional; codes 4, 10, 12. It stays empty when only the verification state file could not be
 * deleted (a warning tells why). What was moved aside but not removed is cleared by the next removal or
 * import.
 * @return 0, or -1 on failure
 */
int velkctl_remove(const std::string& app, VelkctlError** error);

/**
 * Delete what the device itself holds of an application whose files it cannot reach, since their card is out
 * or they are gone: the root's link and the verification state file. Where the files stay is a warning, and
 * so is every failure. Any other application is left alone.
 */
void velkctl_forget(const std::string& app);

/**
 * Finish a removal that died between moving the application's files aside and deleting the root's link to
 * them.
 *
 * Such an application is in the store, since its link is, but nowhere to be found, so that it could neither
 * be removed nor imported again. Anything else is left alone. The caller holds the operation lock; failures
 * are warnings.
 */
void velkctl_finish_removal(const std::string& app);
