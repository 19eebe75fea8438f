#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <optional>

#include "base/velkctl-error.h"

/*
 * Which existing users an application may run as, and which existing groups it may join: the lists that the
 * firmware carries, less the names that the device's amend list takes back.
 */

/** The names that the amend list denies. */
struct AmendList {
    std::vector<std::string> deny_users;
    std::vector<std::string> deny_groups;

    bool operator==(const AmendList&) const = default;
};

/** The built-in lists, sorted by byte value. */
[[nodiscard]] std::span<const std::string_view> builtin_users();
[[nodiscard]] std::span<const std::string_view> builtin_groups();

/**
 * Read an amend list; without a regular file there both lists are empty.
 *
 * @param error  code 10: that of read_file, "Failed to parse amend-list: value in list too long" or "Failed
 * to parse amend-list: Not allowed label '%s' in list"
 */
[[nodiscard]] std::optional<AmendList> load_amend_list(const std::string& path, VelkctlError** error);

/** Whether a name is on the built-in list of its kind and not denied. `item` is required (asserted). */
[[nodiscard]] bool validate_entry(bool is_group, const AmendList& amend, const char* item);

/**
 * Whether an application may run as an existing user and group; a refusal is a warning too.
 *
 * @param error  code 13 "%s: User '%s' or Group '%s' is not in Allowlist", or that of load_amend_list
 * @return 0, or -1
 */
[[nodiscard]] int verify_user_and_group(const std::string& app, const std::string& user,
                                        const std::string& group, VelkctlError** error);

/**
 * Whether an application may join existing groups; no group at all is fine. The first refusal is a warning
 * too.
 *
 * @param error  code 13 "%s: Secondary Group '%s' is not in Allowlist", or that of load_amend_list
 * @return 0, or -1
 */
[[nodiscard]] int verify_secondary_groups(const std::string& app, const std::vector<std::string>& groups,
                                          VelkctlError** error);

/** The same for one group, without any message; a malformed amend list allows nothing. */
[[nodiscard]] bool is_allowlisted_group(const std::string& name);

/** The two checks against an amend list that is loaded already. */
[[nodiscard]] int check_user_and_group(const AmendList& amend, const std::string& app,
                                       const std::string& user, const std::string& group,
                                       VelkctlError** error);
[[nodiscard]] int check_secondary_groups(const AmendList& amend, const std::string& app,
                                         const std::vector<std::string>& groups, VelkctlError** error);
