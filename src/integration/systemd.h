#pragma once

#include <string>

#include "base/handles.h"
#include "base/velkctl-error.h"
#include "manifest/parsed-manifest.h"
#include "store/velkctl-store.h"

/** The bit of a feature word that lets an application's scripts be made executable in its package's contents.
 */
inline constexpr uint32_t FEATURE_SCRIPT_PERMISSIONS = 2;

/**
 * Check that no unit of another application, or of the system, has a name that this application's units would
 * have: its own are not written in their place, nor taken for them later.
 *
 * @param error  code 10 "The unit %s that application %s needs is one of %s"
 */
[[nodiscard]] bool check_unit_names(const std::string& app, const json_t* manifest,
                                    const StoreLocation* location, VelkctlError** error);

/**
 * Write the units of an application: for the first card the polling service and the overlay, which is enabled
 * and started; a mount for each of the manifest's squash images, which are fixed first; the service and its
 * drop-in.
 *
 * @param error  required (asserted). Code 29 for a malformed `squashfsMounts`, code 1 for a drop-in directory
 * that is a link, code 10 for what cannot be written or looked up. Units already written stay, for teardown.
 */
[[nodiscard]] bool create_squashfs_mount_units(const ParsedManifest& parsed, const json_t* manifest,
                                               const std::string& user, const std::string& group,
                                               const StoreLocation* location, VelkctlError** error);

/**
 * For an application in the layer-file store: write the units of its package's contents and of the writable
 * layer on top, make their directories, enable and start both.
 *
 * @param features  with FEATURE_SCRIPT_PERMISSIONS the manifest's scripts become executable
 * @param error     code 1 or 10; what was made stays, for teardown
 */
[[nodiscard]] bool create_package_contents_mounts(const ParsedManifest& parsed, const StoreLocation* location,
                                                  const std::string& user, uint32_t features,
                                                  VelkctlError** error);

/**
 * Put the store's link back where setup took it away for a mount that does not stand there: a setup failed or
 * died on the way to it, or it did not come up. Over the link the application and its manifest are found
 * again. Does nothing where something is mounted, and a failure is a warning.
 */
void restore_unmounted_link(const std::string& app, const StoreLocation* location);

/**
 * Stop and remove everything that create_squashfs_mount_units and create_package_contents_mounts made, and
 * put the store's link back in the place of a mount. Goes on past every failure, which is a warning.
 *
 * @param location  null when the application's location is not known; what needs it is then left out, and the
 * result is a failure
 * @param error     code 10 "Failure during teardown of systemd units for %s"
 */
[[nodiscard]] bool teardown_systemd(const std::string& app, const StoreLocation* location,
                                    VelkctlError** error);
