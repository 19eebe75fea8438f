#include "pack/new-folder.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

#include "base/descriptors.h"
#include "base/handles.h"
#include "pack/pack-error.h"
#include "system/file.h"
#include "system/tree.h"

NewFolder::~NewFolder() {
    ErrorSlot left_behind;
    if (!temporary_.empty())
        (void)remove_recursive(temporary_, left_behind);
}

bool NewFolder::create(const std::string& path, VelkctlError** error) {
    path_ = path;
    while (path_.size() > 1 && path_.ends_with('/'))
        path_.pop_back();
    struct stat status = {};
    if (lstat(path_.c_str(), &status) == 0)
        return fail_with(error, VELKCTL_ERROR_ALREADY_EXISTS, path_, "exists already");
    std::string name = path_ + ".XXXXXX";
    if (!mkdtemp(name.data()))
        return fail_with_system_error(error, path_, "cannot be made");
    temporary_ = name;
    return true;
}

bool NewFolder::add_file(const std::string& name, std::string_view text, bool is_executable,
                         VelkctlError** error) {
    std::string directory;
    ErrorSlot reason;
    if (!create_dir_part_of_path(file(name), 0755, &directory, reason))
        return fail_with_system_error(error, path_ + "/" + name, "cannot be written");
    const mode_t mode = is_executable ? 0755 : 0644;
    const UniqueFd fd(open(file(name).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    return (fd && write_all(fd.get(), text)) ||
           fail_with_system_error(error, path_ + "/" + name, "cannot be written");
}

bool NewFolder::keep(VelkctlError** error) {
    if (chmod(temporary_.c_str(), 0755) != 0 || std::rename(temporary_.c_str(), path_.c_str()) != 0)
        return fail_with_system_error(error, path_, "cannot be made");
    temporary_.clear();
    return true;
}
