#include "integration/containers.h"

#include "base/paths.h"
#include "manifest/app-user.h"
#include "system/file.h"
#include "system/user-database.h"

static std::string tool_path(const std::string& directory) { return directory + "/docker"; }
static std::string compose_tool_path(const std::string& directory) { return directory + "/docker-compose"; }

bool holds_container_tools(const std::string& directory) {
    return is_directory_or_regular_file(tool_path(directory)) &&
           is_directory_or_regular_file(compose_tool_path(directory));
}

static bool take_over_link(const std::string& link, const std::string& target, VelkctlError** error) {
    return make_dirs(dir_name(link).value_or(""), error) && remove_file(link, error) &&
           make_symlink(target, link, error);
}

bool create_container_links(const std::string& directory, const std::string& user, VelkctlError** error) {
    return find_user(user, error) && take_over_link(paths::kContainerTool, tool_path(directory), error) &&
           take_over_link(paths::kContainerComposeTool, compose_tool_path(directory), error);
}

static bool remove_own_link(const std::string& link, const std::string& target, VelkctlError** error) {
    return !is_symlink_target_equal_to(link, target) || remove_file(link, error);
}

/** The link is made anew at each start, so one that is not known for the application's own stays. */
static bool remove_own_socket_link(const std::string& app, VelkctlError** error) {
    ErrorSlot unknown;
    const std::optional<std::string> user = application_username(app.c_str(), unknown);
    const uid_t uid = user ? find_user_id(*user, unknown) : static_cast<uid_t>(-1);
    return uid == static_cast<uid_t>(-1) ||
           remove_own_link(paths::kContainerSocket, container_socket(uid), error);
}

bool remove_container_links(const std::string& app, const std::string& directory, VelkctlError** error) {
    return remove_own_link(paths::kContainerTool, tool_path(directory), error) &&
           remove_own_link(paths::kContainerComposeTool, compose_tool_path(directory), error) &&
           remove_own_socket_link(app, error);
}

std::string container_socket(uid_t uid) {
    return std::string(paths::kUserRuntimes) + "/" + std::to_string(uid) + "/docker.sock";
}
