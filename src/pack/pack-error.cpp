#include "pack/pack-error.h"

static constexpr size_t kShownLength = 120;

bool fail_with(VelkctlError** error, int32_t code, const std::string& file, const std::string& rule) {
    const std::string shown =
        file.size() <= kShownLength ? file : "..." + file.substr(file.size() - kShownLength + 3);
    velkctl_error_set(error, code, "%s: %s", shown.c_str(), rule.c_str());
    return false;
}

bool fail_with_system_error(VelkctlError** error, const std::string& file, const std::string& operation) {
    const std::string reason = system_error_text();
    return fail_with(error, VELKCTL_ERROR_GENERAL, file, operation + ": " + reason);
}
