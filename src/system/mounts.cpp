#include "system/mounts.h"

#include <fcntl.h>
#include <mntent.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string_view>

#include "base/handles.h"
#include "base/log.h"
#include "base/paths.h"
#include "system/file.h"

static constexpr int kTableLine = 4096;

static bool answers_to(const mntent& entry, const MountKey& key) {
    if (const auto* directory = std::get_if<std::string>(&key))
        return *directory == entry.mnt_dir;
    struct stat status {};
    return stat(entry.mnt_dir, &status) == 0 && status.st_dev == std::get<dev_t>(key);
}

std::optional<MountEntry> find_mount_entry(const std::string& table, const MountKey& key,
                                           VelkctlError** error) {
    const std::unique_ptr<std::FILE, ReleaseWith<endmntent>> file(setmntent(table.c_str(), "re"));
    if (!file) {
        SET_GENERAL_ERROR(error, "Failed to open %s: %s", table.c_str(), system_error_text().c_str());
        return std::nullopt;
    }
    mntent entry{};
    char line[kTableLine];
    while (getmntent_r(file.get(), &entry, line, sizeof line))
        if (answers_to(entry, key))
            return MountEntry{entry.mnt_dir, entry.mnt_type, entry.mnt_opts};
    if (const auto* directory = std::get_if<std::string>(&key))
        SET_GENERAL_ERROR(error, "Failed to find mount entry %s amount mounts", directory->c_str());
    else
        SET_GENERAL_ERROR(error, "Failed to find device ID %jd among mounts",
                          static_cast<intmax_t>(std::get<dev_t>(key)));
    return std::nullopt;
}

static std::optional<MountEntry> find_overlay_of(const std::string& path, const std::string& table,
                                                 VelkctlError** error) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        SET_GENERAL_ERROR(error, "Failed to find device ID of %s: %s", path.c_str(),
                          system_error_text().c_str());
        return std::nullopt;
    }
    ErrorSlot not_found;
    std::optional<MountEntry> entry = find_mount_entry(table, status.st_dev, not_found);
    if (entry)
        return entry;
    log_info("Assume overlay is %s", paths::kUsr);
    return find_mount_entry(table, std::string(paths::kUsr), error);
}

/** The value of an option "NAME=VALUE" in a comma-separated list. */
static std::optional<std::string> option_value(std::string_view options, std::string_view name) {
    while (!options.empty()) {
        const std::string_view option = options.substr(0, options.find(','));
        options.remove_prefix(std::min(option.size() + 1, options.size()));
        if (option.size() > name.size() && option.starts_with(name) && option[name.size()] == '=')
            return std::string(option.substr(name.size() + 1));
    }
    return std::nullopt;
}

/** Remove what lies at `relative` below a directory of the system's own, following no link on the way. */
static bool remove_below(const std::string& directory, const std::string& relative, VelkctlError** error) {
    UniqueFd here(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    size_t begin = 0;
    for (size_t end; here && (end = relative.find('/', begin)) != std::string::npos; begin = end + 1)
        here = UniqueFd(openat(here.get(), relative.substr(begin, end - begin).c_str(),
                               O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    const std::string name = relative.substr(begin);
    if (here && fstatat(here.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        remove_at(here.get(), name))
        return true;
    return FAIL_GENERAL(error, "Failed to remove %s/%s: %s", directory.c_str(), relative.c_str(),
                        system_error_text().c_str());
}

bool remove_through_overlay(const std::string& path, const std::string& mount_table, VelkctlError** error) {
    const std::optional<MountEntry> mount = find_overlay_of(path, mount_table, error);
    if (!mount)
        return false;
    if (mount->directory.empty()) {
        SET_GENERAL_ERROR(error, "Failed to remove %s: Mount entry has no directory", path.c_str());
        return false;
    }
    if (mount->type != "overlay") {
        SET_GENERAL_ERROR(error, "Failed to remove %s: Expected %s to be of type 'overlay' but it was '%s'",
                          path.c_str(), mount->directory.c_str(), mount->type.c_str());
        return false;
    }
    const std::optional<std::string> upper = option_value(mount->options, "upperdir");
    if (!upper) {
        SET_GENERAL_ERROR(error, "Failed to remove %s: Could not find upperdir in mount options for %s",
                          path.c_str(), mount->directory.c_str());
        return false;
    }
    const std::string base = mount->directory == "/" ? "" : mount->directory;
    if (!path.starts_with(base + "/")) {
        SET_GENERAL_ERROR(error, "Failed to remove %s: It does not lie on the overlay %s", path.c_str(),
                          mount->directory.c_str());
        return false;
    }
    return remove_below(*upper, path.substr(base.size() + 1), error);
}

UniqueFd open_overlay(const std::string& upper, const std::string& lower, VelkctlError** error) {
    const std::string layers = upper + ":" + lower;
    const UniqueFd context(fsopen("overlay", FSOPEN_CLOEXEC));
    const bool is_made = context &&
                         fsconfig(context.get(), FSCONFIG_SET_STRING, "lowerdir", layers.c_str(), 0) == 0 &&
                         fsconfig(context.get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) == 0;
    constexpr unsigned attributes = MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV;
    UniqueFd overlay(is_made ? fsmount(context.get(), FSMOUNT_CLOEXEC, attributes) : -1);
    if (!overlay)
        SET_GENERAL_ERROR(error, "Failed to mount %s over %s: %s", upper.c_str(), lower.c_str(),
                          system_error_text().c_str());
    return overlay;
}
