#pragma once

#include <glib.h>
#include <sys/types.h>

#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "base/handles.h"
#include "base/velkctl-error.h"

/** What a string argument of a shell command must match: it can then neither leave its quotes nor its
 * directory. */
inline constexpr const char* SAFE_ARGUMENT_PATTERN = R"(^(?!.*?\.\.)[\/\w\.+-]+$)";

/** The string arguments of a shell command, borrowed; a null ends the list. */
using ShellArguments = std::initializer_list<const char*>;

/**
 * Run a shell command line through `/bin/sh -c`, its output going where the process's own goes.
 *
 * @param format     the line, with a %s for each argument; quoting and fixed options belong here, it is not
 * checked
 * @param arguments  strings for the %s in order, each of which must match SAFE_ARGUMENT_PATTERN; a null ends
 * the list
 * @param error      code 10: "Illegal argument to shell command: %s" or "Illegal flags using tar %s", with
 * nothing run; "Interrupted by signal %d", likewise, when the command is asked to end; "Failed running ..."
 * for every result other than 0. The text of the process's last errno is added whatever it came from.
 * @return the shell's exit status 0..255, or -1 when nothing ran, a signal ended it, or nobody knows its end
 */
int run_command(VelkctlError** error, const char* format, ShellArguments arguments = {});

/** The same with standard output captured into `output`, which is emptied first, as spawn_and_wait does. */
int run_command_with_output(std::string* output, VelkctlError** error, const char* format,
                            ShellArguments arguments = {});

/**
 * Run a program found on the PATH and wait for it; standard error is inherited. When the command is asked to
 * end in the meantime, so is the program.
 *
 * @param output  receives the first MiB of standard output and its last 64 KiB, in English and plain units;
 *                null lets the program inherit it
 * @param error   code 10 "Failed running \"%s\": %s" when it could not be started, or when it cannot be known
 *                how it ended or what it said; an exit status sets nothing
 * @return its exit status, or -1 when a signal ended it or with an error
 */
int spawn_and_wait(const std::vector<std::string>& arguments, std::string* output, VelkctlError** error);

/** A program at work: its process, and where its standard output can be read when it was asked for. */
struct StartedProgram {
    pid_t pid;
    UniqueFd output;
};

/**
 * Start a program found on the PATH, for wait_for_child; when the command is asked to end, it is, too.
 *
 * @param has_output  whether its standard output is to be read, in English and plain units; else it inherits
 * it
 * @param flags       more of GLib's
 * @param reason      why it could not be started
 */
[[nodiscard]] std::optional<StartedProgram> start_program(const std::vector<std::string>& arguments,
                                                          bool has_output, GSpawnFlags flags,
                                                          GErrorSlot* reason);

/** Replace the process by the program at `path`, its only argument; returns only on failure, code 10. */
void exec_file(const std::string& path, VelkctlError** error);

/** 0 when all strings up to the first null match SAFE_ARGUMENT_PATTERN, else -1 and code 10 with the first
 * bad one. */
int check_shell_arguments(ShellArguments arguments, VelkctlError** error);

/**
 * Refuse a line that begins with "tar " and would keep an archive's owners and permissions: 0, or -1 and code
 * 10 "Illegal flags using tar %s". A line that only mentions tar further on is not looked at.
 */
int check_tar_flags(const std::string& line, VelkctlError** error);
