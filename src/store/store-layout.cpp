#include "store/store-layout.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <set>
#include <sstream>

#include "base/handles.h"
#include "base/log.h"
#include "system/archive.h"
#include "system/area.h"
#include "system/file.h"
#include "system/mounts.h"
#include "system/subprocess.h"
#include "system/tree.h"

static constexpr const char* kControlFiles[] = {"manifest.json", "package.conf"};
static constexpr mode_t kControlFileMode = 0444;
static constexpr mode_t kApplicationMode = 0776;
static constexpr mode_t kOverlayMode = 0775;
static constexpr const char* kUnpackingUser = "nobody";
static constexpr gid_t kKeepGroup = static_cast<gid_t>(-1);

bool check_card(const StoreLocation& location, VelkctlError** error) {
    const std::string storage = dir_name(location.path).value_or("/");
    struct stat status {};
    if (stat(storage.c_str(), &status) != 0) {
        SET_GENERAL_ERROR(error, "Cannot store data on the SD card, no storage exists at %s",
                          storage.c_str());
        return false;
    }
    ErrorSlot reason;
    const std::optional<MountEntry> mount = find_mount_entry(paths::kMounts, status.st_dev, reason);
    if (!mount && access(paths::kMounts, R_OK) != 0) {
        SET_GENERAL_ERROR(error, "Cannot read mount points");
        return false;
    }
    if (!mount) {
        SET_GENERAL_ERROR(error, "Mount entry for %s not found in %s", storage.c_str(), paths::kMounts);
        return false;
    }
    if (mount->type == "ext4")
        return require_own_directory(location, error);
    SET_GENERAL_ERROR(
        error,
        "%s uses file system %s which does not support Unix file permissions. Please reformat to a file "
        "system that supports Unix file permissions, such as ext4.",
        location.name, mount->type.c_str());
    return false;
}

bool check_space(uint64_t size, uint64_t available, VelkctlError** error) {
    const uint64_t required = size + SPACE_MARGIN;
    if (available >= required)
        return true;
    velkctl_error_set(error, VELKCTL_ERROR_NO_SPACE,
                      "Package too large. Required: %ju bytes, available: %ju bytes.", uintmax_t{required},
                      uintmax_t{available});
    return false;
}

static bool set_invalid_package(VelkctlError** error) {
    return fail(error, VELKCTL_ERROR_INVALID_PACKAGE, "Invalid application package");
}

/** Make a control file the system's: owned by root, read-only, immutable. */
static bool protect_control_file(const std::string& path, VelkctlError** error) {
    return set_owner_and_mode(path, "root", "root", kControlFileMode, error) &&
           set_immutable(path, true, error);
}

/** Press everything below a directory to the disk: tar and cp sync nothing of what they write. */
static bool flush_tree(const std::string& path, VelkctlError** error) {
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd) {
        SET_GENERAL_ERROR(error, "Failed opening file: %s: %s", path.c_str(), system_error_text().c_str());
        return false;
    }
    if (syncfs(fd.get()) == 0 && fsync(fd.get()) == 0)
        return true;
    SET_GENERAL_ERROR(error, "Failed flushing file: %s: %s", path.c_str(), system_error_text().c_str());
    return false;
}

// An archive may hold several members of that name, and the one that is found first need not be the one that
// stays; and another package may have taken this one's place since its manifest was read.
static bool check_manifest(const std::string& directory, const json_t* manifest, VelkctlError** error) {
    const JsonPtr unpacked(json_load_file((directory + "/" + kControlFiles[0]).c_str(), 0, nullptr));
    return (unpacked && json_equal(unpacked.get(), manifest)) || set_invalid_package(error);
}

// --- Layer files ---

/** Write a control file of a layer, over one that an import left when it failed later on. */
static bool write_layer_control_file(const std::string& layer_file, const std::string& name,
                                     const std::string& path, VelkctlError** error) {
    const std::optional<std::string> text = read_tar_member(layer_file, name, error);
    if (!text)
        return false;
    const bool cleared =
        is_regular_file_no_follow(path) ? remove_immutable(path, error) : remove_file(path, error);
    return cleared && write_file_len(path, text->data(), text->size(), error) &&
           protect_control_file(path, error);
}

static bool is_in_image(const std::string& data) { return dir_name(data) == paths::kImagePackages; }

/** Copy the data part. Somebody may have put something else in the place of one that is not temporary. */
static bool copy_layer_file(const std::string& data, const std::string& layer_file, VelkctlError** error) {
    if (!copy_path(data, layer_file, error))
        return false;
    if (is_regular_file_no_follow(layer_file))
        return true;
    ErrorSlot cleanup;
    if (is_directory_no_follow(layer_file) ? !remove_recursive(layer_file, cleanup)
                                           : !remove_file(layer_file, cleanup))
        warn_and_clear_error(cleanup, nullptr);
    return set_invalid_package(error);
}

bool lay_out_layer(const Package& package, const StoreLocation& location, VelkctlError** error) {
    const std::string directory = store_path(package.app(), &location);
    const std::string& data = package.data();
    const std::string layer_file = directory + "/lower.vlp";
    const std::string layer_directory = directory + "/" + location.subdir;
    if (!make_dirs(directory, error) || !remove_file(layer_file, error))
        return false;
    // What the image holds stays there: a copy would only take room.
    if (!(is_in_image(data) ? make_symlink(data, layer_file, error)
                            : copy_layer_file(data, layer_file, error)))
        return false;
    if (package.is_own_data() && !package.require_unchanged(error))
        return false;
    if (!make_dirs_group(layer_directory, error))
        return false;
    for (const char* name : kControlFiles)
        if (!write_layer_control_file(layer_file, name, layer_directory + "/" + name, error))
            return false;
    return check_manifest(layer_directory, package.manifest(), error) && flush_tree(directory, error) &&
           flush_path(location.path, error);
}

// --- Directories ---

namespace {

/** A staging directory, removed at the end of its scope when it is still there. */
class Staging {
  public:
    explicit Staging(std::string path) : path_(std::move(path)) { clear_staging(path_); }
    Staging(const Staging&) = delete;
    Staging& operator=(const Staging&) = delete;
    ~Staging() {
        ErrorSlot ignored;
        (void)remove_recursive(path_, ignored);
    }
    [[nodiscard]] const std::string& path() const { return path_; }

  private:
    std::string path_;
};

}  // namespace

/** What the package's data part unpacks to, measured once; false when that fails or there is nothing in it.
 */
static bool measure(Package* package, VelkctlError** error) {
    if (package->size())
        return true;
    const std::string data = package->data_for_root();
    const std::optional<uint64_t> single = single_gzip_size(data);
    ErrorSlot measuring;
    const uint64_t size = single ? *single : uncompressed_size(data, measuring);
    if (size != 0) {
        package->remember_size({size, single.has_value()});
        return true;
    }
    if (measuring.is_set())
        move_with_known_paths(measuring, {{data, package->data()}}, error);
    else
        SET_GENERAL_ERROR(error, "Failed to validate space for unpacking archive, uncompressed size is 0");
    return false;
}

/** What is free on the disk of `path` for others than root; nothing with the error set. */
static std::optional<uint64_t> free_bytes(const std::string& path, VelkctlError** error) {
    struct statvfs room {};
    if (statvfs(path.c_str(), &room) == 0)
        return uint64_t{room.f_bavail} * room.f_frsize;
    SET_GENERAL_ERROR(error, "Failed to get filesystem stats for %s: %s", path.c_str(),
                      system_error_text().c_str());
    return std::nullopt;
}

static bool check_room(uint64_t size, const std::string& path, VelkctlError** error) {
    const std::optional<uint64_t> available = free_bytes(path, error);
    return available && check_space(size, *available, error);
}

/** Unpack into the working directory, without any right that an archive could misuse. */
static bool unpack(const Package& package, VelkctlError** error) {
    const TarGzip gzip(package.data_for_root(), package.size()->is_single_gzip);
    ErrorSlot reason;
    std::string output;
    const int status = run_command_with_output(
        &output, reason,
        "su -s /bin/sh -c \"tar --no-same-permissions --no-same-owner -xf '%s'\" nobody 2>&1",
        {package.data().c_str()});
    if (status == 0)
        return true;
    if (status < 0) {
        reason.move_to(error);
        return false;
    }
    if (output.find("No space left on device") == std::string::npos)
        return set_invalid_package(error);
    velkctl_error_set(error, VELKCTL_ERROR_NO_SPACE,
                      "Package too large. The package file is too large or the disk is full.");
    return false;
}

static bool unpack_into(const std::string& directory, Package* package, VelkctlError** error) {
    WorkingDirectory working_directory;
    return working_directory.remember(error) && measure(package, error) &&
           check_room(package->size()->bytes, directory, error) &&
           set_owner(directory, kUnpackingUser, kKeepGroup, error) &&
           working_directory.enter(directory, error) && unpack(*package, error) &&
           working_directory.leave(error) && (!package->is_own_data() || package->require_unchanged(error));
}

/** A regular file of one name: what is done to it is done to no other. */
static bool is_file_of_its_own(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1;
}

// While the control files are handled the directory is root's, so that no other process of the unpacking user
// can put a link in their place. Once they are immutable nobody can move them, and the directory may be given
// back.
static bool protect_control_files(const std::string& directory, VelkctlError** error) {
    if (!set_owner(directory, "root", kKeepGroup, error))
        return false;
    for (const char* name : kControlFiles) {
        const std::string path = directory + "/" + name;
        if (!is_file_of_its_own(path))
            return set_invalid_package(error);
        if (!protect_control_file(path, error))
            return false;
    }
    return set_owner(directory, kUnpackingUser, kKeepGroup, error);
}

/** The overlay layout of a card: the files below, room for changes above them. */
static bool move_below_overlay(const std::string& staging, const std::string& directory,
                               const StoreLocation& location, VelkctlError** error) {
    const std::string lower = directory + "/" + location.subdir;
    if (!make_reserved_dir(directory + "/upper", kOverlayMode, error) ||
        !make_reserved_dir(directory + "/work", kOverlayMode, error))
        return false;
    if (std::rename(staging.c_str(), lower.c_str()) == 0)
        return flush_path(directory, error) && flush_path(location.path, error);
    SET_GENERAL_ERROR(error, "Failed renaming file %s to %s: %s", staging.c_str(), lower.c_str(),
                      system_error_text().c_str());
    return false;
}

static bool move_to_place(const std::string& staging, const std::string& directory,
                          const StoreLocation& location, VelkctlError** error) {
    if (std::rename(staging.c_str(), directory.c_str()) != 0)
        return FAIL_GENERAL(error, "Failed renaming file: %s: errno %s", staging.c_str(),
                            system_error_text().c_str());
    // A card is a file system of its own, which the store root's flush does not reach.
    if (flush_path(store_root(), error) && flush_path(location.path, error))
        return true;
    (void)std::rename(directory.c_str(), staging.c_str());
    return false;
}

bool lay_out_directory(Package* package, const StoreLocation& location, VelkctlError** error) {
    if (!require_own_directory(location, error))
        return false;
    const std::string directory = store_path(package->app(), &location);
    const Staging staging(staging_path(directory));
    if (!make_dirs_group(staging.path(), error) || !unpack_into(staging.path(), package, error) ||
        !protect_control_files(staging.path(), error) ||
        !check_manifest(staging.path(), package->manifest(), error) || !flush_tree(staging.path(), error) ||
        !make_reserved_dir(directory, kApplicationMode, error))
        return false;
    return location.kind == STORE_SD_CARD1 ? move_below_overlay(staging.path(), directory, location, error)
                                           : move_to_place(staging.path(), directory, location, error);
}

// --- In the place of another ---

/** What removing a tree gives back to its disk: its blocks, if that is the disk. */
static uint64_t blocks_of_tree(const std::string& root, dev_t disk) {
    constexpr uint64_t block = 512;
    uint64_t bytes = 0;
    std::map<ino_t, nlink_t> links_seen;
    const auto count = [&](const TreeEntry& entry) {
        const struct stat& status = entry.status;
        // A file that has a name elsewhere keeps its blocks.
        const bool is_last =
            entry.is_directory || status.st_nlink == 1 || ++links_seen[status.st_ino] == status.st_nlink;
        if (status.st_dev == disk && is_last)
            bytes += static_cast<uint64_t>(status.st_blocks) * block;
        return true;
    };
    if (is_directory_no_follow(root))
        (void)walk_tree(root, {}, count);
    return bytes;
}

/** The path or, while there is nothing, the directory that it is to be made in. */
static std::string existing_part(std::string path) {
    struct stat status {};
    while (path != "/" && stat(path.c_str(), &status) != 0)
        path = dir_name(path).value_or("");
    return path.empty() ? "/" : path;
}

/** What will be free for the new version once the stored one and all leftovers of both are gone. */
static std::optional<uint64_t> free_bytes_afterwards(const StoreLocation& target, const Application& old,
                                                     VelkctlError** error) {
    const std::string path = existing_part(target.path);
    const std::optional<uint64_t> available = free_bytes(path, error);
    struct stat disk {};
    if (!available || stat(path.c_str(), &disk) != 0)
        return available;
    std::set<std::string> going = {store_path(old.name, &target)};
    if (old.location)
        going.insert(old.home());
    uint64_t bytes = *available;
    for (const std::string& directory : going)
        bytes +=
            blocks_of_tree(directory, disk.st_dev) + blocks_of_tree(staging_path(directory), disk.st_dev);
    return bytes;
}

/** Whether a member of the listing is unpacked to that name; also when there is too much of it to tell. */
static bool lists(const std::string& listing, const std::string& name) {
    constexpr size_t kept = 1 << 20;
    std::istringstream lines(listing);
    std::string line;
    bool found = listing.size() >= kept;
    while (!found && std::getline(lines, line)) {
        while (line.starts_with("./") || line.starts_with('/'))
            line.erase(0, line.find('/') + 1);
        found = line == name;
    }
    return found;
}

/** Let tar read the whole archive as it will be unpacked, and look whether a package.conf is in it. */
static bool check_archive(const Package& package, VelkctlError** error) {
    const TarGzip gzip(package.data_for_root(), package.size()->is_single_gzip);
    ErrorSlot reason;
    std::string listing;
    const int status = run_command_with_output(
        &listing, reason, "su -s /bin/sh -c \"tar -tf '%s'\" nobody 2>&1", {package.data().c_str()});
    if (status < 0) {
        reason.move_to(error);
        return false;
    }
    return (status == 0 && lists(listing, kControlFiles[1])) || set_invalid_package(error);
}

/** Check that the data part holds the manifest that was examined. */
static bool check_packed_manifest(const Package& package, VelkctlError** error) {
    const std::optional<std::string> text = read_tar_member(package.data_for_root(), kControlFiles[0], error);
    if (!text)
        return false;
    const JsonPtr manifest(json_loadb(text->data(), text->size(), 0, nullptr));
    return (manifest && json_equal(manifest.get(), package.manifest())) || set_invalid_package(error);
}

static bool check_layer_room(const Package& package, uint64_t available, VelkctlError** error) {
    struct stat status {};
    if (is_in_image(package.data()) || stat(package.data_for_root().c_str(), &status) != 0)
        return true;
    const auto size = static_cast<uint64_t>(status.st_size);
    if (size <= available)
        return true;
    return fail(error, VELKCTL_ERROR_NO_SPACE,
                "Package too large. Required: %ju bytes, available: %ju bytes.", uintmax_t{size},
                uintmax_t{available});
}

bool check_fits_instead(Package* package, const StoreLocation& location, const Application& old,
                        VelkctlError** error) {
    const bool is_layer = location.kind == STORE_INTERNAL_VLPFS;
    if (!is_layer && !measure(package, error))
        return false;
    const std::optional<uint64_t> available = free_bytes_afterwards(location, old, error);
    if (!available)
        return false;
    const std::string data = package->data_for_root();
    const bool fits =
        is_layer ? check_layer_room(*package, *available, error) &&
                       read_tar_member(data, kControlFiles[1], error).has_value()
                 : check_space(package->size()->bytes, *available, error) && check_archive(*package, error);
    return fits && check_packed_manifest(*package, error);
}
