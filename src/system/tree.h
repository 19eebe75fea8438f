#pragma once

#include <sys/stat.h>

#include <functional>
#include <string>

#include "base/velkctl-error.h"

/** One visited entry of a tree. */
struct TreeEntry {
    std::string path;  ///< the root given to the walk, and the way down from it
    std::string
        access_path;     ///< a path that is valid during the visit only, short however deep the entry lies
    struct stat status;  ///< of the entry itself, links not followed
    bool is_directory;
    int level;  ///< 0 for the root
};

enum class TreeOrder {
    DirectoryFirst,
    ChildrenFirst,  ///< for removal: what is mounted below the root is not entered
};

/**
 * Visit `root` and everything below it. Links are not followed, not even when a directory is exchanged for
 * one during the walk. The working directory changes during the walk and is back afterwards.
 *
 * @param visit  returns false to stop the walk
 * @return 0 when every entry was visited; otherwise the system's error number of an entry that could not be
 * read, or ECANCELED when a visit stopped the walk
 */
[[nodiscard]] int walk_tree(const std::string& root, TreeOrder order,
                            const std::function<bool(const TreeEntry&)>& visit);

/** Set mode 0751 on every directory of a tree; files stay. Returns as walk_tree. */
[[nodiscard]] int set_dir_mode_recursive(const std::string& root);

/**
 * Remove a directory and everything in it. What is absent or no directory (a link to one included) is left
 * alone, successfully. What is mounted in it is not touched, and stays with the directory it is mounted on.
 * An entry that cannot be removed is tried again with its immutable attribute cleared,
 * and then in the upper layer of the overlay it lies on.
 *
 * @param error  code 10 "Failed recursive removal of %s"; the walk stops at the entry, and the reason is a
 * warning; that of current_dir for a relative path
 */
[[nodiscard]] bool remove_recursive(const std::string& path, VelkctlError** error);
