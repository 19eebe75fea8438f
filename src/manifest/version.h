#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/velkctl-error.h"

/** A version; -1 marks a part that was not given, so that "11" is 11, -1, -1. */
struct Version {
    int32_t major = -1;
    int32_t minor = -1;
    int32_t patch = -1;

    bool operator==(const Version&) const = default;
};

/** The firmware versions from `min` to `max`; a part that an end does not give leaves that end open. */
struct VersionRange {
    Version min;
    Version max;

    bool operator==(const VersionRange&) const = default;
};

/**
 * Negative, zero or positive as `a` is lower than, equal to or higher than `b`. An absent patch equals every
 * patch. Major and minor must be present in both (asserted).
 */
[[nodiscard]] int32_t version_compare(const Version* a, const Version* b);

/** The end of a range with its absent parts filled in: 0 for a lower bound, the highest number for an upper
 * one. */
[[nodiscard]] Version complete_lower_bound(Version bound);
[[nodiscard]] Version complete_upper_bound(Version bound);

/**
 * Whether the range holds the version. The version needs major and minor, the ends need a major (asserted). A
 * version without a patch is in the range when any of its patches could be.
 */
[[nodiscard]] bool version_in_range(const Version& version, const VersionRange& range);

/** "1", "1.2" or "1.2.3", as far as the parts are present. */
[[nodiscard]] std::string format_version(const Version& version);

/** "[MIN, MAX], [MIN, MAX]" in list order, the ends as they were read; empty for no range. */
[[nodiscard]] std::string format_version_ranges(const std::vector<VersionRange>& ranges);

/**
 * Read up to three numbers separated by dots from the start of `text`, each with the blanks and the sign that
 * a decimal number may have; what follows is ignored.
 *
 * @param version  receives the numbers read, -1 in the others; untouched when the result is negative
 * @return how many numbers were read; -1 when one of them is negative or above 2147483647
 */
[[nodiscard]] int scan_version(const char* text, Version* version);

/**
 * Read a firmware version: major and minor, perhaps a patch, and any text behind them.
 *
 * @param firmware_version  required (asserted)
 * @param error             code 10 "Could not parse firmware version '%s' - expected at least major.minor
 * format"
 */
[[nodiscard]] std::optional<Version> parse_firmware_version_string(const char* firmware_version,
                                                                   VelkctlError** error);

/**
 * The version of the firmware that is running, from the device information service.
 *
 * @param error  that of parse_firmware_version_string. A failed call leaves no record: it is two warnings.
 */
[[nodiscard]] std::optional<Version> running_firmware_version(VelkctlError** error);

/**
 * Whether one of the ranges holds the firmware version.
 *
 * @param error  code 5 "Firmware version %s is not compatible with this application. Compatible versions: %s"
 */
[[nodiscard]] bool check_compatibility(const Version& firmware, const std::vector<VersionRange>& ranges,
                                       VelkctlError** error);

/** The name of the processor architecture that applications are built for on this system. */
[[nodiscard]] std::string system_architecture();
