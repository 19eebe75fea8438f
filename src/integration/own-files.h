#pragma once

#include <functional>
#include <initializer_list>
#include <string>

#include "base/velkctl-error.h"

/*
 * What setup leaves outside an application's area is named after the application, and the image may have a
 * file of that name as well. So each of these files tells by itself whose it is: a link by its target, a
 * generated text by how it begins. What does not is another's: setup does not replace it, and teardown, which
 * also has to work without a setup before it, does not remove it.
 */

/** The first 4096 characters of a regular file, links not followed; nothing for anything else. */
[[nodiscard]] std::string beginning_of(const std::string& path);

/**
 * Whether a file may be written at `path`: it is the application's own, or there is none.
 *
 * @param is_own  whether what lies there has shown that it is the application's
 * @param error   code 10 "Failed writing to file: %s: %s"
 */
[[nodiscard]] bool check_is_own(const std::string& path, bool is_own, VelkctlError** error);

/** Remove the file at `path` if it is the application's own. A directory is told as what cannot be removed:
 * "Failed removing %s: %s", code 10. */
[[nodiscard]] bool remove_own_file(const std::string& path, bool is_own, VelkctlError** error);

/** The same for a link, which is the application's own if it has exactly this target. */
[[nodiscard]] bool remove_own_link(const std::string& link, const std::string& target, VelkctlError** error);

/** Do each of the steps, whatever becomes of the others. The error is that of the first that failed. */
[[nodiscard]] bool try_each(std::initializer_list<std::function<bool(VelkctlError**)>> steps,
                            VelkctlError** error);
