#pragma once

#include <jansson.h>

#include <optional>
#include <string>
#include <vector>

#include "base/velkctl-error.h"
#include "manifest/parsed-manifest.h"
#include "system/user-database.h"

/** The user an application runs as, and that user's primary group. */
struct AppOwner {
    std::string user;
    std::string group;

    bool operator==(const AppOwner&) const = default;
};

/** The name of the user that the device makes for the application: "velk-" and the name in lower case. */
[[nodiscard]] std::string dynamic_user_name(const std::string& app_name);

/**
 * Whether the application runs as a user of its own: its manifest names none. Nothing else in the manifest
 * matters, and which user that is tells the name under which the store has the application: the name in a
 * manifest may be broken.
 */
[[nodiscard]] bool has_dynamic_user(const json_t* manifest);

/**
 * The user an application runs as: the one its manifest names, or else, dynamic, one of its own.
 *
 * @param is_dynamic  required (asserted); untouched on failure
 * @param error       code 29 "Manifest contains both application specific user and legacy user", or that of
 *                    manifest_string
 */
[[nodiscard]] std::optional<std::string> get_manifest_app_user(const std::string& app_name,
                                                               const json_t* manifest, bool* is_dynamic,
                                                               VelkctlError** error);

/** The user of an installed application, from its manifest; a null name is code 10. */
[[nodiscard]] std::optional<std::string> application_username(const char* app_name, VelkctlError** error);

/**
 * The user that setup made for the installed application alone; none when its manifest names one, cannot be
 * read, or there is no such user.
 */
[[nodiscard]] std::optional<UserEntry> find_own_user(const std::string& app_name);

/** User and primary group of an installed application, both or nothing; the group is that of the user
 * database. */
[[nodiscard]] std::optional<AppOwner> application_owner(const char* app_name, VelkctlError** error);

/**
 * The supplementary groups that the application's user is to get: every listed group, each of which must be
 * allowed, and those conditional groups that are allowed and that the system knows.
 *
 * @param manifest, manifest_struct  the document and what was parsed from it; required (asserted)
 * @param error  code 29 for a malformed list; code 13 "%s: Secondary Group '%s' is not in Allowlist" with the
 *               application's name, logged as a warning too; code 10 when the amend list is malformed
 */
[[nodiscard]] std::optional<std::vector<std::string>> get_valid_groups_from_manifest(
    const json_t* manifest, const ParsedManifest* manifest_struct, VelkctlError** error);
