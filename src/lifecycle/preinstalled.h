#pragma once

#include <optional>
#include <set>
#include <string>

#include "base/handles.h"
#include "base/velkctl-error.h"

/*
 * The applications that ship with the firmware. What the firmware's package directory holds is kept in a
 * cache file, a JSON array of objects with `appName` and `version`, since looking into every package takes
 * its time.
 */

/**
 * The names in the cache file. No file is an empty list; a file that is no array of such objects is warned
 * about as "Could not parse preinstalled apps file %s: %s" and is an empty list too.
 */
[[nodiscard]] std::set<std::string> cached_preinstalled_names();

/**
 * The list as JSON text: the cache file as it stands or, when there is none, what a scan of the package
 * directory finds, which is then written to the cache file. Every trouble with one package, with the
 * directory or with writing the cache is a warning.
 *
 * @param error  code 10 when the cache file cannot be read
 */
[[nodiscard]] std::optional<std::string> preinstalled_list(VelkctlError** error);

/** The names in that list. */
[[nodiscard]] std::set<std::string> preinstalled_names();
