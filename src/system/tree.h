#pragma once

#include <sys/stat.h>

#include <functional>
#include <string>

#include "base/velkctl-error.h"

/*
 * Trees in which an application may exchange anything at any moment: everything is reached from one opened
 * directory to the next, no link is followed, and no depth and no length of a path is too much.
 */

/** One visited entry of a tree. */
struct TreeEntry {
    int directory;     ///< the open directory that it lies in; the root lies in itself
    std::string name;  ///< its name there; "." for the root
    int fd;            ///< the entry itself, when it is a directory; else -1
    struct stat
        status;  ///< of the entry itself, links not followed; only its kind when it vanished meanwhile
    bool is_directory;
    size_t level;              ///< 0 for the root
    const std::string& below;  ///< the way to it from the root: "" or "/..."; always "" without paths
};

struct TreeWalk {
    bool enter_mounts = false;  ///< else what is mounted below the root is not visited at all
    bool with_paths = false;    ///< tell the entries' paths, which may be of any length
};

/**
 * Visit an open directory and everything below it: a directory comes before what is in it, and that comes
 * together, before what is in directories of it. A directory that vanishes meanwhile is left out. A chain of
 * directories, however long, costs no more memory than one.
 *
 * @param visit  returns false to stop the walk
 * @return 0 when every entry was visited; otherwise the system's error number of an entry that could not be
 * read, or ECANCELED when a visit stopped the walk
 */
[[nodiscard]] int walk_tree(int root, const TreeWalk& how,
                            const std::function<bool(const TreeEntry&)>& visit);

/** The same from the directory at `path`, which is no link. */
[[nodiscard]] int walk_tree(const std::string& path, const TreeWalk& how,
                            const std::function<bool(const TreeEntry&)>& visit);

/** Give a visited entry, and nothing else, to the owner; one that vanished needs none. errno tells of a
 * failure. */
[[nodiscard]] bool set_entry_owner(const TreeEntry& entry, uid_t uid, gid_t gid);

/** Set mode 0751 on every directory of a tree; files stay. Returns as walk_tree. */
[[nodiscard]] int set_dir_mode_recursive(int root);

/**
 * Remove a directory and everything in it. What is absent or no directory (a link to one included) is left
 * alone, successfully. What is mounted there or in it is not touched, and stays with the directory it is
 * mounted on. Where an attribute forbids the removal it is cleared first; what still cannot be removed is
 * tried in the upper layer of the overlay it lies on.
 *
 * @param error  code 10 "Failed recursive removal of %s"; the walk stops at the entry, and the reason is a
 * warning
 */
[[nodiscard]] bool remove_recursive(const std::string& path, VelkctlError** error);

/** The same for the entry `name` of an open directory; `path` is for the messages. */
[[nodiscard]] bool remove_recursive_at(int directory, const std::string& name, const std::string& path,
                                       VelkctlError** error);
