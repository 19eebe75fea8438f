#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "base/handles.h"
#include "base/velkctl-error.h"

/*
 * Reading a manifest: from where it may come, and single values in it. Every fault of a manifest is code 29;
 * null arguments, failed system calls and a file that cannot be opened are code 10.
 */

// --- Loading ---

/**
 * The path of the manifest in an application's directory, after checking that the file is one that velkctl
 * itself could have put there: no link, owned by root, mode 0444.
 *
 * @param directory  required; null is code 10
 * @param error      code 29, also for a missing file and for a wrong mode
 */
[[nodiscard]] std::optional<std::string> get_safe_manifest_path(const char* directory, VelkctlError** error);

/** Whether the directory holds a manifest, readable or not. */
[[nodiscard]] bool holds_manifest_file(const std::string& directory);

/** The manifest in an application's directory, after get_safe_manifest_path. "JSON error: %s", code 29. */
[[nodiscard]] JsonPtr load_manifest(const std::string& directory, VelkctlError** error);

/** The manifest of an installed application. */
[[nodiscard]] JsonPtr load_installed_manifest(const std::string& app, VelkctlError** error);

/**
 * The manifest inside a package file, or in a directory into which a package was unpacked. "File does not
 * exist: %s", code 10; "Invalid manifest: %s", code 29; otherwise as read_tar_member.
 */
[[nodiscard]] JsonPtr load_package_manifest(const std::string& package, VelkctlError** error);

// --- Values by path. A path through something that is not an object ends in a missing key. ---

/** The keys from the top of the document to a value. */
using ManifestPath = std::initializer_list<const char*>;

/**
 * The value at the path, borrowed; null when a key is missing: "Could not read %s from manifest" with that
 * key. With a null slot this is how to ask for something optional.
 */
[[nodiscard]] json_t* manifest_object(const json_t* root, VelkctlError** error, ManifestPath path);

/** The string at the path: as manifest_object, and "Could not read from manifest - value is not string". */
[[nodiscard]] std::optional<std::string> manifest_string(const json_t* root, VelkctlError** error,
                                                         ManifestPath path);

/**
 * An optional string: an absent one is a success that leaves `value` as it was, one that is not a string
 * fails with "Could not read from manifest - value is not string".
 */
[[nodiscard]] bool manifest_optional_string(const json_t* root, std::optional<std::string>* value,
                                            VelkctlError** error, ManifestPath path);

/**
 * The boolean at the path. With an error slot a missing key is a success that leaves `value` as it was;
 * without one it is a failure: who passes no slot asks whether the value is there. "Could not read from
 * manifest - value is not boolean".
 */
[[nodiscard]] bool manifest_boolean(const json_t* root, bool* value, VelkctlError** error, ManifestPath path);

/**
 * The strings of the array at the path, none when it is absent. "%s in manifest is not an array" and "%s in
 * manifest does not contain strings" with the last key.
 */
[[nodiscard]] std::optional<std::vector<std::string>> manifest_strings(const json_t* root,
                                                                       VelkctlError** error,
                                                                       ManifestPath path);

// --- Single values of velkPackageConf.setup ---

/** Nothing, with manifest_string's error, when the value is absent or no string. */
[[nodiscard]] std::optional<std::string> manifest_app_name(const json_t* root, VelkctlError** error);
[[nodiscard]] std::optional<std::string> manifest_vendor_id(const json_t* root, VelkctlError** error);
[[nodiscard]] std::optional<std::string> manifest_version(const json_t* root, VelkctlError** error);
/** The numeric identifier, -1 when there is none; untouched on failure. */
[[nodiscard]] bool manifest_app_id(const json_t* root, int32_t* app_id, VelkctlError** error);
