#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "base/velkctl-error.h"
#include "system/area.h"

/*
 * Copies between an application's area and the system's own, made from one opened directory to the other: no
 * link is followed and nothing but directories and regular files is opened, whatever somebody exchanges
 * meanwhile.
 */

/** What becomes of the owners: the copies are the copying user's own, unless they are given to a user. */
using CopyOwner = std::optional<uid_t>;

/**
 * Copy an open directory with all that is in it, as `name`, into a directory that nobody else can change.
 * Links are copied as links, hard links of one file to another stay that, holes stay holes, permissions lose
 * what the umask takes, groups, times and attributes are not kept. Device nodes are left out with a warning.
 * Any depth is copied in constant memory.
 *
 * @param error  code 10 "Failed copying %s to %s: %s"; what was made stays
 */
[[nodiscard]] bool copy_tree(const AreaDirectory& from, const AreaDirectory& to, const std::string& name,
                             CopyOwner owner, VelkctlError** error);

/**
 * Copy the regular file `name` to a new one. Anything else, and a file of more than `limit` bytes, is a
 * failure.
 *
 * @param copy   receives the new one, open only for its owner and mode, unless it is null
 * @param error  code 10 "Failed copying %s to %s: %s"; nothing is left of the new one
 */
[[nodiscard]] bool copy_area_file(const AreaDirectory& from, const std::string& name, const AreaDirectory& to,
                                  const std::string& new_name, off_t limit, std::optional<AreaFile>* copy,
                                  VelkctlError** error);

/**
 * Make the empty directory `name`, which only root can enter, whatever somebody puts in its place.
 *
 * @param error  code 10 "Could not create directory %s: %s", also when the name exists
 */
[[nodiscard]] std::optional<AreaDirectory> make_private_directory(const AreaDirectory& parent,
                                                                  const std::string& name,
                                                                  VelkctlError** error);
