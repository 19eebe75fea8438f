#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "base/velkctl-error.h"

/** What the program needs of a password entry. */
struct UserEntry {
    std::string name;
    uid_t uid;
    gid_t primary_gid;
};

/*
 * Lookups in the system's user and group databases. "Not there" and "the lookup failed" are told apart; both
 * are code 10: "User %s does not exist" or "Failed reading user entry %s: %s", and the same with Group and
 * group entry.
 */

[[nodiscard]] std::optional<UserEntry> find_user(const std::string& name, VelkctlError** error);
[[nodiscard]] std::optional<std::string> find_group_name(gid_t gid, VelkctlError** error);
/** The name of the user's primary group. */
[[nodiscard]] std::optional<std::string> primary_group_of(const std::string& user, VelkctlError** error);
/** The group id, or -1. */
[[nodiscard]] gid_t find_group_id(const std::string& name, VelkctlError** error);
/** The user id, or -1. */
[[nodiscard]] uid_t find_user_id(const std::string& name, VelkctlError** error);
/** Whether the group database knows the name; a failed lookup counts as no. */
[[nodiscard]] bool group_exists(const std::string& name);
/** The names of the groups that the user is in beside its primary one, in no certain order. */
[[nodiscard]] std::optional<std::vector<std::string>> supplementary_groups(const std::string& user,
                                                                           VelkctlError** error);
