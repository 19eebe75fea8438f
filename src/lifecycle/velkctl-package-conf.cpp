#include "lifecycle/velkctl-package-conf.h"

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <string_view>

#include "base/log.h"

/** Remove one pair of quotes around the value, the first kind that stands at both ends; false when there is
 * none. */
static bool remove_quotes(std::string* value) {
    for (const std::string_view quote : {"'", "\"", "\\'"}) {
        if (value->size() < 2 * quote.size() || !value->starts_with(quote) || !value->ends_with(quote))
            continue;
        *value = value->substr(quote.size(), value->size() - 2 * quote.size());
        return true;
    }
    return false;
}

static bool set_characters_error(const std::string& key, VelkctlError** error) {
    velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST,
                      "package.conf value '%s' contains invalid characters", key.c_str());
    return false;
}

/** Quotes protect a space and nothing else: the caller's shell may expand the value once more. */
static bool check_value(const std::string& key, const std::string& value, bool is_quoted,
                        VelkctlError** error) {
    if (value.find_first_of("$`&|;") != std::string::npos)
        return set_characters_error(key, error);
    if (value.find_first_of("\n\r") != std::string::npos) {
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST, "Field '%s' in manifest contains a newline",
                          key.c_str());
        return false;
    }
    if (!is_quoted && value.find(' ') != std::string::npos)
        return set_characters_error(key, error);
    return true;
}

std::optional<std::string> velkctl_read_package_conf_value(const std::string& key, const std::string& line,
                                                           VelkctlError** error) {
    assert(error);
    if (!line.starts_with(key + "=")) {
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST,
                          "package.conf line does not contain a well-formed assignment");
        return std::nullopt;
    }
    std::string value = line.substr(key.size() + 1);
    const bool is_quoted = remove_quotes(&value);
    std::replace(value.begin(), value.end(), '\t', ' ');
    if (!check_value(key, value, is_quoted, error))
        return std::nullopt;
    return value;
}

std::optional<std::string> find_package_conf_value(const std::string& text, const std::string& key,
                                                   VelkctlError** error) {
    const std::string prefix = key + "=";
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find('\n', start), text.size());
        if (text.compare(start, prefix.size(), prefix) == 0)
            return velkctl_read_package_conf_value(key, text.substr(start, end - start), error);
        start = end + 1;
    }
    return velkctl_read_package_conf_value(key, "", error);
}

std::optional<std::string> package_conf_version(const std::string& text, VelkctlError** error) {
    const std::optional<std::string> major = find_package_conf_value(text, "APPMAJORVERSION", error);
    if (!major)
        return std::nullopt;
    const std::optional<std::string> minor = find_package_conf_value(text, "APPMINORVERSION", error);
    if (!minor)
        return std::nullopt;
    ErrorSlot absent;
    const std::string micro = find_package_conf_value(text, "APPMICROVERSION", absent).value_or("0");
    return *major + "." + *minor + "-" + micro;
}

int log_and_clear_error_then_print_and_return_exit_code(VelkctlError** error) {
    assert(error);
    log_error(*error);
    const int code = *error ? (*error)->code : VELKCTL_SUCCESS;
    velkctl_error_clear(error);
    std::printf("%d\n", code);
    return code;
}
