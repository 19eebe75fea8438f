#include "integration/dbus-policy.h"

#include "base/paths.h"
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

std::string bus_policy_text(const std::string& app, const std::string& user) {
    const std::string service = "\"com.orvo.Param." + app + "\"/>\n";
    const std::string own = "    <allow own=" + service;
    const std::string talk =
        "    <allow send_destination=" + service + "    <allow receive_sender=" + service;
    return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN\" "
           "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig>\n"
           "  <!-- " +
           comment("Only root or user " + user + " can own the " + app + " service.") +
           " -->\n"
           "  <policy user=\"" +
           user + "\">\n" + own + talk + "  </policy>\n  <policy user=\"root\">\n" + own + talk +
           "  </policy>\n  <policy context=\"default\">\n" + talk + "  </policy>\n</busconfig>\n";
}

bool write_bus_policy(const std::string& app, const std::string& user, VelkctlError** error) {
    return write_file(bus_policy_path(app), bus_policy_text(app, user), error);
}
