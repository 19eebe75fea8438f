#pragma once

#include <jansson.h>

#include <string>

#include "base/velkctl-error.h"
#include "store/package.h"
#include "store/velkctl-store.h"

/**
 * Verify a package, check that it fits the device, and put it into the content store. Nothing is set up.
 *
 * The operation lock is taken for the application and given back.
 *
 * @param appname  required (asserted); receives the application's name as soon as the manifest was read, also
 * when the import then fails
 * @param error    required (asserted); codes 1 package, 2 signature, 3 space, 5 firmware or architecture, 10,
 * 12 lock, 14 exists already, 29 manifest, 33 location. It stays empty when the firmware version is not to be
 *                 had. On failure the verification state file is as it was, and the staging directory and the
 * temporary data file are gone, except that the data file of a package with a bad signature stays, or of one
 * whose signature cannot be recorded; what was made in a layer location stays for the next import.
 * @return 0, or -1 on failure
 */
[[nodiscard]] int velkctl_import(const std::string& path, const StoreLocation* location, std::string* appname,
                                 VelkctlError** error);

/** The same for a package whose manifest was read. */
[[nodiscard]] bool import_package(Package* package, const StoreLocation& location, VelkctlError** error);

// --- The steps of it, for who has something to do between them ---

/** Verify the package, once for all that follows, and check that it fits the device. Nothing is changed. */
[[nodiscard]] bool verify_for_import(Package* package, const StoreLocation& location, VelkctlError** error);

/**
 * Check what else the import of a verified package would find before it changes anything, as if the stored
 * version were removed already; for who is about to remove it. The lock is held.
 *
 * @param error  codes 1, 3, 10 and 14 as import
 */
[[nodiscard]] bool check_replacement(Package* package, const StoreLocation& location, VelkctlError** error);

/** Put a verified package into the store, as velkctl_import; its data part is gone then. */
[[nodiscard]] bool import_verified(Package* package, const StoreLocation& location, VelkctlError** error);

/**
 * Check that a new version comes from the vendor of the one in the store, whether or not that is mounted at
 * its place. Letter case does not count; no version in the store, or one without a vendor, passes.
 *
 * @param manifest  of the new version
 * @param error     code 27 "Vendor ID in manifest does not match the vendor ID of the previous version", or
 * 29 when the manifest names no application
 */
[[nodiscard]] bool check_vendor_id(const json_t* manifest, VelkctlError** error);
