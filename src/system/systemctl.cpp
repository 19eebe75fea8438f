#include "system/systemctl.h"

#include <algorithm>
#include <string_view>

#include "base/paths.h"
#include "system/dbus-call.h"
#include "system/file.h"
#include "system/subprocess.h"

std::string mount_unit_name(const std::string& path) {
    std::string name = path.starts_with('/') ? path.substr(1) : path;
    std::replace(name.begin(), name.end(), '/', '-');
    return name + ".mount";
}

static bool run_on_unit(const char* verb, const std::string& unit, VelkctlError** error) {
    return run_command(error, "systemctl %s --quiet '%s'", {verb, base_name(unit).c_str()}) == 0;
}

bool systemctl_enable(const std::string& unit, VelkctlError** error) {
    return run_on_unit("enable", unit, error);
}
bool systemctl_disable(const std::string& unit, VelkctlError** error) {
    return run_on_unit("disable", unit, error);
}
bool systemctl_start(const std::string& unit, VelkctlError** error) {
    return run_on_unit("start", unit, error);
}
bool systemctl_stop(const std::string& unit, VelkctlError** error) {
    return run_on_unit("stop", unit, error);
}
bool systemctl_restart(const std::string& unit, VelkctlError** error) {
    return run_on_unit("restart", unit, error);
}

bool systemctl_daemon_reload(VelkctlError** error) {
    return run_command(error, "systemctl daemon-reload") == 0;
}
bool systemctl_reload_web_server(VelkctlError** error) {
    return run_command(error, "systemctl reload httpd") == 0;
}

bool is_unit_loaded(const std::string& unit) {
    std::string state;
    ErrorSlot unknown;
    return spawn_and_wait({"systemctl", "show", "--property=LoadState", "--value", "--", unit}, &state,
                          unknown) == 0 &&
           state == "loaded\n";
}

std::optional<std::string> owner_of_polling_service(const std::string& app) {
    constexpr std::string_view SUFFIX = "-disk-mounted";
    ErrorSlot none;
    const std::string line = std::string("\nExecStart=") + POLLING_PROGRAM + "\n";
    if (!app.ends_with(SUFFIX) ||
        read_file(paths::service_unit_path(app), none).value_or("").find(line) == std::string::npos)
        return std::nullopt;
    return app.substr(0, app.size() - SUFFIX.size());
}

std::optional<bool> is_application_active(const std::string& app, VelkctlError** error) {
    if (owner_of_polling_service(app))
        return false;
    const std::string unit = paths::service_unit_name(app);
    ErrorSlot reason;
    const int status = run_command(reason, "systemctl is-active --quiet %s", {unit.c_str()});
    if (status >= 0)
        return status == 0;
    const std::string command = "systemctl is-active --quiet " + unit;
    SET_GENERAL_ERROR(error, "Failed running: %s", command.c_str());
    return std::nullopt;
}

/** Of the states that a unit can be in, those that its command line calls active. */
static bool counts_as_active(std::string_view state) {
    return state == "active" || state == "reloading" || state == "refreshing";
}

std::map<std::string, bool> active_applications(const std::vector<std::string>& apps) {
    std::map<std::string, std::string> app_of;
    GVariantBuilder units;
    g_variant_builder_init(&units, G_VARIANT_TYPE("as"));
    for (const std::string& app : apps) {
        const std::string unit = paths::service_unit_name(app);
        app_of[unit] = app;
        // What is no text for the bus, or another's unit, is left to be asked for alone.
        if (g_utf8_validate(unit.data(), static_cast<gssize>(unit.size()), nullptr) &&
            !owner_of_polling_service(app))
            g_variant_builder_add(&units, "s", unit.c_str());
    }
    ErrorSlot not_asked;
    const VariantPtr reply =
        dbus_call("org.freedesktop.systemd1", "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager",
                  "ListUnitsByNames", g_variant_new("(as)", &units), not_asked);
    std::map<std::string, bool> active;
    if (!reply || !g_variant_is_of_type(reply.get(), G_VARIANT_TYPE("(a(ssssssouso))")))
        return active;
    GVariantIter* listed = nullptr;
    g_variant_get(reply.get(), "(a(ssssssouso))", &listed);
    const char* unit = nullptr;
    const char* state = nullptr;
    while (g_variant_iter_next(listed, "(&sss&sssouso)", &unit, nullptr, nullptr, &state, nullptr, nullptr,
                               nullptr, nullptr, nullptr, nullptr))
        if (const auto found = app_of.find(unit); found != app_of.end())
            active[found->second] = counts_as_active(state);
    g_variant_iter_free(listed);
    return active;
}

bool require_application_stopped(const std::string& app, const char* command, VelkctlError** error) {
    const std::optional<bool> active = is_application_active(app, error);
    if (!active)
        return false;
    if (*active)
        velkctl_error_set(error, VELKCTL_ERROR_GENERAL,
                          "Application %s is still running, please stop it before running %s.", app.c_str(),
                          command);
    return !*active;
}
