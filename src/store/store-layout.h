#pragma once

#include <jansson.h>

#include <cstdint>
#include <string>

#include "base/velkctl-error.h"
#include "store/velkctl-store.h"

/*
 * How the content of a verified package is laid out at a location. These are the second half of an import;
 * the lock is held and the application is in no location.
 */

/** What is needed on top of an archive's own size before it is unpacked, in bytes. */
inline constexpr uint64_t SPACE_MARGIN = 262144;

/**
 * Check that the card below a location holds a file system with Unix permissions. Code 10 for a missing card,
 * an unreadable mount table, or another file system; that of require_own_directory.
 */
[[nodiscard]] bool check_card(const StoreLocation& location, VelkctlError** error);

/**
 * Code 3 "Package too large. Required: %lu bytes, available: %lu bytes." when an archive that unpacks to
 * `size` bytes does not fit into `available` bytes with the margin.
 */
[[nodiscard]] bool check_space(uint64_t size, uint64_t available, VelkctlError** error);

/**
 * Keep the package `data` as a layer file, with its control files unpacked beside it.
 *
 * @param manifest  which the package must hold
 * @param error  code 1 when a control file cannot be read from the package or its manifest is another, 10
 * otherwise; what was made stays, and a later import takes it over
 */
[[nodiscard]] bool lay_out_layer(const std::string& app, const StoreLocation& location,
                                 const std::string& data, const json_t* manifest, VelkctlError** error);

/**
 * Unpack the package `data` as an unprivileged user, protect its control files, and move it to the
 * application's place.
 *
 * @param error  code 1 when it does not unpack, lacks a control file or plants a link; 3 when there is no
 * room; 10. The staging directory is gone then, and the working directory as before.
 */
[[nodiscard]] bool lay_out_directory(const std::string& app, const StoreLocation& location,
                                     const std::string& data, const json_t* manifest, VelkctlError** error);
