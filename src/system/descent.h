#pragma once

#include <dirent.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "base/handles.h"

/**
 * The way down into a tree, of which the directories that are to be come back to are remembered. Few of them
 * are held open: the others are found again as the directory above and told by their identity, so that a
 * directory that was moved away meanwhile leads nowhere else.
 */
class Descent {
  public:
    /** One directory on the way. */
    struct Step {
        UniqueFd fd;  ///< not valid while it is not held open
        std::string name;
        std::vector<std::string> waiting;  ///< names of directories in it that are still to be entered
        size_t level = 0;                  ///< 0 for the root
        size_t path_length = 0;            ///< for whoever keeps the path of the way
        dev_t device = 0;
        ino_t inode = 0;
    };

    [[nodiscard]] bool empty() const { return steps_.empty(); }
    /** The directory that was entered last and not left; it is open. */
    [[nodiscard]] Step& here() { return steps_.back(); }

    /**
     * Enter an open directory, which is called `name` where the way is now. False, with errno, when it cannot
     * be told which one it is.
     */
    [[nodiscard]] bool enter(UniqueFd fd, const std::string& name);
    /** The same, and where the way is now is not to be come back to: it costs nothing any more. */
    [[nodiscard]] bool enter_last(UniqueFd fd, const std::string& name);
    /**
     * Go back to the last directory that is remembered, or out of the tree. False, with errno, when it cannot
     * be found again.
     */
    [[nodiscard]] bool leave();

  private:
    [[nodiscard]] bool reopen(Step& step, UniqueFd below, size_t level) const;

    std::vector<Step> steps_;
};

/**
 * Read the names in an open directory from its beginning, while it may be changed. `visit` returns false to
 * stop.
 *
 * @return 0, ECANCELED when it was stopped, or the system's error number
 */
[[nodiscard]] int read_names(int directory, const std::function<bool(const dirent&)>& visit);

/** Whether a name that was just read is a directory's; a link to one is not. */
[[nodiscard]] bool names_directory(int directory, const dirent& entry);

/**
 * Open the directory `name`, following no link: ENOTDIR or ELOOP for anything else, and, unless mounts are
 * entered, EXDEV for what is mounted there.
 */
[[nodiscard]] UniqueFd open_below(int directory, const std::string& name, bool enter_mounts);
