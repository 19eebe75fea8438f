#include "system/subprocess.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "base/descriptors.h"
#include "base/handles.h"
#include "base/interruption.h"
#include "base/paths.h"
#include "system/regex.h"

/** So much of what a command says is kept, of its start and its end; an archive can make tar say gigabytes,
 * and the reason why it ended stands last. */
static constexpr size_t kOutputStart = 1 << 20;
static constexpr size_t kOutputEnd = 64 << 10;
/** What would change the numbers that programs print. */
static constexpr const char* kUnitVariables[] = {"BLOCKSIZE", "BLOCK_SIZE", "DU_BLOCK_SIZE",
                                                 "POSIXLY_CORRECT"};

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
    if (check_tar_flags(line, error) != 0 || fail_when_interrupted(error))
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

/** The environment for a program whose words are read by a program. */
static GStringVectorPtr environment_for_reading() {
    GStringVectorPtr environment(g_environ_setenv(g_get_environ(), "LC_ALL", "C", TRUE));
    for (const char* name : kUnitVariables)
        environment.reset(g_environ_unsetenv(environment.release(), name));
    return environment;
}

std::optional<StartedProgram> start_program(const std::vector<std::string>& arguments, bool has_output,
                                            GSpawnFlags flags, GErrorSlot* reason) {
    std::vector<char*> vector;
    vector.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments)
        vector.push_back(const_cast<char*>(argument.c_str()));  // GLib's vector type is not const, its use is
    vector.push_back(nullptr);
    const GStringVectorPtr environment = has_output ? environment_for_reading() : nullptr;
    GPid pid = 0;
    int output = -1;
    const StartShielded shield;
    if (!g_spawn_async_with_pipes(nullptr, vector.data(), environment.get(),
                                  static_cast<GSpawnFlags>(spawn_flags() | flags), nullptr, nullptr, &pid,
                                  nullptr, has_output ? &output : nullptr, nullptr, reason->out()))
        return std::nullopt;
    pass_on_to(pid);
    return StartedProgram{pid, UniqueFd(output)};
}

int spawn_and_wait(const std::vector<std::string>& arguments, std::string* output, VelkctlError** error) {
    GErrorSlot reason;
    const std::optional<StartedProgram> program =
        start_program(arguments, output != nullptr, G_SPAWN_DEFAULT, &reason);
    if (!program) {
        SET_GENERAL_ERROR(error, "Failed running \"%s\": %s", arguments.front().c_str(), reason.message());
        return -1;
    }
    const bool is_read = !output || read_ends(program->output.get(), output, kOutputStart, kOutputEnd);
    const int read_errno = errno;
    int status = 0;
    const bool is_known = wait_for_child(program->pid, &status);
    // Whoever cannot tell how it ended must not say that all went well.
    if (!is_known || !is_read) {
        SET_GENERAL_ERROR(error, "Failed running \"%s\": %s", arguments.front().c_str(),
                          system_error_text(is_known ? read_errno : errno).c_str());
        return -1;
    }
    if (fail_when_child_interrupted(status, error))
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void exec_file(const std::string& path, VelkctlError** error) {
    char* const arguments[] = {const_cast<char*>(path.c_str()), nullptr};
    execve(path.c_str(), arguments, environ);
    report_command_failure(path, error);
}
