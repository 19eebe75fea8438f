#pragma once

#include <jansson.h>

#include <string>

#include "base/velkctl-error.h"
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
 *                 had. On failure the staging directory and the temporary data file are gone, except that the
 * data file of a package with a bad signature stays; what was made in a layer location stays for the next
 * import; a verification state file that was written stays.
 * @return 0, or -1 on failure
 */
[[nodiscard]] int velkctl_import(const std::string& path, const StoreLocation* location, std::string* appname,
                                 VelkctlError** error);

/** The note of the lock that says that an import was about to make the application's directory at the
 * location. */
[[nodiscard]] std::string import_note(const StoreLocation& location);

/**
 * Check that a new version comes from the vendor of the one in the store. Letter case does not count; no
 * version in the store, or one without a vendor, passes.
 *
 * @param manifest  of the new version
 * @param error     code 27 "Vendor ID in manifest does not match the vendor ID of the previous version", or
 * 29 when the manifest names no application
 */
[[nodiscard]] bool check_vendor_id(const json_t* manifest, VelkctlError** error);
