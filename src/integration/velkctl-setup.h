#pragma once

#include <string>

#include "base/velkctl-error.h"

/** How an application is set up. */
struct SetupOptions {
    bool reload = true;  ///< reload the service manager and the web server at the end
    bool abort_on_script_config_error =
        false;  ///< a post-install script that exits with 78 abandons the setup
    bool allow_external_location =
        true;  ///< applications without web and parameter settings may lie on a card
};

/**
 * Turn an application that lies in the store into one that the device can run.
 *
 * @param error  the failed step's; from the user step on, everything that was made is undone by teardown
 * @return 0 or -1
 */
int velkctl_setup(const std::string& app, SetupOptions options, VelkctlError** error);
