#include "system/tree.h"

#include <fcntl.h>
#include <fts.h>

#include <cerrno>
#include <cstdio>
#include <memory>

#include "base/handles.h"
#include "base/interruption.h"
#include "base/log.h"
#include "base/paths.h"
#include "system/file.h"
#include "system/mounts.h"

// fts changes directory on its way down: it can go deeper than a path can be long, keeps few directories
// open, and notices a directory that was exchanged for a link.
int walk_tree(const std::string& root, TreeOrder order, const std::function<bool(const TreeEntry&)>& visit) {
    char* const roots[] = {const_cast<char*>(root.c_str()), nullptr};
    // Whatever is removed below a mount is somebody else's: it only lies here.
    const int mounts = order == TreeOrder::ChildrenFirst ? FTS_XDEV : 0;
    const std::unique_ptr<FTS, ReleaseWith<fts_close>> walk(fts_open(roots, FTS_PHYSICAL | mounts, nullptr));
    if (!walk)
        return errno;
    const int other_visit = order == TreeOrder::DirectoryFirst ? FTS_DP : FTS_D;
    errno = 0;
    while (const FTSENT* entry = fts_read(walk.get())) {
        if (entry->fts_info == other_visit)
            continue;
        if (entry->fts_info == FTS_ERR || entry->fts_info == FTS_NS || entry->fts_info == FTS_DNR)
            return entry->fts_errno;
        const bool is_directory = entry->fts_info == FTS_D || entry->fts_info == FTS_DP;
        if (!visit({entry->fts_path, entry->fts_accpath, *entry->fts_statp, is_directory, entry->fts_level}))
            return ECANCELED;
        errno = 0;
    }
    return errno;
}

int set_dir_mode_recursive(const std::string& root) {
    int reason = 0;
    const int result = walk_tree(root, TreeOrder::DirectoryFirst, [&reason](const TreeEntry& entry) {
        if (entry.is_directory &&
            fchmodat(AT_FDCWD, entry.access_path.c_str(), 0751, AT_SYMLINK_NOFOLLOW) != 0)
            reason = errno;
        return reason == 0;
    });
    return reason != 0 ? reason : result;
}

/** Remove one entry, with the two ways that are left when the plain one fails. */
static bool remove_entry(const TreeEntry& entry) {
    if (std::remove(entry.access_path.c_str()) == 0)
        return true;
    ErrorSlot reason;
    if (remove_immutable(entry.path, reason))
        return true;
    reason.clear();
    if (remove_through_overlay(entry.path, paths::kMounts, reason))
        return true;
    warn_and_clear_error(reason, nullptr);
    return false;
}

bool remove_recursive(const std::string& path, VelkctlError** error) {
    if (!is_directory_no_follow(path))
        return true;
    const Uninterrupted shield;  // half of a tree is of no use to anybody
    // The walk changes directory, and the second and third way take an entry's whole path.
    const std::string base = is_absolute_path(path) ? "" : current_dir(error) + "/";
    if (base == "/")
        return false;
    if (walk_tree(base + path, TreeOrder::ChildrenFirst, remove_entry) == 0)
        return true;
    SET_GENERAL_ERROR(error, "Failed recursive removal of %s", path.c_str());
    return false;
}
