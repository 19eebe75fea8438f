#include "pack/velk-pack-verify.h"

#include <glib.h>
#include <jansson.h>

#include <algorithm>
#include <sstream>
#include <vector>

#include "manifest/manifest-rules.h"
#include "manifest/names.h"
#include "pack/child.h"
#include "pack/pack-error.h"
#include "pack/package-contents.h"
#include "pack/package-file.h"
#include "store/package-trailer.h"
#include "store/velkctl-verify-signature.h"
#include "store/velkctl-vsf.h"
#include "system/file.h"

static constexpr int kBadSignature = 1;

/** The text behind `start` up to the next of `ends`; empty when there is no such line. */
static std::string word_after(const std::string& text, const std::string& start, const char* ends = " ,)\n") {
    const size_t found = text.find(start);
    if (found == std::string::npos)
        return "";
    const size_t from = found + start.size();
    return text.substr(from, text.find_first_of(ends, from) - from);
}

static Signer signer_in_status(const std::string& status) {
    Signer signer;
    std::istringstream words(word_after(status, "[GNUPG:] VALIDSIG ", "\n"));
    std::string date;
    words >> signer.fingerprint >> date >> signer.time;
    const std::string good = word_after(status, "[GNUPG:] GOODSIG ", "\n");
    signer.user = good.substr(good.find(' ') + 1);
    return signer;
}

static bool check_keyring(const std::string& keyring, std::string* path, VelkctlError** error) {
    ErrorSlot unread;
    const std::optional<std::string> canonical = canonical_path(keyring, unread);
    const std::optional<std::string> keys = canonical ? read_file(*canonical, unread) : std::nullopt;
    if (!keys)
        return fail_with_system_error(error, keyring, "cannot be read");
    if (keys->starts_with("-----BEGIN"))
        return fail_with(error, VELKCTL_ERROR_GENERAL, keyring,
                         "is armoured, and devices read binary keyrings only (gpg --dearmor makes one)");
    *path = *canonical;
    return true;
}

/** What a device says of the signature before gpgv looks at it. */
static bool check_package(const PackageFile& package, VelkctlError** error) {
    ErrorSlot broken_rule;
    const std::optional<std::string> canonical = canonical_path(package.path, broken_rule);
    if (!canonical || !check_package_file_name(*canonical, broken_rule))
        return fail_with(error, VELKCTL_ERROR_GENERAL, package.path, broken_rule.message());
    if (!package.signature)
        return fail_with(error, VELKCTL_ERROR_SIGNATURE, package.path, "is not signed");
    return package.data_size <= static_cast<uint64_t>(PACKAGE_DATA_LIMIT) ||
           fail_with(error, VELKCTL_ERROR_SIGNATURE, package.path,
                     "is 2 GiB or larger, which no device verifies");
}

/** What a device says of a signature that gpgv finds good. */
static bool check_signature_text(const PackageFile& package, VelkctlError** error) {
    if (!is_signature_alone(*package.signature))
        return fail_with(error, VELKCTL_ERROR_SIGNATURE, package.path,
                         "more than the signature stands at its place, which no device takes");
    return vsf_text(*package.signature) ||
           fail_with(error, VELKCTL_ERROR_GENERAL, package.path,
                     "the signature is not armoured, which no device can record");
}

static bool fail_package(const PackageFile& package, const std::string& rule, VelkctlError** error) {
    return fail_with(error, VELKCTL_ERROR_INVALID_PACKAGE, package.path, rule);
}

/** What a device reads as the manifest: every member of the plain spelling, one behind the other. */
static std::string manifest_as_read(const PackageContents& contents) {
    std::string text;
    for (const char* spelling : {"manifest.json", "./manifest.json"}) {
        for (const auto& [place, part] : contents.manifests)
            if (contents.members[place].name == spelling)
                text += part;
        if (!text.empty())
            break;
    }
    return text;
}

/** The member that lies at a name when all are unpacked; null when there is none. */
static const PackageMember* last_of_name(const PackageContents& contents, const std::string& name) {
    const auto& members = contents.members;
    const auto found = std::find_if(members.rbegin(), members.rend(), [&name](const PackageMember& member) {
        return unpacked_name(member.name) == name;
    });
    return found == members.rend() ? nullptr : &*found;
}

/** The manifest that is read must be the one that lies there in the end, and one without a broken rule. */
static bool check_manifest(const PackageFile& package, const PackageContents& contents,
                           VelkctlError** error) {
    const std::string text = manifest_as_read(contents);
    if (text.empty())
        return fail_package(package, "holds no manifest.json", error);
    json_error_t reason;
    const JsonPtr manifest(json_loadb(text.data(), text.size(), 0, &reason));
    if (!manifest)
        return fail_with(error, VELKCTL_ERROR_INVALID_MANIFEST, package.path,
                         "manifest.json: line " + std::to_string(reason.line) + ": " + reason.text);
    const std::vector<ManifestFinding> findings = find_manifest_faults(manifest.get());
    if (!findings.empty())
        return fail_with(error, VELKCTL_ERROR_INVALID_MANIFEST, package.path,
                         "manifest.json: " + findings.front().key + ": " + findings.front().message);
    const auto& [place, last] = contents.manifests.back();
    const JsonPtr unpacked(json_loadb(last.data(), last.size(), 0, nullptr));
    return (&contents.members[place] == last_of_name(contents, "manifest.json") &&
            json_equal(unpacked.get(), manifest.get())) ||
           fail_package(package, "holds another manifest.json too", error);
}

/** What can be told of the unpacking without doing it. */
static bool check_members(const PackageFile& package, const PackageContents& contents, VelkctlError** error) {
    const PackageMember* configuration = last_of_name(contents, "package.conf");
    if (!configuration || configuration->type != '-' || !configuration->hard_link.empty())
        return fail_package(package, "holds no package.conf", error);
    for (const PackageMember& member : contents.members) {
        const std::string other = unpacked_name(member.hard_link);
        if (other == "manifest.json" || other == "package.conf")
            return fail_package(package, "holds another name of " + other, error);
    }
    for (const PackageMember& member : contents.members)
        if (member.is_device)
            return fail_package(package, "holds a device: " + member.name, error);
    return true;
}

static bool start_gpgv(const PackageFile& package, const std::string& keyring, Child* gpgv,
                       VelkctlError** error) {
    return gpgv->start(
        {"gpgv", "--ignore-time-conflict", "--status-fd=1", "--keyring", keyring, "%signature%", "-"},
        &*package.signature, error);
}

// A name in the archive may lead anywhere, so nothing is unpacked: tar only has to get to the end. What a
// user has it do otherwise no device does.
static bool start_tar(bool is_gzip, Child* tar, VelkctlError** error) {
    const char* script = "unset TAR_OPTIONS GZIP POSIXLY_CORRECT; exec tar \"$@\" -xOf - >/dev/null";
    const char* compression = is_gzip ? "--use-compress-program=gzip" : "--no-auto-compress";
    return tar->start({"sh", "-c", script, "tar", compression}, nullptr, error);
}

bool velk_pack_verify(const std::string& path, const std::string& keyring, Signer* signer,
                      VelkctlError** error) {
    std::string keyring_path;
    if (!check_keyring(keyring, &keyring_path, error))
        return false;
    const std::optional<PackageFile> package = open_package_file(path, error);
    Child gpgv;
    Child tar;
    if (!package || !check_package(*package, error) || !start_gpgv(*package, keyring_path, &gpgv, error))
        return false;
    bool is_first = true;
    const auto feed = [&](std::string_view block, VelkctlError** fault) {
        if (is_first && !start_tar(begins_as_gzip(block), &tar, fault))
            return false;
        is_first = false;
        gpgv.feed(block);
        tar.feed(block);
        return true;
    };
    PackageContents contents;
    ErrorSlot unread;
    const bool is_read = read_package_contents(*package, "verifying", feed, &contents, unread);
    const int status = gpgv.wait();
    const int tar_status = is_first ? -1 : tar.wait();
    if (status != 0)
        return fail_with(error, VELKCTL_ERROR_SIGNATURE, path,
                         (status == kBadSignature ? "the signature does not match: "
                                                  : "no key of the keyring made the signature: ") +
                             last_words(gpgv.errors()));
    *signer = signer_in_status(gpgv.output());
    if (!check_signature_text(*package, error))
        return false;
    if (!is_read) {
        unread.move_to(error);
        return false;
    }
    return check_manifest(*package, contents, error) && check_members(*package, contents, error) &&
           (tar_status == 0 ||
            fail_package(*package, "the archive cannot be read: " + last_words(tar.errors()), error));
}

// The signature may be anybody's: a few bytes of it can unpack to packets without end.
static constexpr const char* kListPackets =
    "ulimit -f 512 && ulimit -t 10 && ulimit -v 262144 && exec gpg --batch --homedir=/nonexistent "
    "--list-packets";

Signer claimed_signer(const std::string& signature) {
    Child gpg;
    ErrorSlot not_started;
    // A home that does not exist keeps gpg from making one and from looking at anybody's keys. It ends with a
    // complaint about that, so its status says nothing.
    if (!gpg.start({"sh", "-c", kListPackets}, nullptr, not_started))
        return {};
    gpg.feed(signature);
    (void)gpg.wait();
    const std::string& packets = gpg.output();
    Signer signer;
    signer.fingerprint = word_after(packets, "(issuer fpr v4 ");
    if (signer.fingerprint.empty())
        signer.fingerprint = word_after(packets, "keyid ");
    signer.time = g_ascii_strtoll(word_after(packets, " created ").c_str(), nullptr, 10);
    return signer;
}
