#include "store/velkctl-import.h"

#include <strings.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>

#include "base/handles.h"
#include "base/log.h"
#include "base/paths.h"
#include "manifest/manifest-rules.h"
#include "manifest/manifest.h"
#include "manifest/names.h"
#include "store/lock.h"
#include "store/package-trailer.h"
#include "store/store-layout.h"
#include "store/velkctl-verify-signature.h"
#include "store/velkctl-vsf.h"
#include "system/file.h"
#include "system/tree.h"

namespace {

/** The data part of a package under import; a temporary one is deleted at the end of its scope. */
class PackageData {
  public:
    PackageData(std::string path, const std::string& package) : path_(std::move(path)) {
        is_temporary_ = path_ != package;
    }
    PackageData(const PackageData&) = delete;
    PackageData& operator=(const PackageData&) = delete;
    ~PackageData() {
        if (is_temporary_ && unlink(path_.c_str()) != 0)
            log_info("Failed to delete %s: %s", path_.c_str(), system_error_text().c_str());
    }
    [[nodiscard]] const std::string& path() const { return path_; }

  private:
    std::string path_;
    bool is_temporary_;
};

/** A package whose signature was judged. */
struct VerifiedPackage {
    const json_t* manifest;
    const ParsedManifest& parsed;
    const PackageData& data;
};

}  // namespace

/** Whether the package is one that the device's image ships already verified. */
static bool is_verified_by_image(const std::string& package) {
    if (dir_name(package) != paths::kImagePackages)
        return false;
    const std::string sidecar = package + ".json";
    const JsonPtr description(json_load_file(sidecar.c_str(), 0, nullptr));
    return json_is_true(json_object_get(description.get(), "signed"));
}

/** Verify the package and record the result; the path of its data part, or nothing. */
static std::optional<std::string> verify(const std::string& package, const std::string& app,
                                         const StoreLocation& location, VelkctlError** error) {
    if (is_verified_by_image(package))
        return create_vsf(app, "", error) ? std::optional(package) : std::nullopt;
    const bool allowed = unsigned_packages_allowed(error);
    if (*error)
        return std::nullopt;
    if (location.kind == STORE_INTERNAL_VLPFS && !allowed) {
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_LOCATION,
                          "Signature validation is not supported for location %s", location.name);
        return std::nullopt;
    }
    // When the signature is refused its data stays for whoever looks into the matter.
    std::optional<std::string> data;
    if (validate_signature_and_create_vsf(app.c_str(), package.c_str(), &data, nullptr, CREATE_VSF, error) ==
        0)
        return data;
    if (data && *data != package)
        keep_package_data(*data);
    return std::nullopt;
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

std::string import_note(const StoreLocation& location) { return std::string("import-") + location.name; }

// The root's link comes last, and what dies before it leaves an application that the root knows nothing of. A
// directory that came with a card is not this import's: nothing is unpacked over it.
static bool note_placing(const std::string& app, const StoreLocation& location, VelkctlError** error) {
    const bool is_anothers = location.disk && is_filled_directory(store_path(app, &location));
    return !location.subdir || is_anothers || lockfile_note(import_note(location), error);
}

static bool place(const VerifiedPackage& package, const StoreLocation& location, VelkctlError** error) {
    const std::string& app = package.parsed.appName;
    if (location.kind == STORE_SD_CARD1 &&
        (!check_card(location, error) || !remove_recursive(store_path(app, &location), error)))
        return false;
    if (!note_placing(app, location, error))
        return false;
    const bool laid_out =
        location.kind == STORE_INTERNAL_VLPFS
            ? lay_out_layer(app, location, package.data.path(), package.manifest, error)
            : lay_out_directory(app, location, package.data.path(), package.manifest, error);
    if (!laid_out || !location.subdir)
        return laid_out;
    return make_symlink(location_link_target(app, &location), paths::store_root_path(app), error) &&
           flush_path(store_root(), error);
}

/** What is left when the package is verified: check that it fits the device and the store, and place it. */
static bool import_verified(const VerifiedPackage& package, const StoreLocation& location,
                            OperationLock* lock, VelkctlError** error) {
    const std::string& app = package.parsed.appName;
    return check_firmware(package.parsed, error) && check_architecture(package.parsed, error) &&
           lock->take(app, error) && require_no_other_case(app, error) && require_app_absent(app, error) &&
           place(package, location, error);
}

int velkctl_import(const std::string& package_path, const StoreLocation* location, std::string* appname,
                   VelkctlError** error) {
    const char* path = package_path.c_str();
    assert(path && appname && error);
    const std::optional<std::string> package = canonical_path(package_path, error);
    if (!package || !check_package_file_name(*package, error))
        return -1;
    const JsonPtr document = load_package_manifest(*package, error);
    const std::optional<ParsedManifest> manifest =
        document ? parse_manifest(document.get(), error) : std::nullopt;
    if (!manifest)
        return -1;
    *appname = manifest->appName;
    std::optional<std::string> verified = verify(*package, manifest->appName, *location, error);
    if (!verified)
        return -1;
    OperationLock lock;  // given back after the temporary data is gone
    const PackageData data(std::move(*verified), *package);
    return import_verified({document.get(), *manifest, data}, *location, &lock, error) ? 0 : -1;
}

bool check_vendor_id(const json_t* manifest, VelkctlError** error) {
    const std::optional<std::string> app = manifest_app_name(manifest, error);
    if (!app)
        return false;
    ErrorSlot none;
    const JsonPtr stored = load_installed_manifest(*app, none);
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
