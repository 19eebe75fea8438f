#include "platform/libfilesync.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/descriptors.h"
#include "base/handles.h"

static bool fail(GError** error, const char* operation, const std::string& path) {
    const int number = errno;
    g_set_error(error, G_FILE_ERROR, static_cast<int>(g_file_error_from_errno(number)), "%s %s: %s",
                operation, path.c_str(), g_strerror(number));
    return false;
}

static bool fill(int fd, const std::string& path, const char* contents, size_t length, FilesyncMode sync,
                 int mode, GError** error) {
    if (!write_all(fd, {contents, length}))
        return fail(error, "write", path);
    if (fchmod(fd, static_cast<mode_t>(mode)) != 0)
        return fail(error, "chmod", path);
    if (sync == FILESYNC_FULL && fsync(fd) != 0)
        return fail(error, "fsync", path);
    return true;
}

static bool sync_directory(const std::string& directory, GError** error) {
    const UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd || fsync(fd.get()) != 0)
        return fail(error, "fsync", directory);
    return true;
}

bool filesync_set_file_contents_with_sync_mode(const char* path, const char* contents, size_t length,
                                               FilesyncMode sync, int mode, GError** error) {
    const GStringPtr directory_name(g_path_get_dirname(path));
    const std::string directory = directory_name.get();
    // A short name of its own: the target's name may already be as long as a name can be.
    std::string temporary = directory + "/.filesync-XXXXXX";
    UniqueFd fd(mkostemp(temporary.data(), O_CLOEXEC));
    if (!fd)
        return fail(error, "create", temporary);
    if (!fill(fd.get(), temporary, contents, length, sync, mode, error)) {
        unlink(temporary.c_str());
        return false;
    }
    if (std::rename(temporary.c_str(), path) != 0) {
        const bool failed = fail(error, "rename", temporary);
        unlink(temporary.c_str());
        return failed;
    }
    return sync == FILESYNC_NONE || sync_directory(directory, error);
}
