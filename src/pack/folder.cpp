#include "pack/folder.h"

#include <algorithm>
#include <tuple>

#include "integration/cfgtree.h"
#include "integration/users.h"
#include "manifest/allowlist.h"
#include "manifest/manifest-rules.h"
#include "manifest/manifest.h"
#include "manifest/names.h"
#include "pack/pack-error.h"
#include "system/file.h"
#include "system/tree.h"

static constexpr const char* kManifest = "manifest.json";
// Without the first a device cannot unpack a package, without the second it cannot set it up.
static constexpr const char* kRequiredFiles[] = {"package.conf", "LICENSE"};

std::optional<Folder> read_folder(const std::string& name, VelkctlError** error) {
    Folder folder;
    folder.name = name;
    while (folder.name.size() > 1 && folder.name.ends_with('/'))
        folder.name.pop_back();
    ErrorSlot not_there;
    const std::optional<std::string> path = canonical_path(name, not_there);
    if (!path || !is_directory(*path)) {
        fail_with(error, VELKCTL_ERROR_GENERAL, name, "is no folder");
        return std::nullopt;
    }
    folder.path = *path;
    const TreeWalk everything{.enter_mounts = true, .with_paths = true};
    const int result = walk_tree(folder.path, everything, [&folder](const TreeEntry& entry) {
        if (entry.level > 0)
            folder.entries.push_back({entry.below.substr(1), folder.path + entry.below, entry.status});
        if (S_ISREG(entry.status.st_mode))
            folder.content_size += static_cast<uint64_t>(entry.status.st_size);
        return true;
    });
    if (result != 0) {
        fail_with(error, VELKCTL_ERROR_GENERAL, name, "cannot be read: " + system_error_text(result));
        return std::nullopt;
    }
    // A device looks for the manifest before anything else, so it stands where it is found first.
    std::sort(folder.entries.begin(), folder.entries.end(), [](const FolderEntry& a, const FolderEntry& b) {
        return std::tuple(a.name != kManifest, a.name) < std::tuple(b.name != kManifest, b.name);
    });
    return folder;
}

namespace {

/** The findings of one folder, and what is asked for them. */
class Check {
  public:
    explicit Check(const Folder& folder) : folder_(folder) {}

    void add(int32_t code, const std::string& file, const std::string& key, const std::string& message) {
        findings_.push_back({code, folder_.name + "/" + file, key, message});
    }

    /** Add what `rule` reports of the manifest's value. */
    template <typename Rule>
    void require(const std::string& key, Rule rule) {
        ErrorSlot fault;
        if (!rule(fault))
            add(fault.code(), kManifest, key, fault.message());
    }

    void require_listed(bool is_group, const std::string& name, const std::string& key) {
        if (!validate_entry(is_group, {}, name.c_str()))
            add(VELKCTL_ERROR_NOT_ALLOWLISTED, kManifest, key, "'" + name + "' is not in Allowlist");
    }

    [[nodiscard]] const FolderEntry* find(const std::string& name) const {
        const auto found = std::find_if(folder_.entries.begin(), folder_.entries.end(),
                                        [&name](const FolderEntry& entry) { return entry.name == name; });
        return found == folder_.entries.end() ? nullptr : &*found;
    }
    [[nodiscard]] bool holds_file(const std::string& name) const {
        const FolderEntry* entry = find(name);
        return entry && S_ISREG(entry->status.st_mode);
    }

    /** The entry's name for a path as the manifest may write it, with dots; nothing is outside the folder. */
    [[nodiscard]] std::string name_of(const std::string& path) const {
        const std::optional<std::string> resolved = resolve_in_dir(folder_.path, path);
        return resolved && *resolved != folder_.path ? resolved->substr(folder_.path.size() + 1) : "";
    }

    JsonPtr load_manifest();
    void check_values(const json_t* manifest);
    void check_requests(const json_t* manifest);
    void check_promises(const json_t* manifest);
    void check_squash_images(const json_t* manifest);
    void check_entry(const FolderEntry& entry);
    [[nodiscard]] std::vector<Finding> take() { return std::move(findings_); }

  private:
    const Folder& folder_;
    std::vector<Finding> findings_;
};

JsonPtr Check::load_manifest() {
    if (!holds_file(kManifest)) {
        add(VELKCTL_ERROR_INVALID_MANIFEST, kManifest, "",
            find(kManifest) ? "is no regular file" : "is missing");
        return nullptr;
    }
    json_error_t reason;
    JsonPtr manifest(json_load_file((folder_.path + "/" + kManifest).c_str(), 0, &reason));
    if (!manifest)
        add(VELKCTL_ERROR_INVALID_MANIFEST, kManifest, "",
            "line " + std::to_string(reason.line) + ", column " + std::to_string(reason.column) + ": " +
                reason.text);
    return manifest;
}

void Check::check_values(const json_t* manifest) {
    for (const ManifestFinding& finding : find_manifest_faults(manifest))
        add(VELKCTL_ERROR_INVALID_MANIFEST, kManifest, finding.key, finding.message);
    for (const char* key : {"groups", "conditionalGroups"})
        require(std::string("resources.linux.user.") + key, [manifest, key](VelkctlError** error) {
            return manifest_strings(manifest, error, {"resources", "linux", "user", key}).has_value();
        });
    require("velkPackageConf.configuration.settingPage", [manifest](VelkctlError** error) {
        return check_no_path_traversal(
            manifest_string(manifest, nullptr, {"velkPackageConf", "configuration", "settingPage"}),
            "settingPage", error);
    });
}

/** What a device gives to no application; it may take more names off its lists. */
void Check::check_requests(const json_t* manifest) {
    require("velkPackageConf.configuration.paramConfig",
            [manifest](VelkctlError** error) { return read_parameters(manifest, error).has_value(); });
    require("resources.dbus",
            [manifest](VelkctlError** error) { return requested_methods(manifest, error).has_value(); });
    const auto groups = manifest_strings(manifest, nullptr, {"resources", "linux", "user", "groups"});
    for (const std::string& group : groups.value_or(std::vector<std::string>()))
        require_listed(true, group, "resources.linux.user.groups");
    for (const char* key : {"username", "group"})
        if (const auto name = manifest_string(manifest, nullptr, {"velkPackageConf", "setup", "user", key}))
            require_listed(std::string_view(key) == "group", *name,
                           std::string("velkPackageConf.setup.user.") + key);
}

void Check::check_squash_images(const json_t* manifest) {
    const json_t* mounts =
        manifest_object(manifest, nullptr, {"velkPackageConf", "configuration", "squashfsMounts"});
    for (size_t i = 0; i < json_array_size(mounts); i++) {
        const char* image = json_string_value(json_object_get(json_array_get(mounts, i), "path"));
        if (!image || !holds_file(name_of(image)))
            add(VELKCTL_ERROR_INVALID_MANIFEST, kManifest, "velkPackageConf.configuration.squashfsMounts",
                "names '" + std::string(image ? image : "") + "', which is no file in the folder");
    }
}

/** What the manifest says about files must be so. */
void Check::check_promises(const json_t* manifest) {
    check_squash_images(manifest);
    const std::pair<const char*, const char*> scripts[] = {{"installation", "postInstallScript"},
                                                           {"uninstallation", "preUninstallScript"}};
    for (const auto& [section, key] : scripts) {
        const auto script = manifest_string(manifest, nullptr, {"velkPackageConf", section, key});
        if (script && !holds_file(name_of(*script)))
            add(VELKCTL_ERROR_INVALID_PACKAGE, kManifest,
                std::string("velkPackageConf.") + section + "." + key,
                "names '" + *script + "', which is no file in the folder");
    }
    const std::optional<std::string> app = manifest_app_name(manifest, nullptr);
    const FolderEntry* program = app ? find(*app) : nullptr;
    if (program && S_ISREG(program->status.st_mode) && (program->status.st_mode & S_IXUSR) == 0)
        add(VELKCTL_ERROR_INVALID_PACKAGE, *app, "", "is the application's program and is not executable");
}

void Check::check_entry(const FolderEntry& entry) {
    const mode_t mode = entry.status.st_mode;
    if (!S_ISREG(mode) && !S_ISDIR(mode) && !S_ISLNK(mode))
        add(VELKCTL_ERROR_INVALID_PACKAGE, entry.name, "", "is neither a file nor a folder nor a link");
    if (entry.name.starts_with("html/") && entry.name.find_first_of("\n\r") != std::string::npos)
        add(VELKCTL_ERROR_INVALID_PACKAGE, "html", "", "holds a file whose name contains a newline");
}

}  // namespace

std::vector<Finding> check_folder(const Folder& folder, JsonPtr* manifest) {
    Check check(folder);
    if (JsonPtr loaded = check.load_manifest()) {
        check.check_values(loaded.get());
        check.check_requests(loaded.get());
        check.check_promises(loaded.get());
        *manifest = std::move(loaded);
    }
    for (const char* name : kRequiredFiles)
        if (!check.holds_file(name))
            check.add(VELKCTL_ERROR_INVALID_PACKAGE, name, "", "is missing");
    for (const FolderEntry& entry : folder.entries)
        check.check_entry(entry);
    return check.take();
}
