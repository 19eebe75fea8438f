#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/paths.h"
#include "base/velkctl-error.h"

/** Rows of the table of locations. */
enum StoreKind : uint32_t {
    STORE_INTERNAL = 0,
    STORE_SD_CARD1 = 1,        ///< overlay layout, and its file system is checked
    STORE_SD_CARD2 = 2,        ///< laid out like the internal one, but reached through a link
    STORE_INTERNAL_VLPFS = 3,  ///< keeps packages as layer files
};

/** A place where applications are kept. Outside the store root an application is reached by a link in the
 * root. */
struct StoreLocation {
    uint32_t kind;       ///< a StoreKind
    const char* name;    ///< as given on command lines
    const char* disk;    ///< storage name of the card, or null
    const char* path;    ///< base directory
    const char* subdir;  ///< the directory inside an application's directory that the root links to, or null
};

/** All locations, in the order of StoreKind. They live as long as the process. */
[[nodiscard]] std::span<const StoreLocation> all_locations();

/** The internal location, whose path is the store root. */
[[nodiscard]] const StoreLocation* default_location();

/** The location of that exact name; null with code 33 "'%s' is not a valid installation location" when there
 * is none. */
[[nodiscard]] const StoreLocation* location_by_name(const std::string& name, VelkctlError** error);

/** The directory of the application at a location, which must be given (asserted). */
[[nodiscard]] std::string store_path(const std::string& app, const StoreLocation* location);

/** What the root's entry of an application links to; the location must have a sub-directory (asserted). */
[[nodiscard]] std::string location_link_target(const std::string& app, const StoreLocation* location);

/** The staging directory of import and removal beside `application_directory`. */
[[nodiscard]] inline std::string staging_path(const std::string& application_directory) {
    return application_directory + ".tmp";
}

/** Clear what an earlier import or removal left at its staging path, whatever it is. Failures are warnings.
 */
void clear_staging(const std::string& path);

/** The directory through which every application is reached. */
[[nodiscard]] std::string store_root();

/** Make the store root with its parents, mode 0755. Code 10 "Could not create directory %s: %s". */
[[nodiscard]] bool ensure_store_root(VelkctlError** error);

/**
 * Whether the store root has an entry for the application: a directory, or a link whatever it points to. A
 * null name is no application, and code 10.
 */
[[nodiscard]] bool app_exists(const char* app, VelkctlError** error);

/** Code 14 "Application '%s' already exists in content store". */
[[nodiscard]] bool require_app_absent(const std::string& app, VelkctlError** error);

/** Code 4 "Application not found in store: %s". */
[[nodiscard]] bool require_app_present(const std::string& app, VelkctlError** error);

/**
 * Where this device itself says that the application is kept, whether or not its card is in the slot: where
 * the root's link leads, what setup's units mount over the root's entry, or else the root when it holds a
 * directory. Null when there is nothing that says so.
 *
 * What lies on a card does not count: a card comes from anywhere, and may hold a directory of any name.
 */
[[nodiscard]] const StoreLocation* recorded_location(const std::string& app);

/**
 * Where the application's files are: at its recorded location. Of an application without one, as an import
 * that died leaves it, the other locations come before the internal one, and only a real directory counts.
 *
 * @param error  code 4 "Application not found in store: %s", also when the card of its location is out
 * @return null when it is nowhere
 */
[[nodiscard]] const StoreLocation* find_app_location(const std::string& app, VelkctlError** error);

/**
 * Nothing is done through a link at the place of a card's applications: a card comes from anywhere.
 *
 * @param error  code 1 "Attempt to use reserved directory '%s' as a symlink"
 */
[[nodiscard]] bool require_own_directory(const StoreLocation& location, VelkctlError** error);

/** Decides whether a path found by collect_paths is kept. */
using PathFilter = std::function<bool(const std::string& path)>;

/**
 * The directories right below `directory`, links to directories included, sorted by name in byte order; with
 * `sub_path`, that path below each of them. A missing directory holds none.
 *
 * @param error  code 10 "Failed to open store path %s: %s" or "Failed to read store path directory %s: %s";
 * what was gathered before is still returned
 */
[[nodiscard]] std::vector<std::string> collect_paths(const std::string& directory,
                                                     const std::optional<std::string>& sub_path,
                                                     const PathFilter& filter, VelkctlError** error);

/**
 * The names of the applications in the store root whose directory a filter accepts, in name order.
 * Directories that are no applications, such as the lock's, the backups' and what an interrupted command
 * left, are passed over.
 *
 * @param error  that of collect_paths; what was found so far is still returned
 */
[[nodiscard]] std::vector<std::string> collect_app_names(const PathFilter& filter, VelkctlError** error);

/** Filter: a manifest can be read from the directory. */
[[nodiscard]] bool has_manifest(const std::string& path);

/** Filter: there is a package.conf. */
[[nodiscard]] bool holds_package_conf(const std::string& path);

/** Filter: no manifest can be read, but there is a package.conf: an application of the older package form. */
[[nodiscard]] bool is_legacy_app(const std::string& path);
