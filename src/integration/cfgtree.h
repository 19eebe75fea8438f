#pragma once

#include <jansson.h>

#include <optional>
#include <string>
#include <vector>

#include "base/velkctl-error.h"

/** One parameter that an application declares. */
struct Parameter {
    std::string name;
    std::string default_value;
    std::string type;
};

/** The parameter group of an application: its name with the first letter in upper case. */
[[nodiscard]] std::string parameter_group_name(const std::string& app);

/**
 * The manifest's `paramConfig`, in its order; empty when there is none.
 *
 * @param error  code 29 for an entry that breaks a rule
 */
[[nodiscard]] std::optional<std::vector<Parameter>> read_parameters(const json_t* manifest,
                                                                    VelkctlError** error);

/** The file of current values. */
[[nodiscard]] std::string parameter_values_text(const std::string& app,
                                                const std::vector<Parameter>& parameters);
/** The file that defines the group; `group` is the application's Linux group. */
[[nodiscard]] std::string parameter_group_text(const std::string& app, const std::string& group,
                                               const std::vector<Parameter>& parameters);

/**
 * Write the application's parameter files and bus policy, link them where the parameter service looks, and
 * load the group. On the first card nothing is done, since parameters would be gone with the card.
 *
 * @param directory      the application directory
 * @param location_kind  the store location's kind
 * @param error          code 34 when a first-card application declares parameters, code 29 for a broken rule,
 * code 10 otherwise. Files already written stay, for teardown.
 */
[[nodiscard]] bool setup_parameters(const json_t* manifest, const std::string& directory,
                                    const std::string& app, const std::string& user, const std::string& group,
                                    uint32_t location_kind, VelkctlError** error);

/** Forget the group and remove what setup_parameters wrote. Stops at the first failure, code 10. */
[[nodiscard]] bool teardown_parameters(const std::string& directory, const std::string& app,
                                       VelkctlError** error);

/**
 * Load the application's group into the parameter service again, if it has one.
 *
 * @param error  code 10 "Failed loading parameter configuration file: %s"
 */
[[nodiscard]] bool reload_parameters(const std::string& app, VelkctlError** error);
