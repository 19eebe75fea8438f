#pragma once

#include <string>

#include "base/velkctl-error.h"

/**
 * Take a package apart: its archive as `archive.tar.gz` or `archive.tar`, and, when it is signed, its
 * signature as `signature.asc`, in a new folder.
 *
 * @param folder  must not exist yet; after a failure it does not
 * @param error   code 14 when the folder exists; that of open_package_file; code 10 when something cannot be
 * written
 */
[[nodiscard]] bool velk_pack_split(const std::string& package, const std::string& folder,
                                   VelkctlError** error);
