#pragma once

#include <initializer_list>
#include <string>
#include <vector>

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
 * nothing run; "Failed running ..." for every result other than 0. The text of the process's last errno is
 *                   added whatever it came from.
 * @return the shell's exit status 0..255, or -1 when nothing ran or a signal ended it
 */
int run_command(VelkctlError** error, const char* format, ShellArguments arguments = {});

/** The same with standard output captured into `output`, which is emptied first; its first MiB. */
int run_command_with_output(std::string* output, VelkctlError** error, const char* format,
                            ShellArguments arguments = {});

/**
 * Run a program found on the PATH and wait for it; standard error is inherited.
 *
 * @param output  receives the first MiB of standard output; null lets the program inherit it
 * @param error   code 10 "Failed running \"%s\": %s" when it could not be started; an exit status sets
 * nothing
 * @return its exit status, or -1 when it could not be started or a signal ended it
 */
int spawn_and_wait(const std::vector<std::string>& arguments, std::string* output, VelkctlError** error);

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
