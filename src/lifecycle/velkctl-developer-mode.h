#pragma once

#include <jansson.h>

#include <optional>
#include <string>

#include "base/velkctl-error.h"
#include "manifest/parsed-manifest.h"

/*
 * Developer mode: while a verified developer-mode application made for this very device is installed,
 * applications of the vendor it names may run unsigned, as long as one of its schemas accepts their
 * manifests.
 */

/**
 * What the installed developer-mode application says, or nothing when the device is not in developer mode. A
 * developer-mode application in a bad state is a warning, and no developer mode.
 */
[[nodiscard]] std::optional<DeveloperModeRecord> get_developer_mode();

/**
 * Whether an installed application may run: it is verified, or developer mode lets it in.
 *
 * @param error  code 4 when its manifest cannot be loaded, code 2 "device is not in developer mode", or that
 * of velkctl_validate_manifest_content
 */
[[nodiscard]] bool validate_manifest(const std::string& app, VelkctlError** error);

/**
 * Whether the manifest is of the developer-mode vendor and accepted by a schema of the developer-mode
 * application.
 *
 * @param error  code 29 without name or vendor; code 53 for another vendor; code 54 "%s - No matching schema
 * for %s"; code 10 when there are no schemas
 */
[[nodiscard]] bool velkctl_validate_manifest_content(const DeveloperModeRecord& record,
                                                     const json_t* manifest, VelkctlError** error);

/** Let the application's user log in by SSH, by adding it to the group for that. Errors of the user service.
 */
[[nodiscard]] bool enable_ssh_for_app(const std::string& app_name, VelkctlError** error);

/** The same for an application that runs as a user of its own; for any other an info line tells that it is
 * not done. */
[[nodiscard]] bool enable_ssh_for_app_if_dynamic_user(const ParsedManifest& installed_manifest,
                                                      VelkctlError** error);

/**
 * The same for every fully installed application of the developer-mode vendor. An application that cannot be
 * looked at is a warning; one that cannot be changed ends it.
 *
 * @param error  that of the listing, "Got invalid or unexpected JSON from velkctl_list_all.", or of the user
 * service
 */
[[nodiscard]] bool enable_ssh_for_vendor(const DeveloperModeRecord& record, VelkctlError** error);

/**
 * Take the SSH access of the application's user back.
 *
 * @param error  code 10 "Application '%s' uses a static user with SSH enabled": that user is not velkctl's to
 * change
 */
[[nodiscard]] bool disable_ssh_for_app(const std::string& app_name, VelkctlError** error);
