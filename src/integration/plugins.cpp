#include "integration/plugins.h"

#include "manifest/app-user.h"
#include "manifest/manifest.h"
#include "platform/libvelkctl.h"

bool call_plugins(const std::string& app, const char* function, VelkctlError** error) {
    ErrorSlot lookup;
    const std::optional<std::string> user = application_username(app.c_str(), lookup);
    if (!user) {
        velkctl_error_set(error, VELKCTL_ERROR_GENERAL,
                          "While calling plugin function %s. Could not retrieve user for for VELK %s: %s",
                          function, app.c_str(), lookup.message());
        return false;
    }
    const JsonPtr manifest = load_installed_manifest(app, error);
    if (!manifest)
        return false;
    ErrorSlot foreign;  // clearing it releases the record with the library's own function
    if (velkctl_plugin_call(function, manifest.get(), user->c_str(), foreign))
        return true;
    velkctl_error_set(error, VELKCTL_ERROR_GENERAL,
                      "Problem calling VELK plugin function %s. Error code was %d: %s", function,
                      foreign.code(), foreign.message());
    return false;
}
