#pragma once

#include <string>

/*
 * What a command that died leaves where no other command looks for it. The caller is `clean`.
 */

/**
 * End what still works in a directory of a command that died, and wait for that. Only velkctl may have been
 * killed, and what it started goes on. What somebody has on a terminal there, and whoever called velkctl,
 * live on.
 */
void end_work_in(const std::string& directory);

/**
 * Delete the temporary files of commands that died: of whole-file writing in the directories of the system
 * and of every application, and of verification. While another velkctl of root runs, all of them may be
 * its own, and stay. Data whose signature was refused stays for whoever looks into the matter. Failures are
 * warnings.
 */
void sweep_temporary_files();

/** Delete the half-made and half-deleted backups; the operation lock is held. Failures are warnings. */
void sweep_unfinished_backups();
