#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "base/velkctl-error.h"
#include "system/systemctl.h"

/*
 * The texts of an application's units. Each is a pure function from a record; a value that cannot stand in a
 * unit file is code 10 "Systemd unit field contains invalid newline character", and the result is then
 * nothing.
 */

/** The name of the service that waits for the card of an application. */
[[nodiscard]] std::string disk_polling_unit_name(const std::string& app);

/** Waits until the card named `disk` is mounted. */
[[nodiscard]] std::optional<std::string> disk_polling_unit_text(const std::string& disk,
                                                                VelkctlError** error);

/** An overlay mount at the application directory. */
struct OverlayUnit {
    std::string app;
    std::string mount_point;
    std::string layers;  ///< the directory that holds lower, upper and work
    std::string after;   ///< the unit that makes the lower layer available
};

/** The overlay of an application on the first card. */
[[nodiscard]] std::optional<std::string> card_overlay_unit_text(const OverlayUnit& unit,
                                                                VelkctlError** error);
/** What stands beside that unit so that device nodes on the card are none. */
[[nodiscard]] std::optional<std::string> card_overlay_drop_in_text(const OverlayUnit& unit,
                                                                   VelkctlError** error);
/** The overlay of an application in the layer-file store. */
[[nodiscard]] std::optional<std::string> layer_overlay_unit_text(const OverlayUnit& unit,
                                                                 VelkctlError** error);

/** A squash-file-system image of an application. */
struct SquashfsUnit {
    std::string app;
    std::string directory;  ///< the application directory
    std::string image;
    std::string mount_point;
};
/** The mount of the image. */
[[nodiscard]] std::optional<std::string> squashfs_unit_text(const SquashfsUnit& unit, VelkctlError** error);

/** The contents of a package in the layer-file store. */
struct ContentsUnit {
    std::string app;
    std::string package;
    std::string mount_point;
    std::optional<std::string> post_install_script;  ///< made executable when there is one
    std::optional<std::string> pre_uninstall_script;
    uid_t uid;
    gid_t admin_gid;
    gid_t www_gid;
};
/** A script's name that would read as more than a name in the mount options is refused as a shell argument
 * is. */
[[nodiscard]] std::optional<std::string> contents_unit_text(const ContentsUnit& unit, VelkctlError** error);

/** The service of an application. */
struct ServiceUnit {
    std::string app;
    std::string description;
    std::string directory;  ///< the application directory
    std::string run_options;
    std::string run_mode;
    std::string user;
    std::string group;
    std::string overlay_unit;  ///< empty when there is none
    std::vector<std::string> required_mounts;
    std::optional<std::string> fcgi_socket;
    const char* scheduling_policy = nullptr;
    int32_t real_time_priority = 0;
    bool container_host = false;
    bool create_docker_symlinks = false;
    uid_t uid = 0;  ///< of `user`; only read with one of the container settings
};
/** The service unit itself. */
[[nodiscard]] std::optional<std::string> service_unit_text(const ServiceUnit& unit, VelkctlError** error);

/** The drop-in that every application's service gets. */
[[nodiscard]] std::string network_drop_in_text();
