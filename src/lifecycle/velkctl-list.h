#pragma once

#include <optional>
#include <string>

#include "base/velkctl-error.h"

/*
 * Answers about what is installed, each as the text to be printed. A failure yields no text.
 */

/** What velkctl_list_option tells of one application. */
enum ListOption : int {
    LIST_FRIENDLY_NAME = 0,
    LIST_VERSION = 1,
};

/**
 * All applications with a manifest in the store, as a JSON array of one object each, indented by 4.
 *
 * @param error  that of a manifest that cannot be loaded
 */
[[nodiscard]] std::optional<std::string> velkctl_list_all(VelkctlError** error);

/** The same array for one application. Code 10 for a name that cannot be one, 4 when it is not in the store.
 */
[[nodiscard]] std::optional<std::string> velkctl_list_one(const std::string& app, VelkctlError** error);

/**
 * One bare value of an application, from its manifest or, for the older package form, from its package.conf.
 *
 * @param option  a ListOption; any other value is asserted
 * @param error   code 10 for a name that cannot be one, 4 when it is not in the store, 29 when it has no such
 * value
 */
[[nodiscard]] std::optional<std::string> velkctl_list_option(const std::string& app, int option,
                                                             VelkctlError** error);

/** The names of the applications of the older package form, as a compact JSON array of strings. */
[[nodiscard]] std::optional<std::string> velkctl_list_legacy(VelkctlError** error);

/** A line "SIZE<tab>NAME" for each application of every location, the size as du prints it (in KiB). */
[[nodiscard]] std::optional<std::string> velkctl_list_sizes(VelkctlError** error);

/** The applications that ship with the firmware, as a JSON array of objects with `appName` and `version`. */
[[nodiscard]] std::optional<std::string> velkctl_list_bundled(VelkctlError** error);
