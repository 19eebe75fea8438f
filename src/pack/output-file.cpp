#include "pack/output-file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "base/descriptors.h"
#include "base/paths.h"
#include "pack/pack-error.h"
#include "system/file.h"

static constexpr mode_t kMode = 0644;

OutputFile::~OutputFile() {
    if (!temporary_.empty())
        unlink(temporary_.c_str());
}

bool OutputFile::create(const std::string& path, VelkctlError** error) {
    path_ = path;
    const std::string directory = dir_name(path).value_or(".") + "/";
    // Without a name nothing of it stays when the process is killed.
    fd_ = UniqueFd(open(directory.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, kMode));
    if (fd_)
        return true;
    // Not every file system has files without names.
    std::string name = path + ".XXXXXX";
    fd_ = UniqueFd(mkostemp(name.data(), O_CLOEXEC));
    if (!fd_)
        return fail_with_system_error(error, path_, "cannot be written");
    temporary_ = name;
    return true;
}

/** Give the file its temporary name, if it has none yet. */
bool OutputFile::name_it() {
    if (!temporary_.empty())
        return true;
    const std::string name = path_ + "." + std::to_string(getpid()) + ".tmp";
    const std::string nameless = std::string(paths::kOwnDescriptors) + "/" + std::to_string(fd_.get());
    if (linkat(AT_FDCWD, nameless.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) != 0)
        return false;
    temporary_ = name;
    return true;
}

bool OutputFile::write(std::string_view data, VelkctlError** error) {
    return write_all(fd_.get(), data) || fail_with_system_error(error, path_, "cannot be written");
}

bool OutputFile::keep(VelkctlError** error) {
    if (fchmod(fd_.get(), kMode) != 0 || !name_it() || std::rename(temporary_.c_str(), path_.c_str()) != 0)
        return fail_with_system_error(error, path_, "cannot be written");
    temporary_.clear();
    return true;
}
