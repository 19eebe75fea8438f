#pragma once

/*
 * The device's parameter library: keeps groups of parameters that the web interface reads and writes. The
 * built-in stand-in parses a group file strictly and keeps the loaded groups as files in a directory under
 * /run, so that an operator can see what is loaded.
 */

/** Forget the options of an earlier call; to be called before each of the calls below. */
void legacy_cli_resetOptions();

/**
 * Load the parameter group that the file at `path` defines, replacing a loaded group of the same name.
 *
 * @param failed  set to true when the file cannot be read or is malformed, untouched otherwise; the loaded
 * groups are then as before
 */
void cli_readGroupFile(const char* path, bool* failed);

/**
 * Forget the loaded group `name`. A group that is not loaded counts as deleted.
 *
 * @param failed  set to true when the group could not be deleted, untouched otherwise
 */
void cli_deleteGroup(const char* name, bool* failed);
