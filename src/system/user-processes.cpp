#include "system/user-processes.h"

#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <cassert>
#include <cctype>
#include <sstream>

#include "base/descriptors.h"
#include "base/handles.h"
#include "base/log.h"
#include "base/paths.h"
#include "system/file.h"
#include "system/subprocess.h"

// Two seconds in all.
static constexpr int kTries = 200;
static constexpr useconds_t kPause = 10'000;
/** Real, effective, saved, and that for files. */
static constexpr int kUserIds = 4;

/** What stands behind a key in the text that the kernel has of a process. */
static std::istringstream value_of(const std::string& status, const std::string& key) {
    const size_t found = status.find("\n" + key + ":");
    return std::istringstream(found == std::string::npos ? "" : status.substr(found + key.size() + 2));
}

/** Whether the process runs as the user, in one way or another; one that waits to be reaped does not run. */
static bool runs_as(const std::string& status, uid_t uid) {
    char state = 'Z';
    value_of(status, "State") >> state;
    int threads = 0;
    value_of(status, "Threads") >> threads;
    // A process whose first thread has ended looks the same, and its others run.
    if ((state == 'Z' || state == 'X') && threads <= 1)
        return false;
    std::istringstream ids = value_of(status, "Uid");
    for (int i = 0; i < kUserIds; i++) {
        uid_t id = 0;
        if (ids >> id && id == uid)
            return true;
    }
    return false;
}

int count_processes_of_user(uid_t uid) {
    int count = 0;
    const DirectoryPtr processes(opendir(paths::kProcesses));
    while (const dirent* entry = processes ? readdir(processes.get()) : nullptr) {
        if (!std::isdigit(static_cast<unsigned char>(*entry->d_name)))
            continue;
        ErrorSlot gone;
        const std::string status =
            read_file(std::string(paths::kProcesses) + "/" + entry->d_name + "/status", gone).value_or("");
        count += runs_as(status, uid) ? 1 : 0;
    }
    return count;
}

// One call as the user itself, by which the kernel reaches all of them at once: who looks for them one by one
// is always later than what forks without end.
static void kill_all_of(uid_t uid) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (setresuid(uid, uid, uid) == 0)
            kill(-1, SIGKILL);
        _exit(0);
    }
    int status = 0;
    if (pid > 0)
        (void)wait_for_child(pid, &status);
}

// Of what hosts containers; killed, it would be a failed unit.
static void end_session(uid_t uid) {
    const std::string id = std::to_string(uid);
    ErrorSlot trouble;
    if (is_directory(std::string(paths::kUserRuntimes) + "/" + id))
        run_command(trouble, "systemctl stop --quiet 'user@%s.service'", {id.c_str()});
}

void end_processes_of_user(uid_t uid, const std::string& name) {
    assert(uid != 0);
    int left = count_processes_of_user(uid);
    if (left == 0)
        return;
    end_session(uid);
    for (int tries = 0; left > 0 && tries < kTries; tries++) {
        kill_all_of(uid);
        left = count_processes_of_user(uid);
        if (left > 0)
            usleep(kPause);
    }
    if (left > 0)
        log_warning("%d processes of user %s could not be killed", left, name.c_str());
}
