#pragma once

#include <signal.h>
#include <sys/types.h>

#include "base/velkctl-error.h"

/*
 * The signals by which people and the system ask a command to end: SIGINT, SIGTERM and SIGHUP.
 *
 * A command that changes something does not end where it stands. The first signal is kept, what runs for the
 * command gets to know of it, and the step under way, or else the next one that can, fails; that takes back
 * what was done, as every failure does. What takes back is left alone, and only at its very end the command
 * is ended by the signal. A second signal within a second, of somebody who will not wait for that, ends it at
 * once. A signal that the caller ignored stays ignored.
 */

/** Begin to keep the signals, for the rest of the process. */
void hold_interruptions();

/** Whether there is one that no step has failed of yet, and that may be heeded. For a step that takes long.
 */
[[nodiscard]] bool interruption_requested();

/**
 * Let the step fail when there is one that no step has failed of yet: once, so that what takes back is left
 * alone.
 *
 * @param error  code 10 "Interrupted by signal %d"; a warning with a null slot
 * @return whether it is to fail
 */
[[nodiscard]] bool fail_when_interrupted(VelkctlError** error);

/** The signal that was kept, 0 for none. */
[[nodiscard]] int kept_signal();

/** From now on the child is asked to end, too. */
void pass_on_to(pid_t child);
/** No child is any more. */
void stop_passing_on();
/** The same for a step that was a child, which ended so: when it ended of being asked to. */
[[nodiscard]] bool fail_when_child_interrupted(int wait_status, VelkctlError** error);

/** In a forked child: to have kept nothing, and to stay when asked to end, until another program takes over.
 */
void forget_interruptions();

/** End the process by the signal that was kept, if there is one: the last thing in it. */
void carry_out_interruption();

/** While one lives, no step fails of an interruption: for what takes back, and what must be finished. */
class Uninterrupted {
  public:
    Uninterrupted();
    Uninterrupted(const Uninterrupted&) = delete;
    Uninterrupted& operator=(const Uninterrupted&) = delete;
    ~Uninterrupted();
};

/**
 * While one lives, what is started does not notice the signals that it is not to end of: all of them while
 * something is taken back, which a terminal or a service manager would else reach directly, and those that
 * the caller ignored.
 */
class StartShielded {
  public:
    StartShielded();
    StartShielded(const StartShielded&) = delete;
    StartShielded& operator=(const StartShielded&) = delete;
    ~StartShielded();

  private:
    bool shields_ = false;
    sigset_t before_{};
};
