#pragma once

#include <cstdint>
#include <string>

#include "base/velkctl-error.h"

/**
 * Read a boolean from a key file.
 *
 * @param fallback  the result when there is no file (an info line says so) or the file cannot be loaded, both
 * without an error; and, together with an error, when the key is missing or not a boolean
 * @param error     required (asserted); code 10 "Failed reading key %s, group %s from %s: %s", with a warning
 */
bool get_keyfile_bool(const std::string& file, const char* group, const char* key, bool fallback,
                      VelkctlError** error);

/**
 * Read an integer from a key file into `value`, untouched on failure.
 *
 * @param error  code 10 "Failed reading key %s, group %s from %s: %s" for any failure, a missing file
 * included
 */
[[nodiscard]] bool get_keyfile_int(int32_t* value, const std::string& file, const char* group,
                                   const char* key, VelkctlError** error);

/**
 * The text of the current key file with every key of `group` in the saved file set over it: saved values win,
 * new keys keep their values, keys that only the saved file has are added. Values are taken raw, without
 * unescaping.
 *
 * @param error  code 10 "Failed loading keys from: %s Error: %s" when a file cannot be loaded or lacks the
 * group; "Failed parsing merged contents from %s and %s. Error: %s"
 * @return the merged text, empty on failure
 */
[[nodiscard]] std::string merge_key_files(const std::string& group, const std::string& current,
                                          const std::string& saved, VelkctlError** error);
