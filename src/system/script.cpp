#include "system/script.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <csignal>
#include <cstdlib>

#include "base/handles.h"
#include "base/interruption.h"
#include "base/log.h"
#include "base/paths.h"
#include "system/area.h"
#include "system/file.h"
#include "system/subprocess.h"
#include "system/user-database.h"

// A second in all.
static constexpr int DEATH_TRIES = 100;
static constexpr useconds_t DEATH_PAUSE_US = 10'000;

std::vector<int32_t> split_string_and_decode_pids(const char* space_separated_pids) {
    assert(space_separated_pids);
    std::vector<int32_t> pids;
    const char* next = space_separated_pids;
    while (true) {
        char* end = nullptr;
        const long pid = std::strtol(next, &end, 10);
        if (pid != 0 && pid >= INT32_MIN && pid <= INT32_MAX)
            pids.push_back(static_cast<int32_t>(pid));
        if (*end == '\0')
            break;
        next = end + 1;
    }
    pids.push_back(0);
    return pids;
}

std::vector<int32_t> get_child_pids(pid_t pid) {
    const std::string tasks = std::string(paths::kProcesses) + "/" + std::to_string(pid) + "/task";
    const DirectoryPtr directory(opendir(tasks.c_str()));
    std::string text;
    while (const dirent* entry = directory ? readdir(directory.get()) : nullptr) {
        ErrorSlot unreadable;
        text += ' ';
        text += read_file(tasks + "/" + entry->d_name + "/children", unreadable).value_or("");
    }
    return split_string_and_decode_pids(text.c_str());
}

/** Send the signal to the process and all its descendants, and tell which they were. */
static void signal_tree(pid_t pid, int number, std::vector<pid_t>* reached) {
    for (const int32_t child : get_child_pids(pid))
        if (child > 0)  // a negative id would name a process group
            signal_tree(child, number, reached);
    log_info("Sending signal %d to process %jd", number, static_cast<intmax_t>(pid));
    kill(pid, number);
    reached->push_back(pid);
}

/** Whether the process still runs; one that only waits for its parent to notice its end does not. */
static bool is_alive(pid_t pid) {
    ErrorSlot gone;
    const std::string status =
        read_file(std::string(paths::kProcesses) + "/" + std::to_string(pid) + "/stat", gone).value_or("");
    const size_t name_end = status.rfind(") ");  // the name may hold anything
    return name_end != std::string::npos && status.find_first_of("ZX", name_end + 2) != name_end + 2;
}

// A killed process still ends a little later, and until then its user counts as busy and cannot be removed.
static void await_death(const std::vector<pid_t>& killed) {
    for (int tries = 0; tries < DEATH_TRIES && std::any_of(killed.begin(), killed.end(), is_alive); tries++)
        usleep(DEATH_PAUSE_US);
}

void kill_process_tree(pid_t pid) {
    std::vector<pid_t> killed;
    signal_tree(pid, SIGKILL, &killed);
    await_death(killed);
}

static bool become_user(const UserEntry& user) {
    // The groups go first: once the user id is dropped, the group calls are no longer permitted.
    if (initgroups(user.name.c_str(), user.primary_gid) != 0) {
        log_warning("Failed to initialize groups for user %s: %s", user.name.c_str(),
                    system_error_text().c_str());
        return false;
    }
    if (setresgid(user.primary_gid, user.primary_gid, user.primary_gid) != 0) {
        log_warning("Failed to set group id: %s", system_error_text().c_str());
        return false;
    }
    if (setresuid(user.uid, user.uid, user.uid) != 0) {
        log_warning("Failed to set user id: %s", system_error_text().c_str());
        return false;
    }
    return true;
}

// A script is not to sit at root's terminal: whoever shares a terminal's session can type into it, and what
// is typed is read by root's shell.
static bool leave_terminal() {
    const UniqueFd nothing(open(paths::kNullDevice, O_RDONLY | O_CLOEXEC));
    return setsid() != -1 && nothing && dup2(nothing.get(), STDIN_FILENO) == STDIN_FILENO;
}

/** What the child does between fork and its end; returns its exit status. */
static int run_in_child(const std::string& path, const std::string& directory, const std::string& user_name,
                        bool exec_directly) {
    ErrorSlot error;
    const std::optional<UserEntry> user = find_user(user_name, error);
    if (!user) {
        warn_and_clear_error(error, nullptr);
        return EX_OSERR;
    }
    if (!leave_terminal()) {
        log_warning("Failed to leave the terminal: %s", system_error_text().c_str());
        return EX_OSERR;
    }
    if (!become_user(*user))
        return EX_OSERR;
    if (change_dir(directory, error)) {
        if (exec_directly) {
            exec_file(path, error);
        } else {
            const int status = run_command(nullptr, "'%s'", {path.c_str()});
            return status == -1 ? EX_OSERR : status;
        }
    }
    log_error(error.get());
    return EX_OSERR;
}

static int64_t elapsed_ms(const timespec& start) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t elapsed_ns = (now.tv_sec - start.tv_sec) * 1'000'000'000 + (now.tv_nsec - start.tv_nsec);
    return elapsed_ns / 1'000'000;
}

bool is_over_time(int64_t elapsed_ms, int32_t timeout_s) { return elapsed_ms > int64_t{timeout_s} * 1000; }

/**
 * Fork with nothing of the interruptions in the child: they reach it from here only, since it has no
 * terminal. No signal may come in between, before the child has forgotten what its parent does with it.
 */
static pid_t fork_for_script() {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const pid_t pid = fork();
    if (pid == 0) {
        forget_interruptions();
        // The first is what talking on the bus lets be ignored, the others are the caller's choice for us.
        for (const int number : {SIGPIPE, SIGQUIT, SIGTSTP, SIGTTIN, SIGTTOU})
            std::signal(number, SIG_DFL);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return pid;
}

/** Hand the signal that the command was sent on to the script, and end it when it does not end of that. */
static void interrupt(pid_t pid) {
    std::vector<pid_t> reached;
    signal_tree(pid, kept_signal(), &reached);
    await_death(reached);
    for (const pid_t stayed : reached)  // whatever has become of its parent
        if (is_alive(stayed))
            kill_process_tree(stayed);
}

/** Wait for the child, killing it and its descendants when it takes too long. */
static bool await_child(pid_t pid, const std::string& script, int32_t timeout_s, int* status,
                        VelkctlError** error) {
    timespec start{};
    clock_gettime(CLOCK_MONOTONIC, &start);  // a step of the wall clock must not end a script
    while (true) {
        const pid_t ended = waitpid(pid, status, WNOHANG);
        if (ended == pid)
            return true;
        if (ended == -1) {
            SET_GENERAL_ERROR(error, "Error waiting for child %s: %s", script.c_str(),
                              system_error_text().c_str());
            return false;
        }
        if (interruption_requested()) {
            interrupt(pid);
            return !fail_when_interrupted(error);
        }
        if (is_over_time(elapsed_ms(start), timeout_s)) {
            kill_process_tree(pid);
            velkctl_error_set(error, VELKCTL_ERROR_TIMEOUT,
                              "Execution of %s took more than %d s so the process was forcefully killed.",
                              script.c_str(), timeout_s);
            return false;
        }
        usleep(100'000);
    }
}

static bool judge_exit(int status, const std::string& script, const std::string& path,
                       const ScriptRunOptions& options, VelkctlError** error) {
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : EX_OSERR;
    if (code == EX_OSERR) {
        SET_GENERAL_ERROR(error, "Failed running %s", script.c_str());
        return false;
    }
    if (code == EX_CONFIG && options.abort_on_ex_config) {
        velkctl_error_set(error, VELKCTL_ERROR_INSTALL_ABORTED, "%s",
                          "Fail installation, clear this error and exit successfully.");
        return false;
    }
    if (code != 0 && (options.fail_on_nonzero || (code == EX_NOPERM && options.fail_on_ex_noperm))) {
        SET_GENERAL_ERROR(error, "Script %s failed with exit code: %d", path.c_str(), code);
        return false;
    }
    if (code != 0)
        log_warning("Script %s returned non-zero exit code: %d", path.c_str(), code);
    return true;
}

/**
 * Whether the script is there and may be read and executed by its owner. It lies in the application's own
 * area, where no link is to lead to what is somebody else's.
 */
static bool check_script(const std::string& script, const std::string& directory, VelkctlError** error) {
    ErrorSlot existence;
    if (!path_exists(directory + "/" + script, existence))
        return fail(error, VELKCTL_ERROR_GENERAL,
                    "The manifest lists an install script, '%s', but the file is missing.", script.c_str());
    const std::optional<AreaDirectory> application = open_area(directory, error);
    const std::optional<AreaFile> file =
        application ? open_area_file_itself(*application, script, "Failed to stat", error) : std::nullopt;
    if (!file)
        return false;
    ErrorSlot refused;
    if (check_permissions(file->access_path(), S_IRUSR | S_IXUSR, false, refused))
        return true;
    move_with_known_paths(refused, {{file->access_path(), file->path()}}, error);
    return false;
}

bool run_script_as_user(const std::string& script, const std::string& directory, const std::string& user,
                        ScriptRunOptions options, VelkctlError** error) {
    const std::string path = directory + "/" + script;
    if (!check_script(script, directory, error))
        return false;
    if (fail_when_interrupted(error))
        return false;
    const pid_t pid = fork_for_script();
    if (pid == -1) {
        SET_GENERAL_ERROR(error, "Failed to fork when running %s", script.c_str());
        return false;
    }
    if (pid == 0)
        _exit(run_in_child(path, directory, user, options.exec_directly));
    int status = 0;
    return await_child(pid, script, options.timeout_s, &status, error) &&
           judge_exit(status, script, path, options, error);
}
