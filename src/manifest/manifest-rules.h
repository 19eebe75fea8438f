#pragma once

#include <jansson.h>

#include <optional>
#include <string>
#include <vector>

#include "base/velkctl-error.h"
#include "manifest/parsed-manifest.h"

/**
 * Parse a manifest; the first broken rule ends it. For whatever is about to put an application on the device.
 *
 * @param manifest  borrowed; null is a document without any key
 * @param error     code 29 for every rule of the manifest; code 10 or 51 from the device for a developer-mode
 * manifest; code 10 when a value overtaxes the pattern matcher
 */
[[nodiscard]] std::optional<ParsedManifest> parse_manifest(const json_t* manifest, VelkctlError** error);

/**
 * Parse a manifest leniently: a value that breaks its rule counts as absent, so that an application whose
 * manifest a later release considers invalid can still be taken down.
 *
 * @param error  code 29, only when `velkPackageConf` or its `setup` is missing
 */
[[nodiscard]] std::optional<ParsedManifest> parse_manifest_leniently(const json_t* manifest,
                                                                     VelkctlError** error);

/** One broken rule of a manifest. */
struct ManifestFinding {
    std::string key;  ///< the way to the value, such as "velkPackageConf.configuration.httpConfig[1].name"
    std::string message;  ///< as the device words it

    bool operator==(const ManifestFinding&) const = default;
};

/**
 * Every broken rule at once, in the order of a strict parse, for whoever writes a manifest. What only a
 * device can tell, whose serial number it is, is left out; none is found exactly when a strict parse succeeds
 * but for that.
 *
 * @param manifest  borrowed; null is a document without any key
 */
[[nodiscard]] std::vector<ManifestFinding> find_manifest_faults(const json_t* manifest);

/** Records the error of a field whose text is no version. */
using InvalidVersionHandler = void (*)(VelkctlError** error, const char* text);

/**
 * Read the version in the string at `key` of an object, which must match `pattern`. A number above 2147483647
 * is a mismatch too.
 *
 * @param version     required (asserted); untouched on failure
 * @param on_invalid  called on a mismatch with the slot and the text
 * @param error       code 29 of a missing key or a value that is no string; code 10 of the pattern matcher
 */
[[nodiscard]] bool read_sem_version_or_fail_with_invalid_manifest(const json_t* object, const char* key,
                                                                  const char* pattern, Version* version,
                                                                  InvalidVersionHandler on_invalid,
                                                                  VelkctlError** error);
