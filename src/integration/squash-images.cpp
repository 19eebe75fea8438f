#include "integration/squash-images.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "base/handles.h"
#include "base/log.h"
#include "base/paths.h"
#include "integration/http.h"
#include "manifest/manifest.h"
#include "manifest/names.h"
#include "system/area.h"
#include "system/file.h"
#include "system/systemctl.h"

namespace {

// Where an overlay keeps the attribute of what was made immutable through it.
constexpr const char* OVERLAY_ATTRIBUTES = "trusted.overlay.protattr";

/** A path of an image: how the manifest calls it, and where it leads below the application directory. */
struct NamedPath {
    const char* key;
    std::string relative;
};

std::vector<NamedPath> named_paths(const SquashImage& image) {
    return {{"path", image.image}, {"mountpoint", image.mount_point}};
}

bool refuse(const NamedPath& path, const std::string& base, const char* why, VelkctlError** error) {
    return fail(error, VELKCTL_ERROR_INVALID_MANIFEST, "The %s '%s' referenced from squashfsMounts %s",
                path.key, (base + "/" + path.relative).c_str(), why);
}

bool refuse_missing(const NamedPath& path, const std::string& base, VelkctlError** error) {
    return refuse(path, base, "could not be found", error);
}

// --- What the manifest says ---

/** Where the application's files are for looking at: on the first card the overlay may not be mounted. */
std::string base_directory(const std::string& app, const StoreLocation* location) {
    return location->kind == STORE_SD_CARD1 ? store_path(app, location) + "/lower"
                                            : paths::store_root_path(app);
}

const json_t* squash_section(const json_t* manifest) {
    return manifest_object(manifest, nullptr, {"velkPackageConf", "configuration", "squashfsMounts"});
}

/** A path of the manifest, without dots; nothing when it leads out of the base or is the base itself. */
std::optional<std::string> path_below(const std::string& base, const std::string& relative) {
    const std::optional<std::string> resolved = resolve_in_dir(base, relative);
    // A mount on the application directory itself would hide the application from its own unit.
    if (!resolved || *resolved == base)
        return std::nullopt;
    return resolved->substr(base.size() + 1);
}

std::optional<std::string> read_path(const json_t* element, const char* key, VelkctlError** error) {
    std::optional<std::string> relative = manifest_string(element, error, {key});
    return relative && check_no_newline(relative, key, error) ? relative : std::nullopt;
}

std::optional<std::string> resolve_path(const std::string& base, const std::string& relative,
                                        VelkctlError** error) {
    std::optional<std::string> below = path_below(base, relative);
    const std::string path = below ? base + "/" + *below : "";
    ErrorSlot outside;
    if (below && (!is_directory_or_regular_file(path) || check_path_in_app_dir(path, base, outside)))
        return below;
    velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST,
                      "The relative path %s tried to escape the application directory", relative.c_str());
    return std::nullopt;
}

std::optional<SquashImage> read_image(const json_t* element, const std::string& base, VelkctlError** error) {
    const std::optional<std::string> path = read_path(element, "path", error);
    const std::optional<std::string> point = path ? read_path(element, "mountpoint", error) : std::nullopt;
    // Whether a path leads out is asked of both before whether there is anything.
    const std::optional<std::string> image = point ? resolve_path(base, *path, error) : std::nullopt;
    const std::optional<std::string> mount_point = image ? resolve_path(base, *point, error) : std::nullopt;
    if (!mount_point)
        return std::nullopt;
    SquashImage read{*image, *mount_point};
    for (const NamedPath& named : named_paths(read))
        if (!is_directory_or_regular_file(base + "/" + named.relative)) {
            (void)refuse_missing(named, base, error);
            return std::nullopt;
        }
    return read;
}

bool is_at_or_below(const std::string& path, const std::string& directory) {
    return path == directory || path.starts_with(directory + "/");
}

bool is_control_file(const std::string& relative) {
    return relative == "manifest.json" || relative == "package.conf";
}

/** Directories of which something is written or replaced while the application is set up. */
std::vector<std::string> written_directories(const std::string& app, const std::string& base) {
    std::vector<std::string> directories{"conf", "localdata"};
    ErrorSlot unknown;
    if (path_exists(fcgi_socket_path(base, app), unknown))  // the application puts its own socket there
        directories.emplace_back("html");
    return directories;
}

/** Whether the path leads into an image other than the one that it is a path of. */
bool lies_in_another(const NamedPath& path, const SquashImage& own, const std::vector<SquashImage>& images) {
    return std::any_of(images.begin(), images.end(), [&](const SquashImage& other) {
        return &other != &own && path.relative.starts_with(other.mount_point + "/");
    });
}

bool may_be_fixed(const NamedPath& path, const std::string& app, const std::string& base,
                  VelkctlError** error) {
    if (is_control_file(path.relative))
        return refuse(path, base, "is a control file", error);
    for (const std::string& directory : written_directories(app, base))
        if (is_at_or_below(path.relative, directory))
            return refuse(path, base, "lies in a directory that is written to", error);
    return true;
}

bool check_images(const std::vector<SquashImage>& images, const std::string& app, const std::string& base,
                  VelkctlError** error) {
    for (const SquashImage& image : images)
        for (const NamedPath& path : named_paths(image)) {
            if (!may_be_fixed(path, app, base, error))
                return false;
            // What the path means would be for the other image to say, which may hold links.
            if (lies_in_another(path, image, images))
                return refuse(path, base, "lies below another mount point", error);
        }
    return true;
}

// --- The attribute ---

/** Open an entry only to look at it: a link is not followed, a pipe not waited for, a device not touched. */
UniqueFd open_entry(int directory, const std::string& name) {
    return UniqueFd(openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
}

std::string own_path(int fd) { return std::string(paths::kOwnDescriptors) + "/" + std::to_string(fd); }

bool is_immutable(int fd) {
    struct statx status {};
    return statx(fd, "", AT_EMPTY_PATH, STATX_BASIC_STATS, &status) == 0 &&
           (status.stx_attributes & STATX_ATTR_IMMUTABLE);
}

/** For a directory or a regular file; 0, or the system's error number. */
int set_immutable_attribute(int fd, bool on) {
    if (is_immutable(fd) == on)
        return 0;
    const UniqueFd file(open(own_path(fd).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    int flags = 0;
    if (!file || ioctl(file.get(), FS_IOC_GETFLAGS, &flags) != 0)
        return errno;
    flags = on ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
    return ioctl(file.get(), FS_IOC_SETFLAGS, &flags) == 0 ? 0 : errno;
}

std::vector<std::string> components(const std::string& relative) {
    std::vector<std::string> names;
    for (size_t begin = 0; begin <= relative.size();) {
        const size_t end = std::min(relative.find('/', begin), relative.size());
        names.push_back(relative.substr(begin, end - begin));
        begin = end + 1;
    }
    return names;
}

/**
 * Wait for a renaming that is under way in the directory: it may have looked at the attribute before it was
 * set. Nothing is renamed by this.
 */
void wait_for_renaming(int directory, const std::string& name) {
    (void)renameat2(directory, name.c_str(), directory, name.c_str(), RENAME_NOREPLACE);
}

/** The entries on the way to a path, each opened in the one before; shorter where something is no directory
 * or not there. */
std::vector<UniqueFd> open_way(const AreaDirectory& root, const std::string& relative) {
    std::vector<UniqueFd> way;
    for (const std::string& name : components(relative)) {
        const int directory = way.empty() ? root.fd() : way.back().get();
        wait_for_renaming(directory, name);
        UniqueFd entry = open_entry(directory, name);
        if (!entry)
            break;
        way.push_back(std::move(entry));
    }
    return way;
}

/** What the entries on a way must be: directories up to the last, which may be a file of the application's
 * alone. */
struct Expected {
    const AreaDirectory& root;
    const NamedPath& path;
    uid_t uid;

    [[nodiscard]] bool check_way(const std::vector<UniqueFd>& way, VelkctlError** error) const {
        for (const UniqueFd& entry : way)
            if (!check(entry.get(), error))
                return false;
        return way.size() == components(path.relative).size() || refuse_missing(path, root.path(), error);
    }

    [[nodiscard]] bool check(int entry, VelkctlError** error) const {
        struct stat status {};
        if (fstat(entry, &status) != 0)
            return refuse_missing(path, root.path(), error);
        if (S_ISDIR(status.st_mode))
            return true;
        if (S_ISLNK(status.st_mode))
            return refuse(path, root.path(), "leads through a symbolic link", error);
        if (!S_ISREG(status.st_mode))
            return refuse_missing(path, root.path(), error);
        return (status.st_nlink == 1 && (status.st_uid == uid || status.st_uid == 0)) ||
               refuse(path, root.path(), "is not a file of the application alone", error);
    }
};

/** What a call has made immutable, which is as it was at the end of the scope unless it is kept. */
class Fixed {
  public:
    Fixed() = default;
    Fixed(const Fixed&) = delete;
    Fixed& operator=(const Fixed&) = delete;
    ~Fixed() {
        for (; !entries_.empty(); entries_.pop_back())
            (void)set_immutable_attribute(entries_.back().get(), false);
    }

    /** 0, or the system's error number. */
    int fix(UniqueFd entry) {
        if (is_immutable(entry.get()))
            return 0;
        const int reason = set_immutable_attribute(entry.get(), true);
        if (reason == 0)
            entries_.push_back(std::move(entry));
        return reason;
    }
    void keep() { entries_.clear(); }

  private:
    std::vector<UniqueFd> entries_;
};

bool fix_way(std::vector<UniqueFd> way, const Expected& expected, Fixed* fixed, VelkctlError** error) {
    for (UniqueFd& entry : way)
        if (const int reason = fixed->fix(std::move(entry)); reason != 0)
            return FAIL_GENERAL(error, "Failed to set mutable attribute of %s to immutable: %s",
                                expected.root.path_of(expected.path.relative).c_str(),
                                system_error_text(reason).c_str());
    return true;
}

/**
 * From the application directory on: a name that is immutable stays what it is, so the second look, once
 * everything is fixed, tells what the names mean from now on. At the first look any of them could have been
 * exchanged.
 */
bool fix_path(const Expected& expected, Fixed* fixed, VelkctlError** error) {
    const std::string& relative = expected.path.relative;
    std::vector<UniqueFd> first = open_way(expected.root, relative);
    if (!expected.check_way(first, error) || !fix_way(std::move(first), expected, fixed, error))
        return false;
    const std::vector<UniqueFd> second = open_way(expected.root, relative);
    if (!expected.check_way(second, error))
        return false;
    for (const UniqueFd& entry : second)
        if (!is_immutable(entry.get()))
            return FAIL_GENERAL(error, "%s was exchanged while it was fixed",
                                expected.root.path_of(relative).c_str());
    return true;
}

bool fix_in(const std::string& directory, const std::vector<SquashImage>& images, uid_t uid, Fixed* fixed,
            VelkctlError** error) {
    const std::optional<AreaDirectory> root = open_area(directory, error);
    if (!root)
        return false;
    for (const SquashImage& image : images)
        for (const NamedPath& path : named_paths(image))
            if (!fix_path({*root, path, uid}, fixed, error))
                return false;
    return true;
}

/** Where a layer of its own holds what was changed of the application's files. */
std::optional<std::string> upper_directory(const std::string& app, const StoreLocation* location) {
    if (location->kind != STORE_SD_CARD1 && location->kind != STORE_INTERNAL_VLPFS)
        return std::nullopt;
    return store_path(app, location) + "/upper";
}

/**
 * The application can also reach the layer itself, past the overlay, into which everything was copied as it
 * was fixed there. What the overlay still knows of the layer may be older than what is fixed in it: it is
 * mounted anew to look again.
 */
bool fix_in_upper_layer(const std::string& upper, const std::vector<SquashImage>& images,
                        const std::string& app, uid_t uid, Fixed* fixed, VelkctlError** error) {
    const std::string directory = paths::store_root_path(app);
    fixed->keep();  // what is held open would keep the overlay mounted
    return fix_in(upper, images, uid, fixed, error) && systemctl_restart(mount_unit_name(directory), error) &&
           fix_in(directory, images, uid, fixed, error);
}

/** Fix as much as there is of it, as far as it is what it must be. */
void fix_what_is_in(const std::string& directory, const std::vector<SquashImage>& images, uid_t uid,
                    Fixed* fixed) {
    ErrorSlot missing;
    const std::optional<AreaDirectory> root = open_area(directory, missing);
    for (const SquashImage& image : images)
        for (const NamedPath& path : named_paths(image))
            for (UniqueFd& entry : root ? open_way(*root, path.relative) : std::vector<UniqueFd>()) {
                ErrorSlot refused;
                if (!Expected{*root, path, uid}.check(entry.get(), refused) ||
                    fixed->fix(std::move(entry)) != 0)
                    break;
            }
}

// --- Releasing ---

void release_entry(int fd, const std::string& path) {
    struct stat status {};
    if (fstat(fd, &status) != 0 ||
        !(S_ISDIR(status.st_mode) || (S_ISREG(status.st_mode) && status.st_nlink == 1)))
        return;
    const int reason = set_immutable_attribute(fd, false);
    if (reason != 0)
        log_warning("Failed to set mutable attribute of %s to mutable: %s", path.c_str(),
                    system_error_text(reason).c_str());
    (void)removexattr(own_path(fd).c_str(), OVERLAY_ATTRIBUTES);
}

/** The deepest first: what a crash leaves of it is still found from above, where nothing can be exchanged. */
void release_in(const std::string& directory, const std::vector<std::string>& relatives) {
    ErrorSlot missing;
    const std::optional<AreaDirectory> root = open_area(directory, missing);
    for (const std::string& relative : relatives) {
        if (!root || is_control_file(relative))
            continue;
        for (std::vector<UniqueFd> way = open_way(*root, relative); !way.empty(); way.pop_back())
            release_entry(way.back().get(), root->path_of(relative));
    }
}

std::vector<std::string> paths_named(const json_t* manifest, const char* key) {
    std::vector<std::string> found;
    const json_t* section = squash_section(manifest);
    for (size_t i = 0; i < json_array_size(section); i++) {
        ErrorSlot none;
        const std::optional<std::string> relative = read_path(json_array_get(section, i), key, none);
        const std::optional<std::string> below =
            relative ? path_below(paths::kStoreRoot, *relative) : std::nullopt;
        if (below)
            found.push_back(*below);
    }
    return found;
}

}  // namespace

std::optional<std::vector<SquashImage>> read_squash_images(const json_t* manifest, const std::string& app,
                                                           const StoreLocation* location,
                                                           VelkctlError** error) {
    const json_t* section = squash_section(manifest);
    if (section && !json_is_array(section)) {
        velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST, "%s in manifest is not an array",
                          "squashfsMounts");
        return std::nullopt;
    }
    const std::string base = base_directory(app, location);
    std::vector<SquashImage> images;
    for (size_t i = 0; i < json_array_size(section); i++) {
        const std::optional<SquashImage> image = read_image(json_array_get(section, i), base, error);
        if (!image)
            return std::nullopt;
        images.push_back(*image);
    }
    if (!check_images(images, app, base, error))
        return std::nullopt;
    return images;
}

std::vector<std::string> named_mount_points(const json_t* manifest) {
    return paths_named(manifest, "mountpoint");
}

void fix_squash_images_in_package(const json_t* manifest, const std::string& app,
                                  const StoreLocation* location, uid_t uid) {
    ErrorSlot later;
    const std::optional<std::vector<SquashImage>> images = read_squash_images(manifest, app, location, later);
    Fixed fixed;
    if (images)
        fix_what_is_in(base_directory(app, location), *images, uid, &fixed);
    fixed.keep();
}

bool fix_squash_images(const std::vector<SquashImage>& images, const std::string& app,
                       const StoreLocation* location, uid_t uid, VelkctlError** error) {
    if (images.empty())
        return true;
    Fixed fixed;
    if (!fix_in(paths::store_root_path(app), images, uid, &fixed, error))
        return false;
    const std::optional<std::string> upper = upper_directory(app, location);
    if (location->kind == STORE_INTERNAL_VLPFS &&
        !fix_in_upper_layer(*upper, images, app, uid, &fixed, error))
        return false;
    // On a card it has only what was changed of the package's.
    if (location->kind == STORE_SD_CARD1)
        fix_what_is_in(*upper, images, uid, &fixed);
    fixed.keep();
    return true;
}

void release_squash_images(const json_t* manifest, const std::string& app, const StoreLocation* location) {
    std::vector<std::string> relatives = paths_named(manifest, "path");
    const std::vector<std::string> points = paths_named(manifest, "mountpoint");
    relatives.insert(relatives.end(), points.begin(), points.end());
    release_in(base_directory(app, location), relatives);
    if (const std::optional<std::string> upper = upper_directory(app, location))
        release_in(*upper, relatives);
}
