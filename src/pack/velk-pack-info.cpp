#include "pack/velk-pack-info.h"

#include <glib.h>

#include <memory>

#include "base/printable.h"
#include "manifest/manifest-rules.h"
#include "manifest/manifest.h"
#include "pack/json-text.h"
#include "pack/pack-error.h"
#include "pack/package-file.h"
#include "store/package-trailer.h"

static bool load_manifest(PackageInfo* info, VelkctlError** error) {
    if (info->contents.manifests.empty())
        return fail_with(error, VELKCTL_ERROR_INVALID_PACKAGE, info->path, "holds no manifest.json");
    const std::string& text = info->contents.manifests.front().second;
    json_error_t reason;
    info->manifest.reset(json_loadb(text.data(), text.size(), 0, &reason));
    return info->manifest ||
           fail_with(error, VELKCTL_ERROR_INVALID_MANIFEST, info->path,
                     "manifest.json: line " + std::to_string(reason.line) + ": " + reason.text);
}

std::optional<PackageInfo> velk_pack_info(const std::string& path, VelkctlError** error) {
    const std::optional<PackageFile> package = open_package_file(path, error);
    if (!package)
        return std::nullopt;
    PackageInfo info;
    info.path = path;
    info.size = package->size;
    info.data_size = package->data_size;
    if (package->signature) {
        info.signature_size = package->signature->size();
        info.signer = claimed_signer(*package->signature);
    }
    const auto nothing_more = [](std::string_view, VelkctlError**) { return true; };
    if (!read_package_contents(*package, "reading", nothing_more, &info.contents, error) ||
        !load_manifest(&info, error))
        return std::nullopt;
    return info;
}

// --- The answer ---

static std::string time_text(int64_t time) {
    const std::unique_ptr<GDateTime, ReleaseWith<g_date_time_unref>> moment(
        g_date_time_new_from_unix_utc(time));
    const GStringPtr text(moment ? g_date_time_format(moment.get(), "%Y-%m-%dT%H:%M:%SZ") : nullptr);
    return text ? text.get() : "";
}

static std::string mode_text(const PackageMember& member) {
    std::string text(1, member.type);
    for (int bit = 8; bit >= 0; bit--)
        text += (member.mode >> bit & 1U) != 0 ? "xwr"[bit % 3] : '-';
    return text;
}

static std::string line(const char* label, const std::string& value) {
    std::string text = std::string("  ") + label;
    text.resize(16, ' ');
    return text + value + "\n";
}

/** The values of the manifest's setup that are shown, by their label. */
static constexpr std::pair<const char*, const char*> kShown[] = {
    {"application", "appName"}, {"name", "friendlyName"},  {"version", "version"},
    {"vendor", "vendor"},       {"vendor ID", "vendorId"}, {"architecture", "architecture"},
    {"run mode", "runMode"},
};

std::string info_text(const PackageInfo& info) {
    std::string text = printable(info.path) + "\n";
    for (const auto& [label, key] : kShown)
        if (const auto value =
                manifest_string(info.manifest.get(), nullptr, {"velkPackageConf", "setup", key}))
            text += line(label, printable(*value));
    ErrorSlot broken_rule;
    const auto parsed = parse_manifest_leniently(info.manifest.get(), broken_rule);
    if (parsed && parsed->osVersionRanges)
        text += line("firmware", format_version_ranges(*parsed->osVersionRanges));
    for (const ManifestFinding& finding : find_manifest_faults(info.manifest.get()))
        text += line("BROKEN RULE", printable(finding.key + ": " + finding.message));
    text += line("package", std::to_string(info.size) + " bytes");
    text += line("archive", std::to_string(info.data_size) + " bytes, " +
                                (info.contents.is_compressed ? "gzip" : "plain"));
    if (info.signature_size) {
        const Signer& signer = info.signer;
        text += line("signature", std::to_string(*info.signature_size) + " bytes, " + time_text(signer.time));
        text += line("signer", (signer.fingerprint.empty() ? "unknown" : printable(signer.fingerprint)) +
                                   " (not verified)");
        text += line("trailer", "version " + std::to_string(PACKAGE_VERSION));
    } else {
        text += line("signature", "none");
    }
    text += line("contents", std::to_string(info.contents.members.size()) + " entries, " +
                                 std::to_string(info.contents.size) + " bytes");
    for (const PackageMember& member : info.contents.members) {
        const std::string size = std::to_string(member.size);
        text += "    " + mode_text(member) + std::string(size.size() < 12 ? 12 - size.size() : 1, ' ') +
                size + "  " + printable(member.name) + "\n";
    }
    return text;
}

static json_t* signature_json(const PackageInfo& info) {
    if (!info.signature_size)
        return json_null();
    json_t* signature = json_object();
    json_object_set_new(signature, "size", json_number(*info.signature_size));
    json_object_set_new(signature, "version", json_number(PACKAGE_VERSION));
    json_object_set_new(signature, "fingerprint", json_text(info.signer.fingerprint));
    json_object_set_new(signature, "time", json_integer(info.signer.time));
    json_object_set_new(signature, "verified", json_false());
    return signature;
}

JsonPtr info_json(const PackageInfo& info) {
    JsonPtr answer(json_object());
    json_object_set_new(answer.get(), "package", json_text(info.path));
    json_object_set_new(answer.get(), "size", json_number(info.size));
    json_object_set_new(answer.get(), "archiveSize", json_number(info.data_size));
    json_object_set_new(answer.get(), "compression",
                        json_string(info.contents.is_compressed ? "gzip" : "none"));
    json_object_set_new(answer.get(), "contentSize", json_number(info.contents.size));
    json_object_set_new(answer.get(), "signature", signature_json(info));
    json_object_set(answer.get(), "manifest", info.manifest.get());
    json_t* findings = json_array();
    for (const ManifestFinding& finding : find_manifest_faults(info.manifest.get()))
        json_array_append_new(findings, json_pack("{s:o, s:o}", "key", json_text(finding.key), "message",
                                                  json_text(finding.message)));
    json_object_set_new(answer.get(), "findings", findings);
    json_t* files = json_array();
    for (const PackageMember& member : info.contents.members)
        json_array_append_new(
            files, json_pack("{s:o, s:s%, s:o, s:o}", "name", json_text(member.name), "type", &member.type,
                             size_t{1}, "mode", json_number(member.mode), "size", json_number(member.size)));
    json_object_set_new(answer.get(), "files", files);
    return answer;
}
