#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "base/velkctl-error.h"

/** How an application's script is run and what its exit status means. */
struct ScriptRunOptions {
    bool exec_directly;       ///< start the file itself instead of through the shell
    bool abort_on_ex_config;  ///< exit status 78 asks for the installation to be abandoned
    bool fail_on_ex_noperm;   ///< exit status 77 is a failure
    bool fail_on_nonzero;     ///< any other non-zero exit status is a failure; otherwise only a warning
    int32_t timeout_s;        ///< whole seconds
};

/**
 * Run an application's own script as `user`, with that user's groups and nothing left of root, in the
 * application's directory. It has a session of its own, without a terminal, and reads from the null device.
 * When it takes longer than the time-out, it and all its descendants are killed. When the command is asked to
 * end, they are sent the same signal, and are killed a second later.
 *
 * @param script     path relative to the directory, as the manifest gives it
 * @param directory  the application directory
 * @param error      code 1 "Path %s is outside of application directory %s"; code 10 when the file is
 * missing, is a link or behind one, may not be read and executed by its owner, cannot be run as the user
 * (exit status 71 means that, whoever exits with it), is ended by a signal, or fails by the options' rules;
 * code 15 on the time-out; code 35 when it asked for the installation to be abandoned. What the script wrote
 * stays.
 */
[[nodiscard]] bool run_script_as_user(const std::string& script, const std::string& directory,
                                      const std::string& user, ScriptRunOptions options,
                                      VelkctlError** error);

/** Whether a script that has run for so long has had more than its time; one that took exactly it has not. */
bool is_over_time(int64_t elapsed_ms, int32_t timeout_s);

/**
 * Kill a process and all its descendants, descendants first, so that none is re-parented out of sight, and
 * give them up to a second to be gone. None is reaped here.
 */
void kill_process_tree(pid_t pid);

/** The ids of the children of all threads of `pid`, ended by a zero; only the zero for a process that is
 * gone. */
std::vector<int32_t> get_child_pids(pid_t pid);

/** The numbers in a space-separated text, ended by a zero; zeros in the text are left out. Null is asserted.
 */
std::vector<int32_t> split_string_and_decode_pids(const char* space_separated_pids);
