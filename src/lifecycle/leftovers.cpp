#include "lifecycle/leftovers.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <optional>
#include <vector>

#include "base/handles.h"
#include "base/log.h"
#include "base/paths.h"
#include "lifecycle/velkctl-backup.h"
#include "platform/libfilesync.h"
#include "store/package-trailer.h"
#include "store/velkctl-store.h"
#include "system/area.h"
#include "system/file.h"
#include "system/script.h"
#include "system/tree.h"

namespace {

// --- Processes ---

std::string process_path(pid_t pid, const char* name) {
    return std::string(paths::kProcesses) + "/" + std::to_string(pid) + "/" + name;
}

std::vector<pid_t> all_processes() {
    std::vector<pid_t> pids;
    const DirectoryPtr directory(opendir(paths::kProcesses));
    while (const dirent* entry = directory ? readdir(directory.get()) : nullptr) {
        const long pid = std::strtol(entry->d_name, nullptr, 10);
        if (pid > 0)
            pids.push_back(static_cast<pid_t>(pid));
    }
    return pids;
}

std::string link_target(const std::string& link) {
    char target[PATH_MAX];
    const ssize_t length = readlink(link.c_str(), target, sizeof target);
    return length > 0 ? std::string(target, static_cast<size_t>(length)) : "";
}

/** A number that the system tells of a process: the one that stands `place` numbers behind the key; -1 when
 * it is gone. */
long process_number(pid_t pid, const std::string& key, int place) {
    ErrorSlot gone;
    const std::string text = "\n" + read_file(process_path(pid, "status"), gone).value_or("");
    const size_t line = text.find("\n" + key + ":");
    if (line == std::string::npos)
        return -1;
    const char* next = text.c_str() + line + key.size() + 2;
    long number = -1;
    for (; place >= 0; place--) {
        char* end = nullptr;
        number = std::strtol(next, &end, 10);
        next = end;
    }
    return number;
}

bool is_ancestor(pid_t pid) {
    long ancestor = getpid();
    while (ancestor > 1 && ancestor != pid)
        ancestor = process_number(static_cast<pid_t>(ancestor), "PPid", 0);
    return ancestor == pid;
}

bool has_terminal(pid_t pid) {
    ErrorSlot gone;
    const std::string text = read_file(process_path(pid, "stat"), gone).value_or("");
    const size_t name_end = text.rfind(") ");  // the name may hold anything
    int terminal = 0;
    return name_end != std::string::npos &&
           std::sscanf(text.c_str() + name_end + 2, "%*c %*d %*d %*d %d", &terminal) == 1 && terminal != 0;
}

bool works_in(pid_t pid, const std::string& directory) {
    return (link_target(process_path(pid, "cwd")) + "/").starts_with(directory + "/") && !has_terminal(pid) &&
           !is_ancestor(pid);
}

/** What the program of a process is called, also when it was replaced on the disk meanwhile. */
std::string program_name(pid_t pid) {
    const std::string path = link_target(process_path(pid, "exe"));
    return base_name(path.substr(0, path.find(" (deleted)")));
}

/** Whether another process of this program acts as root; one of anybody else makes no file of root's. */
bool another_one_lives() {
    const std::string own_name = program_name(getpid());
    const std::vector<pid_t> pids = all_processes();
    return std::any_of(pids.begin(), pids.end(), [&own_name](pid_t pid) {
        return pid != getpid() && program_name(pid) == own_name && process_number(pid, "Uid", 1) == 0;
    });
}

// --- Temporary files ---

/** A file that may be left of a command that died. */
struct Temporary {
    const AreaDirectory* directory;
    std::string name;
    ino_t inode;
};

/** The directories that are held open, and what was found in them. */
struct Findings {
    std::deque<AreaDirectory> directories;
    std::vector<Temporary> files;
};

/** Whether a name was made from a template, whose six X stand for letters and digits. */
bool is_made_from(const std::string& name_template, const std::string& name) {
    const size_t random = name_template.find("XXXXXX");
    const std::string beginning = name_template.substr(0, random);
    const std::string ending = name_template.substr(random + 6);
    return name.size() == name_template.size() && name.starts_with(beginning) && name.ends_with(ending) &&
           std::all_of(name.begin() + static_cast<ptrdiff_t>(random),
                       name.begin() + static_cast<ptrdiff_t>(random) + 6,
                       [](char c) { return g_ascii_isalnum(c); });
}

/** A regular file of root's own by that name, links not followed. */
std::optional<struct stat> find_own_file(const AreaDirectory& directory, const std::string& name) {
    struct stat status {};
    const bool is_own = fstatat(directory.fd(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                        S_ISREG(status.st_mode) && status.st_uid == geteuid();
    return is_own ? std::optional(status) : std::nullopt;
}

/** Note what in a directory was made from the template; `is_in_use` is asked about each one's mode. */
template <typename Question>
void find_temporaries(std::optional<AreaDirectory> directory, const std::string& name_template,
                      const Question& is_in_use, Findings* findings) {
    if (!directory)
        return;
    const AreaDirectory& held = findings->directories.emplace_back(std::move(*directory));
    const DirectoryPtr entries(opendir(held.access_path(".").c_str()));
    while (const dirent* entry = entries ? readdir(entries.get()) : nullptr) {
        const std::string name = entry->d_name;
        if (!is_made_from(name_template, name))
            continue;
        const std::optional<struct stat> status = find_own_file(held, name);
        if (status && is_in_use(status->st_mode))
            findings->files.push_back({&held, name, status->st_ino});
    }
}

/** Every directory of the system that a whole file is written in. */
std::vector<std::string> system_directories() {
    std::vector<std::string> directories = {paths::kSystemdUnits, paths::kBusPolicies, paths::kParameters,
                                            paths::kVerificationStates, paths::kLoadedParameterGroups};
    for (const std::string& file :
         {paths::transfer_snippet(""), paths::fcgi_snippet(""), paths::access_rules(""),
          std::string(paths::kPreinstalledList), std::string(paths::kSubUid), std::string(paths::kSubGid)})
        directories.push_back(dir_name(file).value_or("/"));
    std::sort(directories.begin(), directories.end());
    directories.erase(std::unique(directories.begin(), directories.end()), directories.end());
    return directories;
}

void find_written_files(Findings* findings) {
    const auto any = [](mode_t) { return true; };
    ErrorSlot ignored;
    const auto look = [&](std::optional<AreaDirectory> directory) {
        find_temporaries(std::move(directory), FILESYNC_TEMPORARY, any, findings);
        ignored.clear();
    };
    for (const std::string& directory : system_directories())
        look(open_area(directory, ignored));
    const auto is_drop_in = [](const std::string& path) { return path.ends_with(".d"); };
    for (const std::string& path : collect_paths(paths::kSystemdUnits, std::nullopt, is_drop_in, ignored))
        look(open_area(path, ignored));
    ignored.clear();
    for (const std::string& app : collect_app_names([](const std::string&) { return true; }, ignored)) {
        ignored.clear();
        const std::optional<AreaDirectory> application = open_area(paths::store_root_path(app), ignored);
        if (application)
            look(open_area_directory(*application, "conf", ignored));
        ignored.clear();
    }
}

void find_verified_files(Findings* findings) {
    const auto any = [](mode_t) { return true; };
    // What is complete and nobody's any more was refused, and is left on purpose.
    const auto is_in_use = [](mode_t mode) { return (mode & ALLPERMS) != PACKAGE_DATA_MODE; };
    ErrorSlot ignored;
    const std::string place = dir_name(paths::kTemporaryData).value_or("/");
    find_temporaries(open_area(place, ignored), base_name(paths::kTemporarySignature), any, findings);
    ignored.clear();
    find_temporaries(open_area(place, ignored), base_name(paths::kTemporaryData), is_in_use, findings);
}

void remove_temporary(const Temporary& file) {
    const std::optional<struct stat> status = find_own_file(*file.directory, file.name);
    if (!status || status->st_ino != file.inode)
        return;
    log_info("Removing %s", file.directory->path_of(file.name).c_str());
    ErrorSlot failure;
    if (!remove_area_file(*file.directory, file.name, failure))
        warn_and_clear_error(failure, nullptr);
}

}  // namespace

void end_work_in(const std::string& directory) {
    for (const pid_t pid : all_processes())
        if (works_in(pid, directory))
            kill_process_tree(pid);
}

void sweep_temporary_files() {
    Findings findings;
    find_written_files(&findings);
    find_verified_files(&findings);
    // In this order: whoever made one of these files lived before it was found, and is seen now or is dead.
    if (findings.files.empty() || another_one_lives())
        return;
    for (const Temporary& file : findings.files)
        remove_temporary(file);
}

void sweep_unfinished_backups() {
    const std::string directory = dir_name(backup_path("")).value_or("/");
    const auto is_unfinished = [](const std::string& path) {
        return path.ends_with(".tmp") || path.ends_with(".remove");
    };
    ErrorSlot trouble;
    for (const std::string& path : collect_paths(directory, std::nullopt, is_unfinished, trouble)) {
        trouble.clear();
        log_info("Removing %s", path.c_str());
        if (!remove_recursive(path, trouble))
            warn_and_clear_error(trouble, nullptr);
    }
}
