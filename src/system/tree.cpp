#include "system/tree.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/handles.h"
#include "base/interruption.h"
#include "base/log.h"
#include "base/paths.h"
#include "system/descent.h"
#include "system/file.h"
#include "system/mounts.h"

namespace {

/** A walk and where it is. Errors are the system's numbers. */
class Walker {
  public:
    Walker(const TreeWalk& how, const std::function<bool(const TreeEntry&)>& visit)
        : how_(how), visit_(visit) {}

    int walk(int root) {
        UniqueFd fd = open_below(root, ".", true);
        struct stat status {};
        if (!fd || fstat(fd.get(), &status) != 0)
            return errno;
        if (!visit_({fd.get(), ".", fd.get(), status, true, 0, path_}))
            return ECANCELED;
        if (!way_.enter(std::move(fd), "."))
            return errno;
        int result = visit_entries();
        while (result == 0 && !way_.empty())
            result = go_on();
        return result;
    }

  private:
    /** Enter the next directory that waits where the walk is, or go back. */
    int go_on() {
        Descent::Step& here = way_.here();
        if (here.waiting.empty())
            return way_.leave() ? 0 : errno;
        const std::string name = std::move(here.waiting.back());
        here.waiting.pop_back();
        path_.resize(here.path_length);
        UniqueFd fd = open_below(here.fd.get(), name, how_.enter_mounts);
        if (!fd)
            return errno == ENOTDIR || errno == ELOOP  ? visit_other(name, DT_UNKNOWN)
                   : errno == ENOENT || errno == EXDEV ? 0
                                                       : errno;
        return visit_directory(name, std::move(fd));
    }

    int visit_directory(const std::string& name, UniqueFd fd) {
        Descent::Step& here = way_.here();
        const size_t level = here.level + 1;
        struct stat status {};
        if (fstat(fd.get(), &status) != 0)
            return errno;
        add_to_path(name);
        if (!visit_({here.fd.get(), name, fd.get(), status, true, level, path_}))
            return ECANCELED;
        const auto enter = here.waiting.empty() ? &Descent::enter_last : &Descent::enter;
        if (!(way_.*enter)(std::move(fd), name))
            return errno;
        way_.here().path_length = path_.size();
        return visit_entries();
    }

    /** Visit what lies in the directory where the walk is; directories wait to be entered. */
    int visit_entries() {
        Descent::Step& here = way_.here();
        int result = 0;
        const int reading = read_names(here.fd.get(), [&](const dirent& entry) {
            if (names_directory(here.fd.get(), entry))
                here.waiting.emplace_back(entry.d_name);
            else
                result = visit_other(entry.d_name, entry.d_type);
            return result == 0;
        });
        return result != 0 ? result : reading;
    }

    int visit_other(const std::string& name, unsigned char type) {
        Descent::Step& here = way_.here();
        struct stat status {};
        if (fstatat(here.fd.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno != ENOENT)
                return errno;
            status.st_mode = DTTOIF(type);
        }
        // What was a directory or has become one is not entered any more.
        path_.resize(here.path_length);
        add_to_path(name);
        const bool goes_on = visit_({here.fd.get(), name, -1, status, false, here.level + 1, path_});
        path_.resize(here.path_length);
        return goes_on ? 0 : ECANCELED;
    }

    void add_to_path(const std::string& name) {
        if (how_.with_paths)
            path_ += "/" + name;
    }

    const TreeWalk& how_;
    const std::function<bool(const TreeEntry&)>& visit_;
    Descent way_;
    std::string path_;  ///< of the directory where the walk is, or of the entry that is visited
};

}  // namespace

int walk_tree(int root, const TreeWalk& how, const std::function<bool(const TreeEntry&)>& visit) {
    return Walker(how, visit).walk(root);
}

int walk_tree(const std::string& path, const TreeWalk& how,
              const std::function<bool(const TreeEntry&)>& visit) {
    const UniqueFd root(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return root ? walk_tree(root.get(), how, visit) : errno;
}

bool set_entry_owner(const TreeEntry& entry, uid_t uid, gid_t gid) {
    if (entry.is_directory)
        return fchown(entry.fd, uid, gid) == 0;
    return fchownat(entry.directory, entry.name.c_str(), uid, gid, AT_SYMLINK_NOFOLLOW) == 0 ||
           errno == ENOENT;
}

int set_dir_mode_recursive(int root) {
    int reason = 0;
    const int result = walk_tree(root, {}, [&reason](const TreeEntry& entry) {
        if (entry.is_directory && fchmod(entry.fd, 0751) != 0)
            reason = errno;
        return reason == 0;
    });
    return reason != 0 ? reason : result;
}

namespace {

/** From here on a directory is moved up instead of being entered, so that no depth costs memory. */
constexpr size_t kDeep = 64;
/** As often as this the tree is looked through again for what was moved up, or appeared meanwhile. */
constexpr int kPasses = 20000;
constexpr int kIdlePasses = 20;

/** The removal of one directory, which is done when the directory itself is gone. */
class Removal {
  public:
    Removal(int parent, std::string name) : parent_(parent), name_(std::move(name)) {}

    bool run() {
        int idle = 0;
        for (int pass = 0; pass < kPasses && idle < kIdlePasses; pass++) {
            moved_ = false;
            if (!empty_once())
                return false;
            if (remove_at(parent_, name_))
                return true;
            if (errno != ENOTEMPTY && errno != EEXIST)
                return remove_otherwise(parent_, name_);
            idle = moved_ ? 0 : idle + 1;
        }
        return remove_otherwise(parent_, name_);
    }

  private:
    /** Remove what is in the directory, as far as it is not moved up or made meanwhile. */
    bool empty_once() {
        root_ = open_below(parent_, name_, false);
        UniqueFd fd = root_ ? open_below(root_.get(), ".", true) : UniqueFd();
        if (!root_)
            return errno == ENOENT || remove_otherwise(parent_, name_);
        if (!fd || !way_.enter(std::move(fd), name_))
            return fail();
        bool goes_on = remove_entries();
        while (goes_on && !way_.empty())
            goes_on = way_.here().waiting.empty() ? go_back() : go_down();
        return goes_on;
    }

    bool remove_entries() {
        Descent::Step& here = way_.here();
        bool goes_on = true;
        const int result = read_names(here.fd.get(), [&](const dirent& entry) {
            if (names_directory(here.fd.get(), entry))
                here.waiting.emplace_back(entry.d_name);
            else
                goes_on = remove(here.fd.get(), entry.d_name);
            return goes_on;
        });
        return goes_on && (result == 0 || result == ENOENT || fail());
    }

    bool go_down() {
        Descent::Step& here = way_.here();
        const std::string name = std::move(here.waiting.back());
        here.waiting.pop_back();
        if (here.level >= kDeep && move_up(here.fd.get(), name))
            return true;
        UniqueFd fd = open_below(here.fd.get(), name, false);
        if (!fd)  // mounted on, exchanged for something else, or gone
            return errno == ENOENT || remove(here.fd.get(), name);
        return way_.enter(std::move(fd), name) ? remove_entries() : fail();
    }

    /** Move a directory into the one that is being removed. Some file systems cannot, and it is entered then.
     */
    bool move_up(int directory, const std::string& name) {
        const std::string free = ".removed-" + std::to_string(getpid()) + "-" + std::to_string(count_++);
        const bool is_moved = renameat(directory, name.c_str(), root_.get(), free.c_str()) == 0;
        moved_ = moved_ || is_moved;
        return is_moved;
    }

    bool go_back() {
        const std::string name = way_.here().name;
        const bool is_root = way_.here().level == 0;
        if (!way_.leave())
            return fail();
        return is_root || remove(way_.here().fd.get(), name);
    }

    /** Remove an entry; a directory that is filled again meanwhile waits for the next pass. */
    static bool remove(int directory, const std::string& name) {
        if (remove_at(directory, name))
            return true;
        if (errno == EPERM && clear_attributes(directory) && remove_at(directory, name))
            return true;
        return errno == ENOTEMPTY || errno == EEXIST || remove_otherwise(directory, name);
    }

    static bool remove_otherwise(int directory, const std::string& name) {
        const int reason = errno;
        const std::string path = path_of_descriptor(directory) + "/" + name;
        ErrorSlot trouble;
        if (reason == EBUSY || reason == EXDEV)
            SET_GENERAL_ERROR(trouble, "Failed to remove %s: %s", path.c_str(),
                              system_error_text(EBUSY).c_str());
        else if (remove_through_overlay(path, paths::kMounts, trouble))
            return true;
        warn_and_clear_error(trouble, nullptr);
        return false;
    }

    static bool fail() {
        log_warning("%s", system_error_text().c_str());
        return false;
    }

    int parent_;
    std::string name_;
    UniqueFd root_;
    Descent way_;
    bool moved_ = false;
    unsigned count_ = 0;
};

}  // namespace

bool remove_recursive_at(int directory, const std::string& name, const std::string& path,
                         VelkctlError** error) {
    const Uninterrupted shield;  // half of a tree is of no use to anybody
    struct stat status {};
    if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(status.st_mode) ||
        Removal(directory, name).run())
        return true;
    return FAIL_GENERAL(error, "Failed recursive removal of %s", path.c_str());
}

bool remove_recursive(const std::string& path, VelkctlError** error) {
    const std::string above = dir_name(path).value_or(".");
    const UniqueFd parent(open(above.empty() ? "/" : above.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return !parent || remove_recursive_at(parent.get(), base_name(path), path, error);
}
