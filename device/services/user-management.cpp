#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "bus.h"

namespace orvo {
namespace {

constexpr const char* service = "com.orvo.UserManagement1";
constexpr const char* path = "/com/orvo/UserManagement1";
constexpr const char* rights_directory = "/var/lib/orvo/api-access";
constexpr gsize longest_user_name = 32;  // what the system's own tools accept
constexpr const char* interface = R"(
<node>
  <interface name="com.orvo.UserManagement1.Application">
    <method name="AddUser">
      <arg name="platform" type="s" direction="in"/>
      <arg name="name" type="s" direction="in"/>
      <arg name="groups" type="as" direction="in"/>
    </method>
    <method name="ModifyUser">
      <arg name="platform" type="s" direction="in"/>
      <arg name="name" type="s" direction="in"/>
      <arg name="groups" type="as" direction="in"/>
    </method>
    <method name="RemoveUser">
      <arg name="platform" type="s" direction="in"/>
      <arg name="name" type="s" direction="in"/>
    </method>
    <method name="SetAPIAccessRights">
      <arg name="platform" type="s" direction="in"/>
      <arg name="name" type="s" direction="in"/>
      <arg name="methods" type="as" direction="in"/>
    </method>
  </interface>
</node>)";

std::string joined(const std::vector<std::string>& words, char separator) {
    std::string text;
    for (const auto& word : words) {
        text += (text.empty() ? "" : std::string(1, separator)) + word;
    }
    return text;
}

/** Run a program of the system, without a shell; its failure is the last line it said. */
Outcome run(const std::vector<std::string>& command) {
    std::vector<char*> argv;
    for (const auto& word : command) {
        argv.push_back(const_cast<char*>(word.c_str()));  // the program gets a copy
    }
    argv.push_back(nullptr);
    char* said = nullptr;
    GError* error = nullptr;
    int status = 0;
    const auto flags = static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_STDOUT_TO_DEV_NULL);
    const bool started = g_spawn_sync("/", argv.data(), nullptr, flags, nullptr, nullptr, nullptr, &said,
                                      &status, &error) != FALSE;
    Outcome outcome;
    if (!started || g_spawn_check_wait_status(status, &error) == FALSE) {
        const std::string text = said != nullptr && *said != '\0' ? g_strchomp(said) : error->message;
        outcome = Failure{"Failed", text};
    }
    g_free(said);
    g_clear_error(&error);
    return outcome;
}

bool is_word(const std::string& text, const char* first, const char* rest) {
    return !text.empty() && std::strchr(first, text[0]) != nullptr && text[0] != '\0' &&
           text.find_first_not_of(rest) == std::string::npos;
}

constexpr const char* lower = "abcdefghijklmnopqrstuvwxyz";
constexpr const char* rest_of_user = "abcdefghijklmnopqrstuvwxyz0123456789_-";
constexpr const char* first_of_group = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";
constexpr const char* rest_of_group = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.-";

bool user_exists(const std::string& user) { return getpwnam(user.c_str()) != nullptr; }

Outcome check_names(const std::string& platform, const std::string& name) {
    if (platform != "velk") {
        return Failure{"UnknownPlatform", "No such platform: '" + platform + "'"};
    }
    if (!is_word(name, lower, rest_of_user)) {
        return Failure{"InvalidName", "Not the name of an application: '" + name + "'"};
    }
    if (platform.size() + 1 + name.size() > longest_user_name) {
        return Failure{"InvalidName", "Name too long for a user: '" + name + "'"};
    }
    return std::nullopt;
}

Outcome check_groups(const std::vector<std::string>& groups) {
    for (const auto& group : groups) {
        if (!is_word(group, first_of_group, rest_of_group) || getgrnam(group.c_str()) == nullptr) {
            return Failure{"UnknownGroup", "No such group: '" + group + "'"};
        }
    }
    return std::nullopt;
}

std::string rights_file(const std::string& user) { return std::string(rights_directory) + "/" + user; }

/** One user with a group of its own name; the groups are what the caller wants beside it. */
Outcome add_user(const std::string& user, const std::vector<std::string>& groups) {
    if (user_exists(user)) {
        return Failure{"UserExists", "User exists: '" + user + "'"};
    }
    if (auto failure = check_groups(groups)) {
        return failure;
    }
    return run({"useradd", "--system", "--user-group", "--no-create-home", "--home-dir", "/nonexistent",
                "--shell", "/usr/sbin/nologin", "--comment", "Application", "--groups", joined(groups, ','),
                "--", user});
}

Outcome modify_user(const std::string& user, const std::vector<std::string>& groups) {
    if (auto failure = check_groups(groups)) {
        return failure;
    }
    return run({"usermod", "--groups", joined(groups, ','), "--", user});
}

/** End what the system itself runs for the user: the manager of its session, if it has one. */
void end_session(const std::string& user) {
    const passwd* entry = getpwnam(user.c_str());
    if (entry == nullptr) {
        return;
    }
    const std::string uid = std::to_string(entry->pw_uid);
    if (access(("/run/user/" + uid).c_str(), F_OK) == 0) {
        run({"systemctl", "stop", "user@" + uid + ".service"});
    }
}

Outcome remove_user(const std::string& user) {
    end_session(user);
    if (auto failure = run({"userdel", "--", user})) {
        return failure;
    }
    if (unlink(rights_file(user).c_str()) != 0 && errno != ENOENT) {
        return Failure{"Failed", rights_file(user) + ": " + std::strerror(errno)};
    }
    return std::nullopt;
}

/** The user's granted methods replace those granted before; one a line, readable by all. */
Outcome set_rights(const std::string& user, const std::vector<std::string>& methods) {
    const auto bad = [](const std::string& method) {
        return method.empty() || method.find('\n') != std::string::npos;
    };
    if (std::any_of(methods.begin(), methods.end(), bad)) {
        return Failure{"InvalidMethod", "Not the name of a method: an empty text or one of several lines"};
    }
    const std::string text = methods.empty() ? "" : joined(methods, '\n') + "\n";
    GError* error = nullptr;
    if (g_mkdir_with_parents(rights_directory, 0755) != 0 ||
        g_file_set_contents_full(rights_file(user).c_str(), text.c_str(), static_cast<gssize>(text.size()),
                                 G_FILE_SET_CONTENTS_CONSISTENT, 0644, &error) == FALSE) {
        const Failure failure{"Failed", error != nullptr ? error->message : std::strerror(errno)};
        g_clear_error(&error);
        return failure;
    }
    return std::nullopt;
}

Outcome serve(const std::string& method, GVariant* arguments) {
    if (auto failure = wanted_failure(method)) {
        return failure;
    }
    const std::string platform = string_at(arguments, 0);
    const std::string name = string_at(arguments, 1);
    if (auto failure = check_names(platform, name)) {
        return failure;
    }
    const std::string user = platform + "-" + name;
    if (method == "AddUser") {
        return add_user(user, strings_at(arguments, 2));
    }
    if (!user_exists(user)) {
        return Failure{"UnknownUser", "No such user: '" + user + "'"};
    }
    if (method == "ModifyUser") {
        return modify_user(user, strings_at(arguments, 2));
    }
    if (method == "RemoveUser") {
        return remove_user(user);
    }
    return set_rights(user, strings_at(arguments, 2));
}

void on_call(GDBusConnection*, const char*, const char*, const char*, const char* method, GVariant* arguments,
             GDBusMethodInvocation* call, gpointer) {
    if (const auto failure = serve(method, arguments)) {
        answer_failure(call, service, *failure);
        return;
    }
    g_dbus_method_invocation_return_value(call, nullptr);
}

constexpr GDBusInterfaceVTable methods = {on_call, nullptr, nullptr, {}};

}  // namespace

void publish_user_management(GDBusConnection* bus) { publish(bus, path, interface, methods); }

}  // namespace orvo
