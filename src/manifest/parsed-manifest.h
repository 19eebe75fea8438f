#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "manifest/version.h"

/** Who may use a part of an application's web pages. */
enum AccessLevel : int32_t {
    ACCESS_ADMIN = 0,
    ACCESS_OPERATOR = 1,
    ACCESS_VIEWER = 2,
};

/** How the web server reaches an application's own web handler. */
enum CgiType : int32_t {
    CGI_TRANSFER = 0,
    CGI_FAST = 1,
};

/** One web handler of an application. */
struct CgiEntry {
    std::string name;
    CgiType type;
    AccessLevel access;

    bool operator==(const CgiEntry&) const = default;
};

/** What a developer-mode application says about itself: whose applications it lets in, and on which device.
 */
struct DeveloperModeRecord {
    std::string vendorId;
    std::string deviceSerialNumber;

    bool operator==(const DeveloperModeRecord&) const = default;
};

/**
 * A manifest after its rules were checked. After a lenient parse a field whose rule was broken is as if its
 * value were absent; `appName`, `user` and `runMode`, which a strict parse always fills, are then empty.
 */
struct ParsedManifest {
    std::string appName;
    std::optional<std::string> friendlyName;
    Version version;
    std::optional<std::string> vendorId;
    std::optional<std::string> architecture;
    std::optional<DeveloperModeRecord> developerMode;  ///< of a developer-mode application only
    std::string user;
    bool userIsDynamic = false;
    std::string runOptions;
    std::string runMode;
    std::optional<std::vector<VersionRange>> osVersionRanges;  ///< none: compatible with every firmware
    std::optional<std::string> postInstallScript;
    std::optional<std::string> preUninstallScript;
    int32_t appId = -1;
    bool dlpuEnabled = false;
    bool dlpuRequired = false;
    bool containerHost = false;
    bool createDockerSymlinks = false;
    const char* schedulingPolicy = nullptr;  ///< "rr" when a real-time priority is given
    int32_t realTimePriority = 0;            ///< 1 to 99, 0 when none is given
    AccessLevel directoryAccess = ACCESS_ADMIN;
    std::vector<CgiEntry> cgiEntries;
};
