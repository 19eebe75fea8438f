#include "manifest/samples.h"

#include <gtest/gtest.h>

#include "support.h"

namespace test {

JsonPtr json_of(const std::string& text) {
    json_error_t reason;
    JsonPtr json(json_loadb(text.data(), text.size(), JSON_DECODE_ANY, &reason));
    EXPECT_TRUE(json) << reason.text << " in " << text;
    return json;
}

JsonPtr valid_manifest() { return json_of(read_text(TEST_DATA_DIR "/manifest/valid.json")); }

JsonPtr small_manifest() {
    return json_of(
        R"({"velkPackageConf": {"setup": {"appName": "Small", "version": "1.0.0", "runMode": "never"}}})");
}

void change(json_t* manifest, const std::string& path, const std::string& value) {
    json_t* object = manifest;
    size_t start = 0;
    for (size_t dot = 0; (dot = path.find('.', start)) != std::string::npos; start = dot + 1) {
        const std::string key = path.substr(start, dot - start);
        if (!json_object_get(object, key.c_str()))
            json_object_set_new(object, key.c_str(), json_object());
        object = json_object_get(object, key.c_str());
    }
    const std::string key = path.substr(start);
    const int failed = value.empty() ? json_object_del(object, key.c_str())
                                     : json_object_set_new(object, key.c_str(), json_of(value).release());
    EXPECT_EQ(failed, 0) << path;
}

JsonPtr manifest_with(const std::string& path, const std::string& value) {
    JsonPtr manifest = valid_manifest();
    change(manifest.get(), path, value);
    return manifest;
}

static std::string text_of(const std::optional<std::string>& value) { return value.value_or("(none)"); }

static std::string text_of(bool value) { return value ? "true" : "false"; }

static std::string text_of(const Version& version) {
    return std::to_string(version.major) + "," + std::to_string(version.minor) + "," +
           std::to_string(version.patch);
}

static std::string text_of(const ParsedManifest& parsed) {
    std::string text;
    for (const CgiEntry& entry : parsed.cgiEntries)
        text +=
            "[" + entry.name + " " + std::to_string(entry.type) + " " + std::to_string(entry.access) + "]";
    return text;
}

std::vector<std::string> lines_of(const ParsedManifest& parsed) {
    const auto& developer = parsed.developerMode;
    return {
        "appName=" + parsed.appName,
        "friendlyName=" + text_of(parsed.friendlyName),
        "version=" + text_of(parsed.version),
        "vendorId=" + text_of(parsed.vendorId),
        "architecture=" + text_of(parsed.architecture),
        "developerMode=" + (developer ? developer->vendorId + " " + developer->deviceSerialNumber : "(none)"),
        "user=" + parsed.user,
        "userIsDynamic=" + text_of(parsed.userIsDynamic),
        "runOptions=" + parsed.runOptions,
        "runMode=" + parsed.runMode,
        "osVersionRanges=" +
            (parsed.osVersionRanges ? format_version_ranges(*parsed.osVersionRanges) : "(none)"),
        "postInstallScript=" + text_of(parsed.postInstallScript),
        "preUninstallScript=" + text_of(parsed.preUninstallScript),
        "appId=" + std::to_string(parsed.appId),
        "dlpuEnabled=" + text_of(parsed.dlpuEnabled),
        "dlpuRequired=" + text_of(parsed.dlpuRequired),
        "containerHost=" + text_of(parsed.containerHost),
        "createDockerSymlinks=" + text_of(parsed.createDockerSymlinks),
        std::string("schedulingPolicy=") + (parsed.schedulingPolicy ? parsed.schedulingPolicy : "(none)"),
        "realTimePriority=" + std::to_string(parsed.realTimePriority),
        "directoryAccess=" + std::to_string(parsed.directoryAccess),
        "cgiEntries=" + text_of(parsed),
    };
}

std::vector<std::string> with_changes(std::vector<std::string> lines,
                                      const std::vector<std::string>& changes) {
    for (const std::string& line : changes) {
        const std::string field = line.substr(0, line.find('=') + 1);
        bool found = false;
        for (std::string& old_line : lines) {
            if (!old_line.starts_with(field))
                continue;
            old_line = line;
            found = true;
        }
        EXPECT_TRUE(found) << line;
    }
    return lines;
}

}  // namespace test
