#include "integration/dbus-policy.h"

#include <string_view>

#include "base/paths.h"
#include "integration/own-files.h"
#include "system/file.h"

/** Text inside a comment, where two hyphens in a row may not stand. */
static std::string comment(std::string text) {
    for (size_t place = text.find("--"); place != std::string::npos; place = text.find("--", place + 1))
        text.insert(place + 1, " ");
    return text;
}

std::string bus_policy_path(const std::string& app) {
    return std::string(paths::kBusPolicies) + "/" + app + ".conf";
}

/** The beginning of every policy that is made here, up to the text of its comment. */
static constexpr std::string_view COMMENT_BEGIN =
    "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN\" "
    "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
    "<busconfig>\n"
    "  <!-- Only root or user ";

/** The rest of the comment, after the user's name. */
static std::string comment_end(const std::string& app) {
    return comment(" can own the " + app + " service.") + " -->\n";
}

std::string bus_policy_text(const std::string& app, const std::string& user) {
    const std::string service = "\"com.orvo.Param." + app + "\"/>\n";
    const std::string own = "    <allow own=" + service;
    const std::string talk =
        "    <allow send_destination=" + service + "    <allow receive_sender=" + service;
    return std::string(COMMENT_BEGIN) + comment(user) + comment_end(app) + "  <policy user=\"" + user +
           "\">\n" + own + talk + "  </policy>\n  <policy user=\"root\">\n" + own + talk +
           "  </policy>\n  <policy context=\"default\">\n" + talk + "  </policy>\n</busconfig>\n";
}

/** Whether the text is a policy of the application, for whatever user: its comment says so. */
static bool is_policy_of(const std::string& app, const std::string& text) {
    const size_t line_end = text.find('\n', COMMENT_BEGIN.size());
    return text.starts_with(COMMENT_BEGIN) && line_end != std::string::npos &&
           std::string_view(text).substr(0, line_end + 1).ends_with(comment_end(app));
}

bool is_own_bus_policy(const std::string& app) {
    return is_policy_of(app, beginning_of(bus_policy_path(app)));
}

bool write_bus_policy(const std::string& app, const std::string& user, VelkctlError** error) {
    return check_is_own(bus_policy_path(app), is_own_bus_policy(app), error) &&
           write_file(bus_policy_path(app), bus_policy_text(app, user), error);
}

bool remove_bus_policy(const std::string& app, VelkctlError** error) {
    return remove_own_file(bus_policy_path(app), is_own_bus_policy(app), error);
}
