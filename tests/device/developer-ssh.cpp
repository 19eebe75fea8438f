// developer-ssh COMMAND NAME
//
// The operations on SSH access of developer mode, which no command of velkctl calls by itself, for the tests
// on the device: `enable APP`, `enable-if-dynamic APP`, `disable APP`, and `vendor VENDOR` for all
// applications of a vendor. Ends and logs like velkctl.

#include <cstdio>
#include <cstring>
#include <string>

#include "base/log.h"
#include "lifecycle/velkctl-developer-mode.h"
#include "manifest/manifest-rules.h"
#include "manifest/manifest.h"

static bool enable_if_dynamic(const std::string& app, VelkctlError** error) {
    const JsonPtr manifest = load_installed_manifest(app, error);
    const std::optional<ParsedManifest> parsed =
        manifest ? parse_manifest_leniently(manifest.get(), error) : std::nullopt;
    return parsed && enable_ssh_for_app_if_dynamic_user(*parsed, error);
}

static bool run(const char* command, const std::string& name, VelkctlError** error) {
    if (std::strcmp(command, "enable") == 0)
        return enable_ssh_for_app(name, error);
    if (std::strcmp(command, "enable-if-dynamic") == 0)
        return enable_if_dynamic(name, error);
    if (std::strcmp(command, "disable") == 0)
        return disable_ssh_for_app(name, error);
    return enable_ssh_for_vendor({.vendorId = name, .deviceSerialNumber = ""}, error);
}

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fputs("usage: developer-ssh COMMAND NAME\n", stderr);
        return 2;
    }
    log_setup(LOG_MODE_STDERR);
    ErrorSlot error;
    if (run(argv[1], argv[2], error))
        return 0;
    log_error(error.get());
    return error.is_set() ? error.code() : VELKCTL_ERROR_UNDEFINED;
}
