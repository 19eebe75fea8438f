#include "manifest/manifest.h"

#include <sys/stat.h>

#include <limits>

#include "base/paths.h"
#include "manifest/names.h"
#include "system/archive.h"
#include "system/file.h"

static constexpr const char* kManifestName = "manifest.json";

// --- Loading ---

/** Hand over a check's error as an invalid manifest: the message stays. */
static void move_as_invalid_manifest(ErrorSlot& from, VelkctlError** error) {
    velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST, "%s", from.message());
}

static bool check_manifest_owner(const std::string& path, VelkctlError** error) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        SET_GENERAL_ERROR(error, "Failed to read file information of %s: %s", path.c_str(),
                          system_error_text().c_str());
        return false;
    }
    if (status.st_uid == 0 && status.st_gid == 0)
        return true;
    velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST, "File %s has improper ownership: %ju:%ju",
                      path.c_str(), static_cast<uintmax_t>(status.st_uid),
                      static_cast<uintmax_t>(status.st_gid));
    return false;
}

std::optional<std::string> get_safe_manifest_path(const char* directory, VelkctlError** error) {
    if (!directory) {
        set_null_argument_error(error, "get_safe_manifest_path", "path");
        return std::nullopt;
    }
    const std::string path = std::string(directory) + "/" + kManifestName;
    ErrorSlot fault;
    if (!require_path(path, fault)) {
        move_as_invalid_manifest(fault, error);
        return std::nullopt;
    }
    if (is_symlink(path)) {
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST, "Manifest must not be a symbolic link: %s",
                          path.c_str());
        return std::nullopt;
    }
    if (!check_manifest_owner(path, error))
        return std::nullopt;
    if (!check_permissions(path, 0444, true, fault)) {
        move_as_invalid_manifest(fault, error);
        return std::nullopt;
    }
    return path;
}

bool holds_manifest_file(const std::string& directory) {
    ErrorSlot unknown;
    return path_exists(directory + "/" + kManifestName, unknown);
}

JsonPtr load_manifest(const std::string& directory, VelkctlError** error) {
    const std::optional<std::string> path = get_safe_manifest_path(directory.c_str(), error);
    if (!path)
        return nullptr;
    json_error_t reason;
    JsonPtr manifest(json_load_file(path->c_str(), 0, &reason));
    if (!manifest) {
        const bool unopened = json_error_code(&reason) == json_error_cannot_open_file;
        velkctl_error_set(error, unopened ? VELKCTL_ERROR_GENERAL : VELKCTL_ERROR_INVALID_MANIFEST,
                          "JSON error: %s", reason.text);
    }
    return manifest;
}

JsonPtr load_installed_manifest(const std::string& app, VelkctlError** error) {
    return load_manifest(paths::store_root_path(app), error);
}

JsonPtr load_package_manifest(const std::string& package, VelkctlError** error) {
    ErrorSlot unknown;
    if (!path_exists(package, unknown)) {
        if (unknown.is_set())
            unknown.move_to(error);
        else
            velkctl_error_set(error, VELKCTL_ERROR_GENERAL, "File does not exist: %s", package.c_str());
        return nullptr;
    }
    const std::optional<std::string> text = read_tar_member(package, kManifestName, error);
    if (!text)
        return nullptr;
    json_error_t reason;
    JsonPtr manifest(json_loadb(text->data(), text->size(), 0, &reason));
    if (!manifest)
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST, "Invalid manifest: %s", reason.text);
    return manifest;
}

// --- Values by path ---

json_t* manifest_object(const json_t* root, VelkctlError** error, ManifestPath path) {
    json_t* node =
        const_cast<json_t*>(root);  // jansson hands out changeable children of a constant object too
    for (const char* key : path) {
        node = json_object_get(node, key);
        if (!node) {
            velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST, "Could not read %s from manifest", key);
            return nullptr;
        }
    }
    return node;
}

static std::optional<std::string> string_of(const json_t* node, VelkctlError** error) {
    if (json_is_string(node))
        return std::string(json_string_value(node), json_string_length(node));
    velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST,
                      "Could not read from manifest - value is not string");
    return std::nullopt;
}

std::optional<std::string> manifest_string(const json_t* root, VelkctlError** error, ManifestPath path) {
    const json_t* node = manifest_object(root, error, path);
    return node ? string_of(node, error) : std::nullopt;
}

bool manifest_optional_string(const json_t* root, std::optional<std::string>* value, VelkctlError** error,
                              ManifestPath path) {
    const json_t* node = manifest_object(root, nullptr, path);
    if (!node)
        return true;
    std::optional<std::string> text = string_of(node, error);
    if (!text)
        return false;
    *value = std::move(text);
    return true;
}

bool manifest_boolean(const json_t* root, bool* value, VelkctlError** error, ManifestPath path) {
    const json_t* node = manifest_object(root, nullptr, path);
    if (!node)
        return error != nullptr;
    if (!json_is_boolean(node)) {
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST,
                          "Could not read from manifest - value is not boolean");
        return false;
    }
    *value = json_is_true(node);
    return true;
}

std::optional<std::vector<std::string>> manifest_strings(const json_t* root, VelkctlError** error,
                                                         ManifestPath path) {
    std::vector<std::string> strings;
    const json_t* array = manifest_object(root, nullptr, path);
    if (!array)
        return strings;
    const char* key = path.end()[-1];
    if (!json_is_array(array)) {
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST, "%s in manifest is not an array", key);
        return std::nullopt;
    }
    for (size_t i = 0; i < json_array_size(array); i++) {
        const json_t* element = json_array_get(array, i);
        if (!json_is_string(element)) {
            velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST,
                              "%s in manifest does not contain strings", key);
            return std::nullopt;
        }
        strings.emplace_back(json_string_value(element), json_string_length(element));
    }
    return strings;
}

// --- Single values of velkPackageConf.setup ---

std::optional<std::string> manifest_app_name(const json_t* root, VelkctlError** error) {
    return manifest_string(root, error, {"velkPackageConf", "setup", "appName"});
}

std::optional<std::string> manifest_vendor_id(const json_t* root, VelkctlError** error) {
    return manifest_string(root, error, {"velkPackageConf", "setup", "vendorId"});
}

std::optional<std::string> manifest_version(const json_t* root, VelkctlError** error) {
    return manifest_string(root, error, {"velkPackageConf", "setup", "version"});
}

bool manifest_app_id(const json_t* root, int32_t* app_id, VelkctlError** error) {
    std::optional<std::string> text;
    if (!manifest_optional_string(root, &text, error, {"velkPackageConf", "setup", "appId"}))
        return false;
    if (!text) {
        *app_id = -1;
        return true;
    }
    return convert_manifest_string_to_integer(text->c_str(), "appId", 0, std::numeric_limits<int32_t>::max(),
                                              app_id, error);
}
