#include "manifest/names.h"

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <limits>

#include "system/file.h"
#include "system/regex.h"

/** A mismatch becomes the error "MESSAGE"; a failure of the matcher itself keeps its own. */
static bool require_match(const char* pattern, const std::string& value, int32_t code,
                          const std::string& message, VelkctlError** error) {
    ErrorSlot engine;
    if (check_regex(pattern, value, engine))
        return true;
    if (engine.is_set())
        engine.move_to(error);
    else
        velkctl_error_set(error, code, "%s", message.c_str());
    return false;
}

static bool check_app_name(const std::string& name, int32_t code, VelkctlError** error) {
    const char* refusal = "Character sequence in application name is not allowed";
    if (name == NO_APP_NAME)
        return fail(error, code, "%s", refusal);
    return require_match(R"(^([A-Za-z])[\w-]{0,99}$)", name, code, refusal, error);
}

bool is_valid_app_name(const std::string& name, VelkctlError** error) {
    assert(error);
    return check_app_name(name, VELKCTL_ERROR_GENERAL, error);
}

bool check_manifest_app_name(const std::string& name, VelkctlError** error) {
    return check_app_name(name, VELKCTL_ERROR_INVALID_MANIFEST, error);
}

bool check_package_file_name(const std::string& path, VelkctlError** error) {
    return require_match(R"(^[\w\.-]{1,255}$)", base_name(path), VELKCTL_ERROR_GENERAL,
                         "Character sequence in application package file name is not allowed", error);
}

bool check_no_newline(const std::optional<std::string>& value, const char* field, VelkctlError** error) {
    if (!value || value->find_first_of("\n\r") == std::string::npos)
        return true;
    velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST, "Field '%s' in manifest contains a newline",
                      field);
    return false;
}

bool check_no_path_traversal(const std::optional<std::string>& value, const char* field,
                             VelkctlError** error) {
    if (!value)
        return true;
    return require_match(R"(^(?!/)(?!\.\.?(/|$))((?!(/\.\./)).)+$)", *value, VELKCTL_ERROR_INVALID_MANIFEST,
                         std::string("Field '") + field + "' in manifest contains a path traversal", error);
}

bool string_to_int(const char* text, int32_t* result) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (*end != '\0' || errno == ERANGE)
        return false;
    if (value < std::numeric_limits<int32_t>::min() || value >= std::numeric_limits<int32_t>::max())
        return false;
    *result = static_cast<int32_t>(value);
    return true;
}

bool convert_manifest_string_to_integer(const char* string_value, const char* field_name, int32_t low,
                                        int32_t high, int32_t* result, VelkctlError** error) {
    assert(string_value && field_name);
    int32_t value = 0;
    if (!string_to_int(string_value, &value)) {
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST,
                          "Failed to convert the string to an integer for '%s'", field_name);
        return false;
    }
    if (value < low || value > high) {
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST,
                          "Manifest field '%s' must be in the range [%d, %d]", field_name, low, high);
        return false;
    }
    *result = value;
    return true;
}
