#include "manifest/version.h"

#include <sys/utsname.h>

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <limits>

#include "base/log.h"
#include "system/dbus-call.h"

static constexpr int32_t kHighest = std::numeric_limits<int32_t>::max();

int32_t version_compare(const Version* a, const Version* b) {
    assert(a->major >= 0 && b->major >= 0 && a->minor >= 0 && b->minor >= 0);
    if (a->major != b->major)
        return a->major - b->major;
    if (a->minor != b->minor)
        return a->minor - b->minor;
    if (a->patch < 0 || b->patch < 0)
        return 0;
    return a->patch - b->patch;
}

static Version complete(Version bound, int32_t filling) {
    if (bound.minor < 0)
        bound.minor = filling;
    if (bound.patch < 0)
        bound.patch = filling;
    return bound;
}

Version complete_lower_bound(Version bound) { return complete(bound, 0); }

Version complete_upper_bound(Version bound) { return complete(bound, kHighest); }

bool version_in_range(const Version& version, const VersionRange& range) {
    // The ends are completed before they are compared: comparing an end without a minor would be a fault.
    const Version min = complete_lower_bound(range.min);
    const Version max = complete_upper_bound(range.max);
    return version_compare(&version, &min) >= 0 && version_compare(&version, &max) <= 0;
}

std::string format_version(const Version& version) {
    std::string text = std::to_string(version.major);
    if (version.minor < 0)
        return text;
    text += "." + std::to_string(version.minor);
    return version.patch < 0 ? text : text + "." + std::to_string(version.patch);
}

std::string format_version_ranges(const std::vector<VersionRange>& ranges) {
    std::string text;
    for (const VersionRange& range : ranges) {
        if (!text.empty())
            text += ", ";
        text += "[" + format_version(range.min) + ", " + format_version(range.max) + "]";
    }
    return text;
}

enum class Scan { Number, Nothing, OutOfBounds };

static Scan scan_number(const char** text, int32_t* number) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(*text, &end, 10);
    if (end == *text)
        return Scan::Nothing;
    if (errno == ERANGE || value < 0 || value > kHighest)
        return Scan::OutOfBounds;
    *number = static_cast<int32_t>(value);
    *text = end;
    return Scan::Number;
}

int scan_version(const char* text, Version* version) {
    Version numbers;
    int count = 0;
    for (int32_t* number : {&numbers.major, &numbers.minor, &numbers.patch}) {
        if (count > 0 && *text++ != '.')
            break;
        const Scan result = scan_number(&text, number);
        if (result == Scan::OutOfBounds)
            return -1;
        if (result == Scan::Nothing)
            break;
        count++;
    }
    *version = numbers;
    return count;
}

std::optional<Version> parse_firmware_version_string(const char* firmware_version, VelkctlError** error) {
    assert(firmware_version);
    Version version;
    if (scan_version(firmware_version, &version) >= 2)
        return version;
    SET_GENERAL_ERROR(error, "Could not parse firmware version '%s' - expected at least major.minor format",
                      firmware_version);
    return std::nullopt;
}

std::optional<Version> running_firmware_version(VelkctlError** error) {
    ErrorSlot reason;
    const std::optional<std::string> text = device_information("Version", reason);
    if (text)
        return parse_firmware_version_string(text->c_str(), error);
    warn_and_clear_error(reason, nullptr);
    log_warning("Could not retrieve firmware version from D-Bus");
    return std::nullopt;
}

bool check_compatibility(const Version& firmware, const std::vector<VersionRange>& ranges,
                         VelkctlError** error) {
    for (const VersionRange& range : ranges) {
        if (version_in_range(firmware, range))
            return true;
    }
    velkctl_error_set(error, VELKCTL_ERROR_INCOMPATIBLE,
                      "Firmware version %s is not compatible with this application. Compatible versions: %s",
                      format_version(firmware).c_str(), format_version_ranges(ranges).c_str());
    return false;
}

std::string system_architecture() {
    const char* fixed = VELKCTL_ARCHITECTURE;
    struct utsname system = {};
    if (*fixed != '\0' || uname(&system) != 0)
        return fixed;
    return system.machine;
}
