#include "pack/velk-pack-info.h"

#include <archive.h>
#include <archive_entry.h>
#include <glib.h>

#include <memory>

#include "manifest/manifest-rules.h"
#include "manifest/manifest.h"
#include "pack/json-text.h"
#include "pack/pack-error.h"
#include "pack/package-file.h"
#include "pack/progress.h"
#include "store/package-trailer.h"

using ArchivePtr = std::unique_ptr<archive, ReleaseWith<archive_read_free>>;

static constexpr size_t kManifestLimit = 16 << 20;

namespace {

/** The data part on its way into the archive reader. */
struct Source {
    const PackageFile& package;
    ProgressBar bar;
    uint64_t position = 0;
    std::string block = {};
    bool is_compressed = false;
    ErrorSlot error = {};
};

la_ssize_t read_block(archive*, void* data, const void** bytes) {
    Source& source = *static_cast<Source*>(data);
    const bool is_first = source.position == 0;
    if (!read_data_block(source.package, &source.position, &source.block, source.error))
        return -1;
    if (is_first)
        source.is_compressed = begins_as_gzip(source.block);
    source.bar.advance(source.block.size());
    *bytes = source.block.data();
    return static_cast<la_ssize_t>(source.block.size());
}

bool fail_archive(archive* reader, Source& source, VelkctlError** error) {
    if (source.error.is_set()) {
        source.error.move_to(error);
        return false;
    }
    const char* text = archive_error_string(reader);
    return fail_with(error, VELKCTL_ERROR_INVALID_PACKAGE, source.package.path,
                     std::string("the archive cannot be read: ") + (text ? text : "no reason given"));
}

PackageMember member_of(archive_entry* header) {
    const char* name = archive_entry_pathname(header);
    const mode_t type = archive_entry_filetype(header);
    const char letter = archive_entry_hardlink(header) ? '-'
                        : S_ISREG(type)                ? '-'
                        : S_ISDIR(type)                ? 'd'
                        : S_ISLNK(type)                ? 'l'
                                                       : '?';
    std::string shown = name ? name : "";
    if (shown.size() > 1 && shown.ends_with('/'))
        shown.pop_back();
    return {std::move(shown), letter, static_cast<uint32_t>(archive_entry_perm(header)),
            static_cast<uint64_t>(archive_entry_size(header))};
}

/** Take in the manifest, of which no more than the limit. */
bool read_manifest(archive* reader, Source& source, std::string* text, VelkctlError** error) {
    char block[16 << 10];
    la_ssize_t got = 0;
    while ((got = archive_read_data(reader, block, sizeof block)) > 0) {
        text->append(block, static_cast<size_t>(got));
        if (text->size() > kManifestLimit)
            return fail_with(error, VELKCTL_ERROR_INVALID_PACKAGE, source.package.path,
                             "manifest.json: is larger than 16 MiB");
    }
    return got == 0 || fail_archive(reader, source, error);
}

bool read_members(archive* reader, Source& source, PackageInfo* info, std::optional<std::string>* manifest,
                  VelkctlError** error) {
    archive_entry* header = nullptr;
    int result = 0;
    while ((result = archive_read_next_header(reader, &header)) == ARCHIVE_OK || result == ARCHIVE_WARN) {
        PackageMember member = member_of(header);
        info->content_size += member.size;
        const bool is_manifest = member.name == "manifest.json" || member.name == "./manifest.json";
        info->members.push_back(std::move(member));
        if (is_manifest && !manifest->has_value() &&
            !read_manifest(reader, source, &manifest->emplace(), error))
            return false;
    }
    return result == ARCHIVE_EOF || fail_archive(reader, source, error);
}

bool load_manifest(const std::optional<std::string>& text, PackageInfo* info, VelkctlError** error) {
    if (!text)
        return fail_with(error, VELKCTL_ERROR_INVALID_PACKAGE, info->path, "holds no manifest.json");
    json_error_t reason;
    info->manifest.reset(json_loadb(text->data(), text->size(), 0, &reason));
    return info->manifest ||
           fail_with(error, VELKCTL_ERROR_INVALID_MANIFEST, info->path,
                     "manifest.json: line " + std::to_string(reason.line) + ": " + reason.text);
}

}  // namespace

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
    Source source{*package, ProgressBar("reading", package->data_size)};
    const ArchivePtr reader(archive_read_new());
    std::optional<std::string> manifest;
    if (archive_read_support_format_tar(reader.get()) != ARCHIVE_OK ||
        archive_read_support_filter_gzip(reader.get()) != ARCHIVE_OK ||
        archive_read_open(reader.get(), &source, nullptr, read_block, nullptr) != ARCHIVE_OK) {
        fail_archive(reader.get(), source, error);
        return std::nullopt;
    }
    if (!read_members(reader.get(), source, &info, &manifest, error) ||
        !load_manifest(manifest, &info, error))
        return std::nullopt;
    info.is_compressed = source.is_compressed;
    return info;
}

// --- The answer ---

/** A package may come from anywhere: nothing in it may steer the reader's terminal. */
static std::string printable(std::string text) {
    for (char& byte : text)
        if (static_cast<unsigned char>(byte) < 0x20 || byte == 0x7F)
            byte = '?';
    return text;
}

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
    std::string text = info.path + "\n";
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
    text += line("archive",
                 std::to_string(info.data_size) + " bytes, " + (info.is_compressed ? "gzip" : "plain"));
    if (info.signature_size) {
        const Signer& signer = info.signer;
        text += line("signature", std::to_string(*info.signature_size) + " bytes, " + time_text(signer.time));
        text +=
            line("signer", (signer.fingerprint.empty() ? "unknown" : signer.fingerprint) + " (not verified)");
        text += line("trailer", "version " + std::to_string(PACKAGE_VERSION));
    } else {
        text += line("signature", "none");
    }
    text += line("contents", std::to_string(info.members.size()) + " entries, " +
                                 std::to_string(info.content_size) + " bytes");
    for (const PackageMember& member : info.members) {
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
    json_object_set_new(answer.get(), "compression", json_string(info.is_compressed ? "gzip" : "none"));
    json_object_set_new(answer.get(), "contentSize", json_number(info.content_size));
    json_object_set_new(answer.get(), "signature", signature_json(info));
    json_object_set(answer.get(), "manifest", info.manifest.get());
    json_t* findings = json_array();
    for (const ManifestFinding& finding : find_manifest_faults(info.manifest.get()))
        json_array_append_new(findings, json_pack("{s:o, s:o}", "key", json_text(finding.key), "message",
                                                  json_text(finding.message)));
    json_object_set_new(answer.get(), "findings", findings);
    json_t* files = json_array();
    for (const PackageMember& member : info.members)
        json_array_append_new(
            files, json_pack("{s:o, s:s%, s:o, s:o}", "name", json_text(member.name), "type", &member.type,
                             size_t{1}, "mode", json_number(member.mode), "size", json_number(member.size)));
    json_object_set_new(answer.get(), "files", files);
    return answer;
}
