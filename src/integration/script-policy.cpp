#include "integration/script-policy.h"

#include <sys/stat.h>

#include <algorithm>

#include "system/file.h"

static constexpr mode_t OWNER_EXECUTES = 0100;

bool prepare_install_script(const InstallScriptPolicy& policy, const AreaDirectory& tree,
                            const std::string& script, VelkctlError** error) {
    ErrorSlot existence;
    if (!path_exists(tree.path_of(script), existence) && !existence.is_set()) {
        velkctl_error_set(error, VELKCTL_ERROR_GENERAL,
                          "The manifest lists an install script, '%s', but the file is missing.",
                          script.c_str());
        return false;
    }
    const std::optional<AreaFile> file =
        open_area_file_itself(tree, script, "Failed setting permissions for", error);
    if (!file)
        return false;
    if (policy.made_executable)
        return file->set_mode(0755, error);
    const std::optional<struct stat> status = file->status();
    if (status && S_ISREG(status->st_mode) && (status->st_mode & OWNER_EXECUTES))
        return true;
    velkctl_error_set(error, VELKCTL_ERROR_INVALID_PACKAGE, "Install script '%s' is not set as executable.",
                      script.c_str());
    return false;
}

int32_t effective_script_timeout(const InstallScriptPolicy& policy, int32_t configured_s) {
    return policy.timeout_cap_s == 0 ? configured_s : std::min(configured_s, policy.timeout_cap_s);
}
