#include "base/caller.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "base/paths.h"
#include "base/velkctl-error.h"

/** The caller's choice: a shell takes them from what it starts in the background, nohup the last. */
static constexpr int kCallersChoice[] = {SIGINT, SIGQUIT, SIGTERM, SIGTSTP, SIGTTIN, SIGTTOU, SIGHUP};

/** Archives and scripts leave it to this what others may do with their files. */
static constexpr mode_t kUmask = 022;

static bool has_standard_output = true;

static bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

// Else the next file that is opened, a package for instance, takes the number, and whatever is printed goes
// into it.
static void open_missing_descriptors() {
    has_standard_output = is_open(STDOUT_FILENO);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (!is_open(fd) && open(paths::kNullDevice, fd == STDIN_FILENO ? O_RDONLY : O_WRONLY) != fd)
            std::_Exit(VELKCTL_ERROR_GENERAL);
    // What is started may print into the null device. An answer must not vanish there: a stream for reading
    // refuses it, as the missing descriptor would.
    if (!has_standard_output && !(stdout = std::fopen(paths::kNullDevice, "re")))
        std::_Exit(VELKCTL_ERROR_GENERAL);
}

static void set_handler(int number, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigaction(number, &action, nullptr);
}

static bool is_callers_choice(int number) {
    for (const int choice : kCallersChoice)
        if (number == choice)
            return true;
    return false;
}

// With SIGCHLD ignored nobody learns how a child ended. The others would be ignored by all that is started.
static void reset_signals() {
    sigset_t none;
    sigemptyset(&none);
    for (int number = 1; number < NSIG; number++) {
        struct sigaction action {};
        if (!is_callers_choice(number) && sigaction(number, nullptr, &action) == 0 &&
            action.sa_handler == SIG_IGN)
            set_handler(number, SIG_DFL);
    }
    // Handlers, since whatever is started would inherit that a signal is ignored.
    for (const int number : {SIGPIPE, SIGXFSZ})
        set_handler(number, [](int) {});
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

void put_caller_right() {
    open_missing_descriptors();
    reset_signals();
    umask(kUmask);
}

int finish_standard_output() {
    if (std::fflush(stdout) != 0)
        return errno;
    if (std::ferror(stdout) == 0)
        return 0;
    return has_standard_output ? EIO : EBADF;
}
