#include "store/velkctl-store.h"

#include <fts.h>
#include <sys/stat.h>

#include <array>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <memory>

#include "base/handles.h"
#include "base/log.h"
#include "manifest/manifest.h"
#include "manifest/names.h"
#include "system/file.h"
#include "system/systemctl.h"
#include "system/tree.h"

static constexpr std::array<StoreLocation, 4> kLocations = {{
    {STORE_INTERNAL, "internal", nullptr, paths::kStoreRoot, nullptr},
    {STORE_SD_CARD1, "sd_card1", "SD_DISK", paths::kFirstCardStore, "lower"},
    {STORE_SD_CARD2, "sd_card2", "SD_DISK2", paths::kSecondCardStore, "lower"},
    {STORE_INTERNAL_VLPFS, "internal_vlpfs", nullptr, paths::kLayerStore, "upper"},
}};

// The root comes last: for an application that is kept elsewhere it only holds a link.
static constexpr std::array<StoreKind, 4> kSearchOrder = {STORE_SD_CARD1, STORE_SD_CARD2,
                                                          STORE_INTERNAL_VLPFS, STORE_INTERNAL};

std::span<const StoreLocation> all_locations() { return kLocations; }

const StoreLocation* default_location() { return &kLocations[STORE_INTERNAL]; }

const StoreLocation* location_by_name(const std::string& name, VelkctlError** error) {
    for (const StoreLocation& location : kLocations)
        if (name == location.name)
            return &location;
    velkctl_error_set(error, VELKCTL_ERROR_INVALID_LOCATION, "'%s' is not a valid installation location",
                      name.c_str());
    return nullptr;
}

std::string store_path(const std::string& app, const StoreLocation* location) {
    const char* app_name = app.c_str();
    assert(app_name && location && location->path);
    return std::string(location->path) + "/" + app_name;
}

std::string location_link_target(const std::string& app, const StoreLocation* location) {
    const std::string application_directory = store_path(app, location);
    assert(location->subdir);
    return application_directory + "/" + location->subdir;
}

void clear_staging(const std::string& path) {
    ErrorSlot cleanup;
    if (!remove_recursive(path, cleanup))
        warn_and_clear_error(cleanup, nullptr);
    struct stat status {};
    const bool is_left = lstat(path.c_str(), &status) == 0;
    if (is_left && !remove_file(path, cleanup))
        warn_and_clear_error(cleanup, nullptr);
}

std::string store_root() { return paths::kStoreRoot; }

bool ensure_store_root(VelkctlError** error) { return make_dirs(store_root(), error); }

bool app_exists(const char* app, VelkctlError** error) {
    if (!app) {
        set_null_argument_error(error, "app_exists", "app_name");
        return false;
    }
    const std::string entry = paths::store_root_path(app);
    return is_directory_no_follow(entry) || is_symlink(entry);
}

bool require_app_absent(const std::string& app, VelkctlError** error) {
    if (!app_exists(app.c_str(), error))
        return true;
    velkctl_error_set(error, VELKCTL_ERROR_ALREADY_EXISTS, "Application '%s' already exists in content store",
                      app.c_str());
    return false;
}

static void set_not_found(const std::string& app, VelkctlError** error) {
    velkctl_error_set(error, VELKCTL_ERROR_NOT_FOUND, "Application not found in store: %s", app.c_str());
}

bool require_app_present(const std::string& app, VelkctlError** error) {
    if (app_exists(app.c_str(), error))
        return true;
    set_not_found(app, error);
    return false;
}

/** Whether the unit of a mount over the root's entry shows what the application has at this location. */
static bool is_mounted_from(const std::string& unit, const std::string& app, const StoreLocation& location) {
    return unit.find("\nOptions=lowerdir=" + store_path(app, &location) + "/lower,") != std::string::npos;
}

const StoreLocation* recorded_location(const std::string& app) {
    const std::string entry = paths::store_root_path(app);
    ErrorSlot no_mount;
    const std::string unit =
        read_file(std::string(paths::kSystemdUnits) + "/" + mount_unit_name(entry), no_mount).value_or("");
    for (const StoreLocation& location : kLocations)
        if (location.subdir && (is_symlink_target_equal_to(entry, location_link_target(app, &location)) ||
                                is_mounted_from(unit, app, location)))
            return &location;
    return is_directory_no_follow(entry) ? default_location() : nullptr;
}

/** Whether somebody prepared a card so that its place of applications is a place of the device. */
static bool leads_elsewhere(const StoreLocation& location) {
    return location.disk && is_symlink(location.path);
}

bool require_own_directory(const StoreLocation& location, VelkctlError** error) {
    return !leads_elsewhere(location) ||
           fail(error, VELKCTL_ERROR_INVALID_PACKAGE, "Attempt to use reserved directory '%s' as a symlink",
                location.path);
}

static bool is_kept_at(const std::string& app, const StoreLocation& location) {
    return !leads_elsewhere(location) && is_directory_no_follow(store_path(app, &location));
}

const StoreLocation* find_app_location(const std::string& app, VelkctlError** error) {
    const StoreLocation* recorded = recorded_location(app);
    if (recorded && is_kept_at(app, *recorded))
        return recorded;
    for (const StoreKind kind : kSearchOrder)
        if (!recorded && is_kept_at(app, kLocations[kind]))
            return &kLocations[kind];
    set_not_found(app, error);
    return nullptr;
}

static int compare_names(const FTSENT** left, const FTSENT** right) {
    return std::strcmp((*left)->fts_name, (*right)->fts_name);
}

/** Whether the walk could not even look into the directory that it started from. */
static bool is_unreadable_root(const FTSENT& entry) {
    const bool failed = entry.fts_info == FTS_NS || entry.fts_info == FTS_DNR || entry.fts_info == FTS_ERR;
    return failed && entry.fts_level == FTS_ROOTLEVEL;
}

std::vector<std::string> collect_paths(const std::string& directory,
                                       const std::optional<std::string>& sub_path, const PathFilter& filter,
                                       VelkctlError** error) {
    char* const roots[] = {const_cast<char*>(directory.c_str()), nullptr};
    const std::unique_ptr<FTS, ReleaseWith<fts_close>> walk(
        fts_open(roots, FTS_LOGICAL | FTS_NOCHDIR, compare_names));
    std::vector<std::string> collected;
    if (!walk) {
        SET_GENERAL_ERROR(error, "Failed to open store path %s: %s", directory.c_str(),
                          system_error_text().c_str());
        return collected;
    }
    int reason = 0;
    errno = 0;
    while (FTSENT* entry = fts_read(walk.get())) {
        if (is_unreadable_root(*entry))
            reason = entry->fts_errno;
        if (entry->fts_info == FTS_D && entry->fts_level == 1) {
            const std::string path = entry->fts_path + (sub_path ? "/" + *sub_path : "");
            if (filter(path))
                collected.push_back(path);
            fts_set(walk.get(), entry, FTS_SKIP);
        }
        errno = 0;  // a filter may leave anything there, only the walk's own end counts
    }
    if (errno != 0)
        reason = errno;
    if (reason != 0 && reason != ENOENT)
        SET_GENERAL_ERROR(error, "Failed to read store path directory %s: %s", directory.c_str(),
                          system_error_text(reason).c_str());
    return collected;
}

std::vector<std::string> collect_app_names(const PathFilter& filter, VelkctlError** error) {
    const auto is_application = [&filter](const std::string& path) {
        ErrorSlot not_a_name;
        return is_valid_app_name(base_name(path), not_a_name) && filter(path);
    };
    std::vector<std::string> names;
    for (const std::string& path : collect_paths(store_root(), std::nullopt, is_application, error))
        names.push_back(base_name(path));
    return names;
}

bool has_manifest(const std::string& path) {
    ErrorSlot not_readable;
    return load_manifest(path, not_readable) != nullptr;
}

bool holds_package_conf(const std::string& path) {
    ErrorSlot not_there;
    return path_exists(path + "/package.conf", not_there);
}

bool is_legacy_app(const std::string& path) { return holds_package_conf(path) && !has_manifest(path); }
