#include "store/store-layout.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdio>

#include "base/handles.h"
#include "base/log.h"
#include "system/archive.h"
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
        return true;
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
    velkctl_error_set(error, VELKCTL_ERROR_INVALID_PACKAGE, "Invalid application package");
    return false;
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

bool lay_out_layer(const std::string& app, const StoreLocation& location, const std::string& data,
                   const json_t* manifest, VelkctlError** error) {
    const std::string directory = store_path(app, &location);
    const std::string layer_file = directory + "/lower.vlp";
    const std::string layer_directory = directory + "/" + location.subdir;
    if (!make_dirs(directory, error) || !remove_file(layer_file, error))
        return false;
    // What the image holds stays there: a copy would only take room.
    const bool is_in_image = dir_name(data) == paths::kImagePackages;
    if (!(is_in_image ? make_symlink(data, layer_file, error) : copy_path(data, layer_file, error)))
        return false;
    if (!make_dirs_group(layer_directory, error))
        return false;
    for (const char* name : kControlFiles)
        if (!write_layer_control_file(layer_file, name, layer_directory + "/" + name, error))
            return false;
    return check_manifest(layer_directory, manifest, error) && flush_tree(directory, error) &&
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
    /** What is left of an earlier one would become part of the application. */
    [[nodiscard]] bool require_cleared(VelkctlError** error) const {
        struct stat status {};
        return lstat(path_.c_str(), &status) != 0 ||
               FAIL_GENERAL(error, "Leftover staging directory cannot be removed: %s", path_.c_str());
    }

  private:
    std::string path_;
};

}  // namespace

/** What measuring an archive found. */
struct Measured {
    uint64_t size = 0;  ///< of what it unpacks to, in bytes
    bool is_single_gzip = false;
};

/** Nothing when the archive cannot be measured or has nothing in it. */
static std::optional<Measured> measure(const std::string& data, VelkctlError** error) {
    const std::optional<uint64_t> single = single_gzip_size(data);
    ErrorSlot measuring;
    const uint64_t size = single ? *single : uncompressed_size(data, measuring);
    if (size != 0)
        return Measured{size, single.has_value()};
    if (measuring.is_set())
        measuring.move_to(error);
    else
        SET_GENERAL_ERROR(error, "Failed to validate space for unpacking archive, uncompressed size is 0");
    return std::nullopt;
}

/** Check that so many bytes fit beside what is at `path`. */
static bool check_room(uint64_t size, const std::string& path, VelkctlError** error) {
    struct statvfs room {};
    if (statvfs(path.c_str(), &room) != 0) {
        SET_GENERAL_ERROR(error, "Failed to get filesystem stats for %s: %s", path.c_str(),
                          system_error_text().c_str());
        return false;
    }
    return check_space(size, uint64_t{room.f_bavail} * room.f_frsize, error);
}

/** Unpack into the working directory, without any right that an archive could misuse. */
static bool unpack(const std::string& data, bool is_single_gzip, VelkctlError** error) {
    const TarGzip gzip(data, is_single_gzip);
    ErrorSlot reason;
    std::string output;
    const int status = run_command_with_output(
        &output, reason,
        "su -s /bin/sh -c \"tar --no-same-permissions --no-same-owner -xf '%s'\" nobody 2>&1",
        {data.c_str()});
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

static bool unpack_into(const std::string& directory, const std::string& data, VelkctlError** error) {
    WorkingDirectory working_directory;
    if (!working_directory.remember(error))
        return false;
    const std::optional<Measured> measured = measure(data, error);
    return measured && check_room(measured->size, directory, error) &&
           set_owner(directory, kUnpackingUser, kKeepGroup, error) &&
           working_directory.enter(directory, error) && unpack(data, measured->is_single_gzip, error) &&
           working_directory.leave(error);
}

// While the control files are handled the directory is root's, so that no other process of the unpacking user
// can put a link in their place. Once they are immutable nobody can move them, and the directory may be given
// back.
static bool protect_control_files(const std::string& directory, VelkctlError** error) {
    if (!set_owner(directory, "root", kKeepGroup, error))
        return false;
    for (const char* name : kControlFiles) {
        const std::string path = directory + "/" + name;
        if (!is_regular_file_no_follow(path))
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
        return flush_path(directory, error);
    SET_GENERAL_ERROR(error, "Failed renaming file %s to %s: %s", staging.c_str(), lower.c_str(),
                      system_error_text().c_str());
    return false;
}

static bool move_to_place(const std::string& staging, const std::string& directory, VelkctlError** error) {
    if (std::rename(staging.c_str(), directory.c_str()) == 0)
        return flush_path(store_root(), error);
    SET_GENERAL_ERROR(error, "Failed renaming file: %s: errno %s", staging.c_str(),
                      system_error_text().c_str());
    return false;
}

bool lay_out_directory(const std::string& app, const StoreLocation& location, const std::string& data,
                       const json_t* manifest, VelkctlError** error) {
    const std::string directory = store_path(app, &location);
    const Staging staging(staging_path(directory));
    if (!staging.require_cleared(error) || !make_dirs_group(staging.path(), error) ||
        !unpack_into(staging.path(), data, error) || !protect_control_files(staging.path(), error) ||
        !check_manifest(staging.path(), manifest, error) || !flush_tree(staging.path(), error) ||
        !make_reserved_dir(directory, kApplicationMode, error))
        return false;
    const bool moved = location.kind == STORE_SD_CARD1
                           ? move_below_overlay(staging.path(), directory, location, error)
                           : move_to_place(staging.path(), directory, error);
    // A card is a file system of its own, which the store root's flush does not reach.
    return moved && flush_path(location.path, error);
}
