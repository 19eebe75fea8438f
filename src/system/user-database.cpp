#include "system/user-database.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>

// getpwnam and its like say "not there" by null with an errno of 0, so errno is cleared before each lookup.

std::optional<UserEntry> find_user(const std::string& name, VelkctlError** error) {
    errno = 0;
    const passwd* entry = getpwnam(name.c_str());
    if (entry)
        return UserEntry{entry->pw_name, entry->pw_uid, entry->pw_gid};
    if (errno == 0)
        SET_GENERAL_ERROR(error, "User %s does not exist", name.c_str());
    else
        SET_GENERAL_ERROR(error, "Failed reading user entry %s: %s", name.c_str(),
                          system_error_text().c_str());
    return std::nullopt;
}

std::optional<std::string> find_group_name(gid_t gid, VelkctlError** error) {
    errno = 0;
    const group* entry = getgrgid(gid);
    if (entry)
        return entry->gr_name;
    const int id = static_cast<int>(gid);
    if (errno == 0)
        SET_GENERAL_ERROR(error, "Group %d does not exist", id);
    else
        SET_GENERAL_ERROR(error, "Failed reading group entry %d: %s", id, system_error_text().c_str());
    return std::nullopt;
}

std::optional<std::string> primary_group_of(const std::string& user, VelkctlError** error) {
    const std::optional<UserEntry> entry = find_user(user, error);
    return entry ? find_group_name(entry->primary_gid, error) : std::nullopt;
}

gid_t find_group_id(const std::string& name, VelkctlError** error) {
    errno = 0;
    const group* entry = getgrnam(name.c_str());
    if (entry)
        return entry->gr_gid;
    if (errno == 0)
        SET_GENERAL_ERROR(error, "Group %s does not exist", name.c_str());
    else
        SET_GENERAL_ERROR(error, "Failed reading group entry %s: %s", name.c_str(),
                          system_error_text().c_str());
    return static_cast<gid_t>(-1);
}

uid_t find_user_id(const std::string& name, VelkctlError** error) {
    const std::optional<UserEntry> entry = find_user(name, error);
    return entry ? entry->uid : static_cast<uid_t>(-1);
}

bool group_exists(const std::string& name) {
    ErrorSlot ignored;
    return find_group_id(name, ignored) != static_cast<gid_t>(-1);
}

std::optional<std::vector<std::string>> supplementary_groups(const std::string& user, VelkctlError** error) {
    const std::optional<UserEntry> entry = find_user(user, error);
    if (!entry)
        return std::nullopt;
    int count = 64;
    std::vector<gid_t> ids(static_cast<size_t>(count));
    // With too little room the call tells how much it needs.
    while (getgrouplist(user.c_str(), entry->primary_gid, ids.data(), &count) < 0)
        ids.resize(static_cast<size_t>(count));
    ids.resize(static_cast<size_t>(count));
    std::vector<std::string> names;
    for (const gid_t id : ids) {
        if (id == entry->primary_gid)
            continue;
        std::optional<std::string> name = find_group_name(id, error);
        if (!name)
            return std::nullopt;
        names.push_back(std::move(*name));
    }
    return names;
}
