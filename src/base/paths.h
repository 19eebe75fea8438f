#pragma once

#include <string>

/*
 * Every fixed path of the device, and nothing else: no other file spells one. Paths that are formed from an
 * application's name have a function here.
 */
namespace paths {

// The content store.
inline constexpr const char* kStoreRoot = "/usr/local/packages";
inline constexpr const char* kCards = "/var/spool/storage";
inline constexpr const char* kFirstCardStore = "/var/spool/storage/SD_DISK/packages";
inline constexpr const char* kSecondCardStore = "/var/spool/storage/SD_DISK2/packages";
inline constexpr const char* kLayerStore = "/opt/packages/_layers";
inline constexpr const char* kLockFile = "/usr/local/packages/_lock/velkctl";

// Packages and their verification.
inline constexpr const char* kSettingsFile = "/etc/velk/conf/packageparser.conf";
inline constexpr const char* kKeyring = "/usr/share/velkmanager/velk.public.gpg";
inline constexpr const char* kVerificationStates = "/etc/velk/vsf";
inline constexpr const char* kTemporarySignature = "/tmp/velkctl_XXXXXX.sig";
inline constexpr const char* kTemporaryData = "/tmp/velkctl_XXXXXX.vlp";

// What the firmware ships.
inline constexpr const char* kImagePackages = "/usr/share/packages";
inline constexpr const char* kPreinstalledList = "/etc/velk/preinstalled/preinstalled-apps.json";
inline constexpr const char* kAmendList = "/usr/share/velk/valid-users-groups.d/amend-list";
inline constexpr const char* kDevelopmentMarker = "/run/orvo-features/devel";
inline constexpr const char* kDlpuMarker = "/run/orvo-features/dlpu";
inline constexpr const char* kPlugins = "/usr/lib/velkctl/plugins";
inline constexpr const char* kLoadedParameterGroups = "/run/velkctl-param-groups";

// What setup writes for systemd, the web server, the parameter service, the bus and containers.
inline constexpr const char* kSystemdUnits = "/etc/systemd/system";
inline constexpr const char* kWebServer = "/etc/apache2";
inline constexpr const char* kWebRootLinks = "/usr/html/local";
inline constexpr const char* kWebSockets = "/var/run/http";
inline constexpr const char* kParameters = "/etc/dynamic";
inline constexpr const char* kBusPolicies = "/etc/dbus-1/system.d";
inline constexpr const char* kSubUid = "/etc/subuid";
inline constexpr const char* kSubGid = "/etc/subgid";
inline constexpr const char* kContainerTool = "/usr/local/bin/docker";
inline constexpr const char* kContainerComposeTool = "/usr/local/lib/docker/cli-plugins/docker-compose";
inline constexpr const char* kContainerSocket = "/var/run/docker.sock";
inline constexpr const char* kContainerState = "/run/docker";
inline constexpr const char* kContainerdState = "/run/containerd";
inline constexpr const char* kUserRuntimes = "/var/run/user";

// The system's own.
inline constexpr const char* kMounts = "/proc/mounts";
inline constexpr const char* kUsr = "/usr";
inline constexpr const char* kShell = "/bin/sh";
inline constexpr const char* kPigz = "/usr/bin/pigz";
inline constexpr const char* kNullDevice = "/dev/null";
inline constexpr const char* kProcesses = "/proc";
inline constexpr const char* kOwnDescriptors = "/proc/self/fd";

/** The application directory: where the application named `app` is reached in the store, whatever its
 * location. */
inline std::string store_root_path(const std::string& app) { return std::string(kStoreRoot) + "/" + app; }

/** The name of the application's service unit. */
inline std::string service_unit_name(const std::string& app) { return "sdk" + app + ".service"; }

/** The application's service unit file; that it exists as a regular file is what "set up" means. */
inline std::string service_unit_path(const std::string& app) {
    return std::string(kSystemdUnits) + "/" + service_unit_name(app);
}

/** Where the web server finds the application's published web directory. */
inline std::string web_directory(const std::string& app) { return std::string(kWebRootLinks) + "/" + app; }

/** The directory of the application's transfer socket. */
inline std::string transfer_socket_directory(const std::string& app) {
    return std::string(kWebSockets) + "/" + app;
}
/** The socket itself. */
inline std::string transfer_socket(const std::string& app) {
    return transfer_socket_directory(app) + "/http";
}

/** The web server's active transfer snippet of an application. */
inline std::string transfer_snippet(const std::string& app) {
    return std::string(kWebServer) + "/transfer/transfer_" + app + ".conf";
}
/** The FastCGI one. */
inline std::string fcgi_snippet(const std::string& app) {
    return std::string(kWebServer) + "/fcgi/fcgi_" + app + ".conf";
}
/** The access rules of its files. */
inline std::string access_rules(const std::string& app) {
    return std::string(kWebServer) + "/conf.d/vhosts/all/urls_" + app + ".conf";
}

/** The parameter service's link to the application's values. */
inline std::string parameter_values_link(const std::string& app) {
    return std::string(kParameters) + "/" + app + ".conf";
}
/** The one to its group definition. */
inline std::string parameter_group_link(const std::string& app) {
    return std::string(kParameters) + "/param/" + app + ".conf";
}

}  // namespace paths
