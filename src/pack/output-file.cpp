#include "pack/output-file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "pack/pack-error.h"

static constexpr mode_t kMode = 0644;

bool write_all(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t written = ::write(fd, data.data(), data.size());
        if (written < 0 && errno != EINTR)
            return false;
        if (written > 0)
            data.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

OutputFile::~OutputFile() {
    if (!temporary_.empty())
        unlink(temporary_.c_str());
}

bool OutputFile::create(const std::string& path, VelkctlError** error) {
    path_ = path;
    std::string name = path + ".XXXXXX";
    fd_ = UniqueFd(mkostemp(name.data(), O_CLOEXEC));
    if (!fd_)
        return fail_with_system_error(error, path_, "cannot be written");
    temporary_ = name;
    return true;
}

bool OutputFile::write(std::string_view data, VelkctlError** error) {
    return write_all(fd_.get(), data) || fail_with_system_error(error, path_, "cannot be written");
}

bool OutputFile::keep(VelkctlError** error) {
    if (fchmod(fd_.get(), kMode) != 0 || std::rename(temporary_.c_str(), path_.c_str()) != 0)
        return fail_with_system_error(error, path_, "cannot be written");
    temporary_.clear();
    return true;
}
