#include "system/systemctl.h"

#include <string_view>

#include "base/paths.h"
#include "system/file.h"
#include "system/subprocess.h"

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
