#include "store/velkctl-import.h"

#include <strings.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdio>

#include "base/handles.h"
#include "base/interruption.h"
#include "base/log.h"
#include "base/paths.h"
#include "manifest/manifest-rules.h"
#include "manifest/manifest.h"
#include "store/application.h"
#include "store/lock.h"
#include "store/store-layout.h"
#include "store/velkctl-verify-signature.h"
#include "store/velkctl-vsf.h"
#include "system/file.h"
#include "system/tree.h"

/** Whether the package is one that the device's image ships already verified. */
static bool is_verified_by_image(const std::string& package) {
    if (dir_name(package) != paths::kImagePackages)
        return false;
    const std::string sidecar = package + ".json";
    const JsonPtr description(json_load_file(sidecar.c_str(), 0, nullptr));
    return json_is_true(json_object_get(description.get(), "signed"));
}

/** Verify the package and keep its data part with the text of its record. */
static bool verify(Package* package, const StoreLocation& location, VelkctlError** error) {
    VerifiedParts parts{package->path(), std::nullopt};
    if (is_verified_by_image(package->path())) {
        parts.signature = "";
    } else {
        const bool allowed = unsigned_packages_allowed(error);
        if (*error)
            return false;
        if (location.kind == STORE_INTERNAL_VLPFS && !allowed)
            return fail(error, VELKCTL_ERROR_INVALID_LOCATION,
                        "Signature validation is not supported for location %s", location.name);
        // When the signature is refused its data stays for whoever looks into the matter.
        if (!verify_package(*package, &parts, error))
            return false;
    }
    std::optional<std::string> record;
    if (parts.signature && !(record = require_vsf_text(package->app(), *parts.signature, error)))
        return false;  // and its data stays too
    package->adopt(std::move(parts.data), std::move(record));
    return package->require_unchanged(error);
}

static bool check_firmware(const ParsedManifest& manifest, VelkctlError** error) {
    if (!manifest.osVersionRanges)
        return true;
    ErrorSlot reason;
    const std::optional<Version> firmware = running_firmware_version(reason);
    if (!firmware) {
        log_warning("Failed to retrieve the current firmware version");
        return false;
    }
    return check_compatibility(*firmware, *manifest.osVersionRanges, error);
}

static bool check_architecture(const ParsedManifest& manifest, VelkctlError** error) {
    const std::string system = system_architecture();
    if (!manifest.architecture || *manifest.architecture == "all" || *manifest.architecture == system)
        return true;
    velkctl_error_set(error, VELKCTL_ERROR_INCOMPATIBLE,
                      "Application with architecture %s cannot run on system with architecture %s",
                      manifest.architecture->c_str(), system.c_str());
    return false;
}

/** Names that differ in case only would share users and unit names. */
static bool require_no_other_case(const std::string& app, VelkctlError** error) {
    const std::string root = store_root();
    const DirectoryPtr directory(opendir(root.c_str()));
    if (!directory) {
        SET_GENERAL_ERROR(error, "Failed to open store path %s: %s", root.c_str(),
                          system_error_text().c_str());
        return false;
    }
    while (const dirent* entry = readdir(directory.get())) {
        if (app == entry->d_name || strcasecmp(app.c_str(), entry->d_name) != 0)
            continue;
        velkctl_error_set(error, VELKCTL_ERROR_ALREADY_EXISTS,
                          "Application '%s' already exists in the store with a different case '%s'",
                          app.c_str(), entry->d_name);
        return false;
    }
    return true;
}

namespace {

/**
 * The record of an earlier package of that name, which is taken away before an unsigned application comes to
 * its place: at no moment may anybody see that one as signed. It is put back when the application does not
 * come.
 */
class OldRecord {
  public:
    explicit OldRecord(const std::string& app) : app_(app) {}
    OldRecord(const OldRecord&) = delete;
    OldRecord& operator=(const OldRecord&) = delete;
    ~OldRecord() {
        const Uninterrupted shield;
        ErrorSlot trouble;
        if (text_ && !app_exists(app_.c_str(), trouble) && !write_vsf(app_, *text_, trouble))
            warn_and_clear_error(trouble, nullptr);
    }
    [[nodiscard]] bool take_away(VelkctlError** error) {
        if (!vsf_exists(app_))
            return true;
        ErrorSlot unreadable;
        std::optional<std::string> text = read_file(vsf_path(app_), unreadable);
        if (!remove_vsf_of_unsigned(app_, error))
            return false;
        text_ = std::move(text);
        return flush_path(paths::kVerificationStates, error);
    }

  private:
    const std::string& app_;
    std::optional<std::string> text_;
};

}  // namespace

/** Put the application into the store; `is_placed` tells whether it is there, also when that then failed. */
static bool place(Package* package, const StoreLocation& location, bool* is_placed, VelkctlError** error) {
    const std::string& app = package->app();
    if (location.kind == STORE_SD_CARD1 &&
        (!check_card(location, error) || !remove_recursive(store_path(app, &location), error)))
        return false;
    const bool laid_out = location.kind == STORE_INTERNAL_VLPFS ? lay_out_layer(*package, location, error)
                                                                : lay_out_directory(package, location, error);
    *is_placed = laid_out && (!location.subdir || make_symlink(location_link_target(app, &location),
                                                               paths::store_root_path(app), error));
    return *is_placed && (!location.subdir || flush_path(store_root(), error));
}

/** Take back what was placed a moment ago. */
static void take_back(const std::string& app, const StoreLocation& location) {
    const Uninterrupted shield;
    ErrorSlot trouble;
    const std::string directory = store_path(app, &location);
    const std::string staging = staging_path(directory);
    if (location.subdir && !remove_file(paths::store_root_path(app), trouble))
        warn_and_clear_error(trouble, nullptr);
    if (std::rename(directory.c_str(), staging.c_str()) != 0 || !remove_recursive(staging, trouble) ||
        !flush_path(location.path, trouble))
        log_warning("Failed to take %s back: %s", directory.c_str(),
                    trouble.is_set() ? trouble.message() : system_error_text().c_str());
}

/**
 * Place the application and record its verification. What is not verified is never in the store beside a
 * record: that of a signed package is written last, and an old one goes before an unsigned package comes.
 */
static bool place_and_record(Package* package, const StoreLocation& location, VelkctlError** error) {
    const std::string& app = package->app();
    OldRecord old(app);
    if (!package->record() && !old.take_away(error))
        return false;
    bool is_placed = false;
    if (place(package, location, &is_placed, error) &&
        (!package->record() || write_vsf(app, *package->record(), error)))
        return true;
    if (is_placed)
        take_back(app, location);
    return false;
}

bool verify_for_import(Package* package, const StoreLocation& location, VelkctlError** error) {
    return verify(package, location, error) && check_firmware(package->parsed(), error) &&
           check_architecture(package->parsed(), error);
}

/** An unsigned package is unpacked where it lies, which must not go with the stored version. */
static bool require_outlasting(const Package& package, const Application& old, VelkctlError** error) {
    const bool goes =
        package.is_own_data() && (package.path().starts_with(old.directory() + "/") ||
                                  (old.location && package.path().starts_with(old.home() + "/")));
    return !goes || fail(error, VELKCTL_ERROR_GENERAL, "Path is not a valid canonicalizable path: %s",
                         package.path().c_str());
}

bool check_replacement(Package* package, const StoreLocation& location, VelkctlError** error) {
    const Application old = find_application(package->app());
    return require_outlasting(*package, old, error) && require_no_other_case(package->app(), error) &&
           (location.kind != STORE_SD_CARD1 || check_card(location, error)) &&
           check_fits_instead(package, location, old, error) && package->require_unchanged(error);
}

bool import_verified(Package* package, const StoreLocation& location, VelkctlError** error) {
    const std::string& app = package->app();
    OperationLock lock;
    const bool imported = lock.take(app, error) && require_no_other_case(app, error) &&
                          require_app_absent(app, error) && place_and_record(package, location, error);
    package->release_data();  // before the lock is given back
    return imported;
}

bool import_package(Package* package, const StoreLocation& location, VelkctlError** error) {
    return verify_for_import(package, location, error) && import_verified(package, location, error);
}

int velkctl_import(const std::string& package_path, const StoreLocation* location, std::string* appname,
                   VelkctlError** error) {
    const char* path = package_path.c_str();
    assert(path && appname && error);
    Package package;
    if (!package.open(package_path, error) || !package.read_manifest(error))
        return -1;
    *appname = package.app();
    return import_package(&package, *location, error) ? 0 : -1;
}

/**
 * The manifest of the stored version, as the package brought it: what its directory shows may be hidden,
 * since nothing is mounted there, or be the application's own.
 */
static JsonPtr load_stored_manifest(const std::string& app) {
    const Application stored = find_application(app);
    for (const std::string& directory : {stored.packed_files(), stored.directory()}) {
        ErrorSlot unreadable;
        JsonPtr manifest = directory.empty() ? nullptr : load_manifest(directory, unreadable);
        if (manifest)
            return manifest;
    }
    return nullptr;
}

bool check_vendor_id(const json_t* manifest, VelkctlError** error) {
    const std::optional<std::string> app = manifest_app_name(manifest, error);
    if (!app)
        return false;
    const JsonPtr stored = load_stored_manifest(*app);
    const std::optional<std::string> stored_vendor =
        stored ? manifest_vendor_id(stored.get(), nullptr) : std::nullopt;
    if (!stored_vendor)
        return true;
    const std::optional<std::string> vendor = manifest_vendor_id(manifest, nullptr);
    if (vendor && strcasecmp(vendor->c_str(), stored_vendor->c_str()) == 0)
        return true;
    velkctl_error_set(error, VELKCTL_ERROR_VENDOR_MISMATCH,
                      "Vendor ID in manifest does not match the vendor ID of the previous version");
    return false;
}
