#pragma once

#include <jansson.h>

#include <optional>
#include <string>
#include <vector>

#include "base/velkctl-error.h"
#include "integration/parameter-text.h"

/**
 * The manifest's `paramConfig`, in its order; empty when there is none.
 *
 * @param error  code 29 for an entry that breaks a rule
 */
[[nodiscard]] std::optional<std::vector<Parameter>> read_parameters(const json_t* manifest,
                                                                    VelkctlError** error);

/**
 * Write the application's parameter files and bus policy, link them where the parameter service looks, and
 * load the group. On the first card nothing is done, since parameters would be gone with the card. What has
 * one of the names there already and is not the application's own stays.
 *
 * @param directory      the application directory
 * @param location_kind  the store location's kind
 * @param error          code 34 when a first-card application declares parameters, code 29 for a broken rule,
 * code 10 otherwise. Files already written stay, for teardown.
 */
[[nodiscard]] bool setup_parameters(const json_t* manifest, const std::string& directory,
                                    const std::string& app, const std::string& user, const std::string& group,
                                    uint32_t location_kind, VelkctlError** error);

/**
 * Forget the group and remove what setup_parameters wrote; what has a name of it and is another's stays.
 *
 * @param error  code 10 "Failed deleting the param group: %s", which ends it; otherwise each removal is
 * tried, and the first failure is told
 */
[[nodiscard]] bool teardown_parameters(const std::string& directory, const std::string& app,
                                       VelkctlError** error);

/**
 * Load the application's group into the parameter service again, if it has one. The definition is the
 * application's file: it is read without waiting for anything, and nothing of another group is loaded.
 *
 * @param error  code 10 "Failed loading parameter configuration file: %s"
 */
[[nodiscard]] bool reload_parameters(const std::string& app, VelkctlError** error);
