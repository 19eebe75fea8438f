#include "store/velkctl-re-import.h"

#include <cassert>
#include <string>
#include <vector>

#include "base/log.h"
#include "base/paths.h"
#include "manifest/names.h"
#include "store/velkctl-store.h"
#include "system/file.h"

/** The name of the application that a layer's sub-directory belongs to. */
static std::string app_of_layer(const std::string& path) { return base_name(dir_name(path).value_or("")); }

/** Filter: a complete application; a staging directory that a crash left beside it is none, whatever it
 * holds. */
static bool is_application_layer(const std::string& path) {
    ErrorSlot not_a_name;
    return is_valid_app_name(app_of_layer(path), not_a_name) && has_manifest(path);
}

static bool link_layer(const std::string& app, const StoreLocation& location, VelkctlError** error) {
    const std::string entry = paths::store_root_path(app);
    return remove_empty_dir(entry, error) && make_symlink(location_link_target(app, &location), entry, error);
}

int velkctl_re_import_vlp_mount_symlinks(VelkctlError** error) {
    assert(error);
    const StoreLocation& location = all_locations()[STORE_INTERNAL_VLPFS];
    const std::vector<std::string> layers =
        collect_paths(location.path, location.subdir, is_application_layer, error);
    if (*error)
        return -1;
    for (const std::string& layer : layers) {
        const std::string app = app_of_layer(layer);
        ErrorSlot reason;
        if (link_layer(app, location, reason)) {
            log_info("Re-imported vlp mount symlink for %s", app.c_str());
            continue;
        }
        log_error(reason.get());
        if (!*error)
            SET_GENERAL_ERROR(error, "Failed re-importing %s: %s", app.c_str(), reason.message());
    }
    // Nothing syncs after this command, and its links must outlive a power cut.
    ErrorSlot flush;
    if (!layers.empty() && !flush_path(store_root(), flush) && !*error)
        flush.move_to(error);
    return *error ? -1 : 0;
}
