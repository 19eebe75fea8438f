#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/velkctl-error.h"

/*
 * The service manager, through its command line unless said otherwise. A unit is named by its file name or
 * its path. A failing command is code 10 "Failed running ...", and what the service manager then has done
 * stays.
 */

[[nodiscard]] bool systemctl_enable(const std::string& unit, VelkctlError** error);
[[nodiscard]] bool systemctl_disable(const std::string& unit, VelkctlError** error);
[[nodiscard]] bool systemctl_start(const std::string& unit, VelkctlError** error);
[[nodiscard]] bool systemctl_stop(const std::string& unit, VelkctlError** error);
[[nodiscard]] bool systemctl_restart(const std::string& unit, VelkctlError** error);

/** The name of the mount unit of an absolute path: every "/" becomes "-"; nothing else is escaped. */
[[nodiscard]] std::string mount_unit_name(const std::string& path);

/** Make the service manager read its unit files again. */
[[nodiscard]] bool systemctl_daemon_reload(VelkctlError** error);
/** Make the web server read its configuration again. */
[[nodiscard]] bool systemctl_reload_web_server(VelkctlError** error);

/** What the services that wait for a card run; they are done once the card is there. */
inline constexpr const char* POLLING_PROGRAM = "echo null > /dev/null";

/** Whether the service manager has the unit: neither unknown to it nor with settings that it refuses. */
[[nodiscard]] bool is_unit_loaded(const std::string& unit);

/**
 * The application whose card the service waits for that has the name of this application's service, when
 * that is what its unit file holds. The file is then not this application's.
 */
[[nodiscard]] std::optional<std::string> owner_of_polling_service(const std::string& app);

/**
 * Whether the application's service is active; nothing when it cannot be asked, code 10 "Failed running: %s"
 * with the command. Every exit status of the question other than 0 means that it is not active.
 */
[[nodiscard]] std::optional<bool> is_application_active(const std::string& app, VelkctlError** error);

/**
 * Whether the services of many applications are active, told in the same way by one question over the bus. An
 * application is left out when the service manager does not tell of its service under that name, and all of
 * them are when it cannot be asked.
 */
[[nodiscard]] std::map<std::string, bool> active_applications(const std::vector<std::string>& apps);

/**
 * Require that the application is not running: code 10 "Application %s is still running, please stop it
 * before running %s." with the application and `command`, or the failure of the question itself.
 */
[[nodiscard]] bool require_application_stopped(const std::string& app, const char* command,
                                               VelkctlError** error);
