#pragma once

#include <sys/types.h>

#include <string>

/** How many processes run as the user: by their real, effective, saved or file-system id. */
[[nodiscard]] int count_processes_of_user(uid_t uid);

/**
 * Kill every process that runs as the user, until none is left: what is killed gets no chance to start
 * another in its place, however fast it does. Gives up after two seconds, with a warning of how many stay.
 *
 * @param uid   not root's (asserted)
 * @param name  of the user, for the messages
 */
void end_processes_of_user(uid_t uid, const std::string& name);
