#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <variant>

#include "base/handles.h"
#include "base/velkctl-error.h"

/** One line of a mount table. */
struct MountEntry {
    std::string directory;
    std::string type;
    std::string options;  ///< comma-separated, as in the table
};

/** What to look for: the exact mount directory, or the device that a mount directory lies on. */
using MountKey = std::variant<std::string, dev_t>;

/**
 * The first entry of a mount table that answers to the key.
 *
 * @param table  for instance /proc/mounts
 * @param error  code 10 "Failed to open %s: %s", "Failed to find mount entry %s amount mounts" or
 *               "Failed to find device ID %ld among mounts"
 */
[[nodiscard]] std::optional<MountEntry> find_mount_entry(const std::string& table, const MountKey& key,
                                                         VelkctlError** error);

/**
 * Remove a file that lies on an overlay whose lower layer is read-only, by removing it from the upper layer,
 * where no link is followed.
 *
 * When no mount entry has the file's device, the overlay is assumed to be the one on /usr.
 *
 * @param error  code 10: the file's or the mount's text ("Failed to remove %s: ...")
 */
[[nodiscard]] bool remove_through_overlay(const std::string& path, const std::string& mount_table,
                                          VelkctlError** error);

/**
 * Open what an overlay of two directories shows, the upper one's entries first: read-only, mounted at no
 * place, gone when it is closed. The directories' paths have neither a comma nor a colon.
 *
 * @param error  code 10 "Failed to mount %s over %s: %s"
 */
[[nodiscard]] UniqueFd open_overlay(const std::string& upper, const std::string& lower, VelkctlError** error);
