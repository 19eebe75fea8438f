#include "lifecycle/preinstalled.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "base/log.h"
#include "base/paths.h"
#include "lifecycle/velkctl-package-conf.h"
#include "manifest/manifest.h"
#include "system/archive.h"
#include "system/file.h"

namespace {

/** The names in a list's text, or nothing with the reason. */
std::optional<std::set<std::string>> parse_names(const std::string& text, std::string* reason) {
    json_error_t json_error;
    const JsonPtr list(json_loadb(text.data(), text.size(), 0, &json_error));
    if (!list) {
        *reason = json_error.text;
        return std::nullopt;
    }
    std::set<std::string> names;
    size_t index = 0;
    json_t* element = nullptr;
    json_array_foreach(list.get(), index, element) {
        const char* name = json_string_value(json_object_get(element, "appName"));
        if (!name) {
            *reason = "an element has no appName";
            return std::nullopt;
        }
        names.insert(name);
    }
    if (!json_is_array(list.get())) {
        *reason = "it is not an array";
        return std::nullopt;
    }
    return names;
}

std::set<std::string> parse_names_or_warn(const std::string& text) {
    std::string reason;
    if (std::optional<std::set<std::string>> names = parse_names(text, &reason))
        return std::move(*names);
    log_warning("Could not parse preinstalled apps file %s: %s", paths::kPreinstalledList, reason.c_str());
    return {};
}

/** Name and version of one package: from its manifest or, for the older form, from its package.conf. */
JsonPtr describe(const std::string& package, VelkctlError** error) {
    std::optional<std::string> name;
    std::optional<std::string> version;
    ErrorSlot no_manifest;
    if (const JsonPtr manifest = load_package_manifest(package, no_manifest)) {
        name = manifest_string(manifest.get(), error, {"velkPackageConf", "setup", "appName"});
        if (name)
            version = manifest_string(manifest.get(), error, {"velkPackageConf", "setup", "version"});
    } else if (const std::optional<std::string> conf = read_tar_member(package, "package.conf", error)) {
        name = find_package_conf_value(*conf, "APPNAME", error);
        if (name)
            version = package_conf_version(*conf, error);
    }
    if (!name || !version)
        return nullptr;
    return JsonPtr(json_pack("{s:s, s:s}", "appName", name->c_str(), "version", version->c_str()));
}

std::optional<std::vector<std::string>> image_package_names() {
    const DirectoryPtr directory(opendir(paths::kImagePackages));
    if (!directory) {
        log_warning("Could not read %s: %s", paths::kImagePackages, system_error_text().c_str());
        return std::nullopt;
    }
    std::vector<std::string> names;
    while (const dirent* entry = readdir(directory.get())) {
        std::string name = entry->d_name;
        if (name.ends_with(".vlp"))
            names.push_back(std::move(name));
    }
    std::sort(names.begin(), names.end());
    return names;
}

JsonPtr scan(const std::vector<std::string>& names) {
    JsonPtr list(json_array());
    for (const std::string& name : names) {
        ErrorSlot error;
        JsonPtr entry = describe(std::string(paths::kImagePackages) + "/" + name, error);
        warn_and_clear_error_with_preamble(("Could not read package " + name + ": ").c_str(), error, nullptr);
        if (entry)
            json_array_append_new(list.get(), entry.release());
    }
    return list;
}

void write_cache(const std::string& text) {
    ErrorSlot error;
    std::string directory;
    if (!create_dir_part_of_path(paths::kPreinstalledList, 0755, &directory, error) ||
        !write_file(paths::kPreinstalledList, text, error))
        warn_and_clear_error(error, nullptr);
}

}  // namespace

std::set<std::string> cached_preinstalled_names() {
    ErrorSlot unreadable;
    if (!is_regular_file(paths::kPreinstalledList))
        return {};
    return parse_names_or_warn(read_file(paths::kPreinstalledList, unreadable).value_or(""));
}

std::optional<std::string> preinstalled_list(VelkctlError** error) {
    if (is_regular_file(paths::kPreinstalledList))
        return read_file(paths::kPreinstalledList, error);
    const std::optional<std::vector<std::string>> packages = image_package_names();
    if (!packages)
        return "[]";
    const JsonPtr list = scan(*packages);
    const std::unique_ptr<char, ReleaseWith<std::free>> dumped(json_dumps(list.get(), JSON_INDENT(2)));
    std::string text = dumped.get();
    write_cache(text);
    return text;
}

std::set<std::string> preinstalled_names() {
    ErrorSlot error;
    const std::optional<std::string> text = preinstalled_list(error);
    if (text)
        return parse_names_or_warn(*text);
    warn_and_clear_error(error, nullptr);
    return {};
}
