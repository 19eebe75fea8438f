#pragma once

#include <cstdint>
#include <string>

#include "base/velkctl-error.h"
#include "store/application.h"
#include "store/package.h"

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
 * Keep the package's data part as a layer file, with its control files unpacked beside it.
 *
 * @param error  code 1 when a control file cannot be read from it, its manifest is another than was examined,
 * or another file has taken its place; 10 otherwise. What was made stays, and a later import takes it over
 */
[[nodiscard]] bool lay_out_layer(const Package& package, const StoreLocation& location, VelkctlError** error);

/**
 * Unpack the package's data part as an unprivileged user, protect its control files, and move it to the
 * application's place.
 *
 * @param error  code 1 when it does not unpack, lacks a control file, plants a link (of either kind), or
 * another file has taken its place; 3 when there is no room; 10. The staging directory is gone then, and the
 * working directory as before.
 */
[[nodiscard]] bool lay_out_directory(Package* package, const StoreLocation& location, VelkctlError** error);

/**
 * Check what laying out would find fault with once the stored version is removed: that there is room then,
 * and that the data part can be read to its end and holds the control files. Nothing is changed.
 *
 * @param error  as that of the layout; code 3 also for a layer that does not fit
 */
[[nodiscard]] bool check_fits_instead(Package* package, const StoreLocation& location, const Application& old,
                                      VelkctlError** error);
