#include "integration/units.h"

#include "base/paths.h"
#include "base/quote.h"
#include "integration/containers.h"
#include "integration/unit-text.h"
#include "system/subprocess.h"
#include "system/systemctl.h"

std::string disk_polling_unit_name(const std::string& app) { return "sdk" + app + "-disk-mounted.service"; }

std::optional<std::string> disk_polling_unit_text(const std::string& disk, VelkctlError** error) {
    return UnitText("Disk mounted polling service")
        .add("Unit", "Requires", "multi-user.target")
        .add("Unit", "After", "multi-user.target")
        .add("Service", "ExecStartPre",
             "sh -c \"while ! [ -d " + std::string(paths::kCards) + "/" + disk +
                 "/packages ]; do sleep 1; done\"")
        .add("Service", "ExecStart", POLLING_PROGRAM)
        .add("Service", "RemainAfterExit", "yes")
        .text(error);
}

static std::string overlay_options(const std::string& layers) {
    return "lowerdir=" + layers + "/lower,upperdir=" + layers + "/upper,workdir=" + layers + "/work";
}

static std::optional<std::string> overlay_unit_text(const OverlayUnit& unit, const std::string& description,
                                                    const char* dependency, const std::string& options,
                                                    const char* wanted_by, VelkctlError** error) {
    return UnitText(description)
        .add("Unit", "After", unit.after)
        .add("Unit", dependency, unit.after)
        .add("Unit", "DefaultDependencies", "no")
        .add("Mount", "What", "overlay")
        .add("Mount", "Where", unit.mount_point)
        .add("Mount", "Type", "overlay")
        .add("Mount", "Options", options)
        .add("Install", "WantedBy", wanted_by)
        .text(error);
}

static std::string card_overlay_options(const OverlayUnit& unit) {
    return overlay_options(unit.layers) + ",nosuid";
}

std::optional<std::string> card_overlay_unit_text(const OverlayUnit& unit, VelkctlError** error) {
    return overlay_unit_text(unit, "Overlay mount for " + unit.app, "Wants", card_overlay_options(unit),
                             "velk.target", error);
}

std::optional<std::string> card_overlay_drop_in_text(const OverlayUnit& unit, VelkctlError** error) {
    // Options do not add up: the last ones count alone.
    return UnitText().add("Mount", "Options", card_overlay_options(unit) + ",nodev").text(error);
}

std::optional<std::string> layer_overlay_unit_text(const OverlayUnit& unit, VelkctlError** error) {
    return overlay_unit_text(unit, "Writable layer of " + unit.app, "Requires", overlay_options(unit.layers),
                             "local-fs.target", error);
}

/** A text as the service manager reads it back: percent signs would begin a specifier. */
static std::string without_specifiers(const std::string& plain) {
    std::string text;
    for (const char character : plain)
        text.append(character == '%' ? 2 : 1, character);
    return text;
}

/** A path in a list of paths, where a blank would begin the next one. Quoted only when it must be. */
static std::string unit_path_in_list(const std::string& path) {
    std::string text = without_specifiers(path);
    return text.find_first_of(" \t\"'\\") == std::string::npos ? text : double_quoted(text);
}

std::optional<std::string> squashfs_unit_text(const SquashfsUnit& unit, VelkctlError** error) {
    return UnitText("SQFS mount for " + unit.app)
        .add("Unit", "RequiresMountsFor", unit_path_in_list(unit.directory))
        .add("Mount", "What", without_specifiers(unit.image))
        .add("Mount", "Where", without_specifiers(unit.mount_point))
        .add("Mount", "Type", "squashfs")
        .add("Mount", "Options", "ro,nosuid,nodev")
        .text(error);
}

/** The part of the mount options that makes a script executable; nothing for a name that could be more than
 * one. */
static std::optional<std::string> script_permissions(const std::optional<std::string>& script,
                                                     VelkctlError** error) {
    if (!script)
        return "";
    if (check_shell_arguments({script->c_str()}, error) != 0)
        return std::nullopt;
    return ";/" + *script + ":rwxr-xr-x";
}

std::optional<std::string> contents_unit_text(const ContentsUnit& unit, VelkctlError** error) {
    const std::optional<std::string> post_install = script_permissions(unit.post_install_script, error);
    const std::optional<std::string> pre_uninstall =
        post_install ? script_permissions(unit.pre_uninstall_script, error) : std::nullopt;
    if (!pre_uninstall)
        return std::nullopt;
    const std::string uid = std::to_string(unit.uid);
    const std::string admin = uid + ":" + std::to_string(unit.admin_gid);
    const std::string options = "umask=022,perms=/:rwXr-Xr-X;/LICENSE:rw-r-----;/html:rwXr-X--X" +
                                *post_install + *pre_uninstall + ",owners=/:" + admin + ";/LICENSE:" + admin +
                                ";/html:" + uid + ":" + std::to_string(unit.www_gid);
    return UnitText("VLP contents of " + unit.app)
        .add("Unit", "DefaultDependencies", "no")
        .add("Mount", "What", unit.package)
        .add("Mount", "Where", unit.mount_point)
        .add("Mount", "Type", "fuse.vlpfs")
        .add("Mount", "Options", options)
        .add("Install", "WantedBy", "local-fs.target")
        .text(error);
}

static const char* restart_of(const std::string& run_mode) {
    if (run_mode == "respawn")
        return "always";
    return run_mode == "respawnOnFailure" ? "on-failure" : "no";
}

/** A command line that the service manager runs in a shell, and as root whatever the service's user. */
static std::string privileged_shell(const std::string& line) {
    return std::string("+") + paths::kShell + " -c '" + line + "'";
}

/** The sections that come on top when the application hosts containers or brings their tools. */
static void add_container_sections(const ServiceUnit& unit, UnitText* text) {
    const std::string uid = std::to_string(unit.uid);
    if (unit.container_host) {
        const std::string session = "user@" + uid + ".service";
        text->add("Unit", "After", session)
            .add("Unit", "Requires", session)
            .add("Unit", "After", "network-online.target var-spool-storage-SD_DISK.mount")
            .add("Unit", "Wants", "network-online.target")
            .add("Service", "ExecStartPre",
                 privileged_shell(std::string("rm -Rf ") + paths::kContainerState + " && rm -Rf " +
                                  paths::kContainerdState));
    }
    if (unit.create_docker_symlinks)
        text->add("Service", "ExecStartPre",
                  privileged_shell("ln -sf " + container_socket(unit.uid) + " " + paths::kContainerSocket));
}

std::optional<std::string> service_unit_text(const ServiceUnit& unit, VelkctlError** error) {
    const std::string after = "velk-pre.target " + unit.overlay_unit;
    UnitText text(without_specifiers(unit.description));
    text.add("Unit", "After", after).add("Unit", "Requires", after);
    for (const std::string& mount : unit.required_mounts)
        text.add("Unit", "RequiresMountsFor", unit_path_in_list(mount));
    text.add("Service", "LimitSTACK", "8M:infinity")
        .add("Service", "Slice", "extension-velk.slice")
        .add("Service", "ExecStart", unit.directory + "/" + unit.app + " " + unit.run_options);
    if (unit.fcgi_socket)
        text.add("Service", "Environment", "FCGI_SOCKET_NAME=" + *unit.fcgi_socket);
    text.add("Service", "Restart", restart_of(unit.run_mode));
    if (unit.scheduling_policy)
        text.add("Service", "CPUSchedulingPolicy", unit.scheduling_policy)
            .add("Service", "CPUSchedulingPriority", std::to_string(unit.real_time_priority));
    text.add("Service", "User", unit.user)
        .add("Service", "Group", unit.group)
        .add("Service", "WorkingDirectory", unit.directory)
        .add("Install", "WantedBy", "velk.target");
    add_container_sections(unit, &text);
    return text.text(error);
}

std::string network_drop_in_text() {
    ErrorSlot never;
    return UnitText()
        .add("Service", "PrivateNetwork", "no")
        .add("Service", "CapabilityBoundingSet", "~")
        .text(never)
        .value_or("");
}
