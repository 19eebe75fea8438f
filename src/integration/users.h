#pragma once

#include <jansson.h>

#include <optional>
#include <string>
#include <vector>

#include "base/velkctl-error.h"
#include "manifest/parsed-manifest.h"

/** Whom an application runs as. */
struct AppUser {
    std::string user;
    std::string group;  ///< the user's primary group
    std::vector<std::string>
        groups;  ///< its secondary groups; empty for a user that is not the application's own
};

/*
 * Calls to the device's user-management service. `app` is the application's name, which goes lower-cased; the
 * service forms the user's name from it. A failure is code 10 "DBus call to %s.%s failed: %s".
 */
[[nodiscard]] bool add_user(const std::string& app, const std::vector<std::string>& groups,
                            VelkctlError** error);
[[nodiscard]] bool modify_user(const std::string& app, const std::vector<std::string>& groups,
                               VelkctlError** error);
[[nodiscard]] bool remove_user(const std::string& app, VelkctlError** error);
[[nodiscard]] bool set_api_access_rights(const std::string& app, const std::vector<std::string>& methods,
                                         VelkctlError** error);

/**
 * Kill what is left of the application's own user: processes that its scripts left behind. Nothing is done
 * for a user that the manifest names, since others may run as it, too, nothing while the application itself
 * runs, and nothing when there is no telling.
 */
void end_left_processes(const std::string& app);

/** The deny-list entry that forbids the bus method to applications, or null. */
[[nodiscard]] const char* find_denied_method_entry(const std::string& method);

/**
 * The bus methods that the manifest asks for, the required ones first.
 *
 * @param error  code 29: a list that is no array of strings, or "Manifest contains the disallowed dbus method
 * \"%s\"" with the entry of the deny list
 */
[[nodiscard]] std::optional<std::vector<std::string>> requested_methods(const json_t* manifest,
                                                                        VelkctlError** error);

/**
 * Make the application's own user, or change it when it exists, with the groups that the manifest names.
 *
 * @param error  code 29 or 13 for the groups, code 10 for the service and the databases; what the service did
 * stays
 */
[[nodiscard]] std::optional<AppUser> create_dynamic_user(const json_t* manifest, const ParsedManifest& parsed,
                                                         VelkctlError** error);

/**
 * Grant the application's own user the bus methods that the manifest asks for, in place of those it had.
 *
 * @param error  code 29 for a refused method or malformed list, code 36 when a deep-learning processor is
 * required and not there, code 10 for the service
 */
[[nodiscard]] bool grant_api_access(const json_t* manifest, const ParsedManifest& parsed,
                                    VelkctlError** error);

/**
 * Check that the application may run as the existing user and group that the manifest names. Nothing is
 * changed.
 *
 * @param app    the application's name in the store, which the manifest's may not be
 * @param error  code 29 for a manifest that breaks a rule, code 13 for a user or group that is not on the
 * allowlist, which is logged as a warning too
 */
[[nodiscard]] std::optional<AppUser> check_static_user(const std::string& app, const json_t* manifest,
                                                       const ParsedManifest& parsed, VelkctlError** error);
