#include "store/package.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "base/log.h"
#include "base/paths.h"
#include "manifest/manifest-rules.h"
#include "manifest/manifest.h"
#include "manifest/names.h"
#include "system/file.h"

static bool is_same_time(const timespec& one, const timespec& other) {
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

/** Whether it is the same file, which nobody wrote to, renamed or gave away in between. */
static bool is_same(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino && one.st_size == other.st_size &&
           is_same_time(one.st_mtim, other.st_mtim) && is_same_time(one.st_ctim, other.st_ctim);
}

bool Package::open(const std::string& path, VelkctlError** error) {
    std::optional<std::string> canonical = canonical_path(path, error);
    if (!canonical || !check_package_file_name(*canonical, error))
        return false;
    path_ = std::move(*canonical);
    // Not blocking, so that a pipe of that name is refused by the first seek instead of being waited for.
    fd_ = UniqueFd(::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd_ || fstat(fd_.get(), &opened_) != 0)
        open_failure_ = errno;
    return true;
}

// Programs read the open file itself, whatever has its name by then.
std::string Package::reading_path() const {
    const std::string opened =
        std::string(paths::kProcesses) + "/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd());
    return S_ISREG(opened_.st_mode) && access(opened.c_str(), R_OK) == 0 ? opened : path_;
}

bool Package::read_manifest(VelkctlError** error) {
    manifest_ = load_package_manifest(reading_path(), error);
    std::optional<ParsedManifest> parsed =
        manifest_ ? parse_manifest(manifest_.get(), error) : std::optional<ParsedManifest>();
    if (!parsed)
        return false;
    parsed_ = std::move(*parsed);
    return true;
}

bool Package::require_unchanged(VelkctlError** error) const {
    struct stat open {};
    struct stat named {};
    if (fstat(fd(), &open) == 0 && is_same(open, opened_) && lstat(path_.c_str(), &named) == 0 &&
        is_same(named, opened_))
        return true;
    return fail(error, VELKCTL_ERROR_INVALID_PACKAGE, "Invalid application package");
}

void Package::adopt(std::string data, std::optional<std::string> record) {
    data_ = std::move(data);
    record_ = std::move(record);
}

void Package::release_data() {
    if (!data_.empty() && !is_own_data() && unlink(data_.c_str()) != 0)
        log_info("Failed to delete %s: %s", data_.c_str(), system_error_text().c_str());
    data_.clear();
}
