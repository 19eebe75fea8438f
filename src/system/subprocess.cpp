#include "system/subprocess.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "base/handles.h"
#include "base/paths.h"
#include "system/regex.h"

/** What a command can say is kept up to here; an archive can make tar say gigabytes. */
static constexpr size_t kOutputLimit = 1 << 20;
static constexpr size_t kOutputBlock = 64 << 10;

int check_shell_arguments(ShellArguments arguments, VelkctlError** error) {
    for (const char* argument : arguments) {
        if (!argument)
            return 0;
        ErrorSlot regex_error;
        if (check_regex(SAFE_ARGUMENT_PATTERN, argument, regex_error))
            continue;
        if (regex_error.is_set())
            regex_error.move_to(error);
        else
            velkctl_error_set(error, VELKCTL_ERROR_GENERAL, "Illegal argument to shell command: %s",
                              argument);
        return -1;
    }
    return 0;
}

int check_tar_flags(const std::string& line, VelkctlError** error) {
    const std::string_view required = "--no-same-permissions --no-same-owner";
    if (!line.starts_with("tar ") || line.find(required) != std::string::npos)
        return 0;
    velkctl_error_set(error, VELKCTL_ERROR_GENERAL, "Illegal flags using tar %s", line.c_str());
    return -1;
}

/** Put the arguments in the places of the %s; a place without an argument stays empty. */
static std::string format_line(std::string_view format, ShellArguments arguments) {
    std::string line;
    const auto* next = arguments.begin();
    while (!format.empty()) {
        const size_t place = format.find("%s");
        line += format.substr(0, place);
        if (place == std::string_view::npos)
            break;
        format.remove_prefix(place + 2);
        if (next != arguments.end() && *next)
            line += *next++;
        else
            next = arguments.end();
    }
    return line;
}

// The errno is whatever the process last left there: a plain failure of the command may name an unrelated
// cause.
static void report_command_failure(const std::string& line, VelkctlError** error) {
    if (errno != 0)
        SET_GENERAL_ERROR(error, "Failed running \"%s\" with the error: %s", line.c_str(),
                          system_error_text().c_str());
    else
        SET_GENERAL_ERROR(error, "Failed running \"%s\"", line.c_str());
}

static int run_line(std::string* output, VelkctlError** error, const char* format, ShellArguments arguments) {
    if (check_shell_arguments(arguments, error) != 0)
        return -1;
    const std::string line = format_line(format, arguments);
    if (check_tar_flags(line, error) != 0)
        return -1;
    ErrorSlot spawn_error;
    const int status = spawn_and_wait({paths::kShell, "-c", line}, output, spawn_error);
    if (spawn_error.is_set())
        spawn_error.move_to(error);
    else if (status != 0)
        report_command_failure(line, error);
    return status;
}

int run_command(VelkctlError** error, const char* format, ShellArguments arguments) {
    return run_line(nullptr, error, format, arguments);
}

int run_command_with_output(std::string* output, VelkctlError** error, const char* format,
                            ShellArguments arguments) {
    output->clear();
    return run_line(output, error, format, arguments);
}

/**
 * How to start a child that gets no descriptor but the standard ones.
 *
 * Left to itself GLib forks to close them in the child, and a fork costs many times what the quick way to
 * start a program does. That way is taken only when there is nothing to close, so the kernel is told to close
 * them. On the quick way GLib ends the process when it cannot open the child's standard input, on the other
 * it reports that.
 */
static GSpawnFlags spawn_flags() {
    const UniqueFd input(open(paths::kNullDevice, O_RDONLY | O_CLOEXEC));
    const bool quick = input && close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) == 0;
    return static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD |
                                    (quick ? G_SPAWN_LEAVE_DESCRIPTORS_OPEN : 0));
}

/** What comes out of a pipe up to its end; only the start of it is kept when there is very much. */
static std::string read_start(int fd) {
    std::string kept;
    std::vector<char> block(kOutputBlock);
    while (true) {
        const ssize_t got = read(fd, block.data(), block.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return kept;
        kept.append(block.data(), std::min(static_cast<size_t>(got), kOutputLimit - kept.size()));
    }
}

int spawn_and_wait(const std::vector<std::string>& arguments, std::string* output, VelkctlError** error) {
    std::vector<char*> vector;
    vector.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments)
        vector.push_back(const_cast<char*>(argument.c_str()));  // GLib's vector type is not const, its use is
    vector.push_back(nullptr);

    GPid pid = 0;
    int output_fd = -1;
    GErrorSlot reason;
    if (!g_spawn_async_with_pipes(nullptr, vector.data(), nullptr, spawn_flags(), nullptr, nullptr, &pid,
                                  nullptr, output ? &output_fd : nullptr, nullptr, reason.out())) {
        SET_GENERAL_ERROR(error, "Failed running \"%s\": %s", arguments.front().c_str(), reason.message());
        return -1;
    }
    const UniqueFd pipe(output_fd);
    if (output)
        *output = read_start(pipe.get());
    int status = 0;
    while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void exec_file(const std::string& path, VelkctlError** error) {
    char* const arguments[] = {const_cast<char*>(path.c_str()), nullptr};
    execve(path.c_str(), arguments, environ);
    report_command_failure(path, error);
}
