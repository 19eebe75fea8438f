#include "manifest/allowlist.h"

#include <algorithm>
#include <cassert>

#include "base/log.h"
#include "base/paths.h"
#include "system/file.h"

static constexpr size_t kLongestName = 32;

/** Cut the part up to the first `separator` off the front of `text`; all of it when there is none. */
static std::string_view take_until(std::string_view* text, char separator) {
    const size_t end = std::min(text->find(separator), text->size());
    const std::string_view part = text->substr(0, end);
    text->remove_prefix(std::min(end + 1, text->size()));
    return part;
}

static std::vector<std::string>* list_of_label(AmendList* lists, const std::string& label,
                                               VelkctlError** error) {
    if (label == "DenyUsers")
        return &lists->deny_users;
    if (label == "DenyGroups")
        return &lists->deny_groups;
    SET_GENERAL_ERROR(error, "Failed to parse amend-list: Not allowed label '%s' in list", label.c_str());
    return nullptr;
}

static bool parse_line(std::string_view line, AmendList* lists, VelkctlError** error) {
    // A list written with other line ends would deny a name that nobody has, and so nobody.
    if (line.ends_with('\r'))
        line.remove_suffix(1);
    line = take_until(&line, '#');
    std::vector<std::string>* list = nullptr;
    while (!line.empty()) {
        const std::string token(take_until(&line, ' '));
        if (token.empty())
            continue;
        if (token.size() > kLongestName) {
            SET_GENERAL_ERROR(error, "Failed to parse amend-list: value in list too long");
            return false;
        }
        if (list)
            list->push_back(token);
        else if (!(list = list_of_label(lists, token, error)))
            return false;
    }
    return true;
}

std::optional<AmendList> load_amend_list(const std::string& path, VelkctlError** error) {
    AmendList lists;
    if (!is_regular_file(path))
        return lists;
    const std::optional<std::string> text = read_file(path, error);
    if (!text)
        return std::nullopt;
    std::string_view rest = *text;
    while (!rest.empty()) {
        if (!parse_line(take_until(&rest, '\n'), &lists, error))
            return std::nullopt;
    }
    return lists;
}

bool validate_entry(bool is_group, const AmendList& amend, const char* item) {
    assert(item);
    const std::string_view name = item;
    const std::span<const std::string_view> allowed = is_group ? builtin_groups() : builtin_users();
    const std::vector<std::string>& denied = is_group ? amend.deny_groups : amend.deny_users;
    return std::binary_search(allowed.begin(), allowed.end(), name) &&
           std::find(denied.begin(), denied.end(), name) == denied.end();
}

int check_user_and_group(const AmendList& amend, const std::string& app, const std::string& user,
                         const std::string& group, VelkctlError** error) {
    if (validate_entry(false, amend, user.c_str()) && validate_entry(true, amend, group.c_str()))
        return 0;
    log_warning("%s: User '%s' or Group '%s' is not in Allowlist", app.c_str(), user.c_str(), group.c_str());
    velkctl_error_set(error, VELKCTL_ERROR_NOT_ALLOWLISTED, "%s: User '%s' or Group '%s' is not in Allowlist",
                      app.c_str(), user.c_str(), group.c_str());
    return -1;
}

int check_secondary_groups(const AmendList& amend, const std::string& app,
                           const std::vector<std::string>& groups, VelkctlError** error) {
    for (const std::string& group : groups) {
        if (validate_entry(true, amend, group.c_str()))
            continue;
        log_warning("%s: Secondary Group '%s' is not in Allowlist", app.c_str(), group.c_str());
        velkctl_error_set(error, VELKCTL_ERROR_NOT_ALLOWLISTED,
                          "%s: Secondary Group '%s' is not in Allowlist", app.c_str(), group.c_str());
        return -1;
    }
    return 0;
}

int verify_user_and_group(const std::string& app, const std::string& user, const std::string& group,
                          VelkctlError** error) {
    const std::optional<AmendList> amend = load_amend_list(paths::kAmendList, error);
    return amend ? check_user_and_group(*amend, app, user, group, error) : -1;
}

int verify_secondary_groups(const std::string& app, const std::vector<std::string>& groups,
                            VelkctlError** error) {
    if (groups.empty())
        return 0;
    const std::optional<AmendList> amend = load_amend_list(paths::kAmendList, error);
    return amend ? check_secondary_groups(*amend, app, groups, error) : -1;
}

bool is_allowlisted_group(const std::string& name) {
    ErrorSlot unreported;
    const std::optional<AmendList> amend = load_amend_list(paths::kAmendList, unreported);
    return amend && validate_entry(true, *amend, name.c_str());
}
