#include "base/interruption.h"

#include <signal.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>

#include "base/log.h"

static constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
/** When a second signal is somebody's who will not wait. Sooner it is the first one's other half: several are
 * sent at once by who ends a whole group of processes. */
static constexpr int64_t kImpatientFrom = 200;
static constexpr int64_t kImpatientTo = 1000;
/** Of a program that ends of a signal after having caught it, by the shells' rule. */
static constexpr int kEndedBySignal = 128;

// Of the handler, which any thread of a library may run.
static std::atomic<int> kept = 0;
static std::atomic<bool> has_failed_a_step = false;
static std::atomic<int> uninterrupted_levels = 0;
static std::atomic<pid_t> child_at_work = 0;
static std::atomic<int64_t> last_time = 0;

static bool is_shielded() { return has_failed_a_step || uninterrupted_levels > 0; }

static int64_t milliseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

static void end_by(int number) {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigaction(number, &action, nullptr);
    raise(number);
}

// Not the signal itself: some of what is started does not listen to all of them, and to this one all of it
// does.
static void ask_child_to_end() {
    const pid_t child = child_at_work;
    if (child > 0 && interruption_requested())
        kill(child, SIGTERM);
}

static void keep(int number) {
    const int saved_errno = errno;
    const int64_t now = milliseconds();
    const int64_t since = now - last_time.exchange(now);
    // Nobody presses a key for SIGHUP: where a terminal goes away, several processes tell of it.
    if (kept != 0 && number != SIGHUP && since >= kImpatientFrom && since <= kImpatientTo)
        end_by(number);
    int none = 0;
    kept.compare_exchange_strong(none, number);
    ask_child_to_end();
    errno = saved_errno;
}

static bool is_ignored(int number) {
    struct sigaction action {};
    return sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

static void handle_all(void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    for (const int number : kSignals)
        if (!is_ignored(number))
            sigaction(number, &action, nullptr);
}

void hold_interruptions() { handle_all(keep); }

bool interruption_requested() { return kept != 0 && !is_shielded(); }

int kept_signal() { return kept; }

bool fail_when_interrupted(VelkctlError** error) {
    if (!interruption_requested())
        return false;
    has_failed_a_step = true;
    if (error)
        velkctl_error_set(error, VELKCTL_ERROR_GENERAL, "Interrupted by signal %d", kept.load());
    else
        log_warning("Interrupted by signal %d", kept.load());
    return true;
}

void pass_on_to(pid_t child) {
    child_at_work = child;
    ask_child_to_end();  // for one that came while the child was being started
}

void stop_passing_on() { child_at_work = 0; }

bool fail_when_child_interrupted(int wait_status, VelkctlError** error) {
    const bool was_ended = WIFSIGNALED(wait_status) || WEXITSTATUS(wait_status) >= kEndedBySignal;
    return was_ended && fail_when_interrupted(error);
}

void forget_interruptions() {
    kept = 0;
    has_failed_a_step = false;
    uninterrupted_levels = 0;
    child_at_work = 0;
    struct sigaction action {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    for (const int number : kSignals)
        sigaction(number, &action, nullptr);
}

void carry_out_interruption() {
    if (kept != 0)
        end_by(kept);
}

Uninterrupted::Uninterrupted() { uninterrupted_levels++; }
Uninterrupted::~Uninterrupted() { uninterrupted_levels--; }

// They are blocked, since GLib makes what is ignored default in what it starts.
StartShielded::StartShielded() {
    sigset_t shielded;
    sigemptyset(&shielded);
    for (const int number : kSignals) {
        if (!is_shielded() && !is_ignored(number))
            continue;
        sigaddset(&shielded, number);
        shields_ = true;
    }
    if (shields_)
        pthread_sigmask(SIG_BLOCK, &shielded, &before_);
}

StartShielded::~StartShielded() {
    if (shields_)
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}
