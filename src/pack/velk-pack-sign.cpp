#include "pack/velk-pack-sign.h"

#include <functional>
#include <string_view>

#include "manifest/names.h"
#include "pack/child.h"
#include "pack/output-file.h"
#include "pack/pack-error.h"
#include "pack/package-file.h"
#include "store/package-trailer.h"
#include "store/velkctl-verify-signature.h"
#include "system/file.h"

static constexpr const char* kArmour = "-----BEGIN PGP SIGNATURE-----";

static std::optional<PackageFile> open_unsigned(const std::string& path, VelkctlError** error) {
    std::optional<PackageFile> package = open_package_file(path, error);
    if (!package)
        return std::nullopt;
    if (package->signature) {
        fail_with(error, VELKCTL_ERROR_ALREADY_EXISTS, path, "is signed already");
        return std::nullopt;
    }
    if (package->data_size > static_cast<uint64_t>(PACKAGE_DATA_LIMIT)) {
        fail_with(error, VELKCTL_ERROR_INVALID_PACKAGE, path, "is 2 GiB or larger, which no device verifies");
        return std::nullopt;
    }
    return package;
}

static bool check_signature(const std::string& signature, const std::string& source, VelkctlError** error) {
    if (signature.find(kArmour) == std::string::npos)
        return fail_with(error, VELKCTL_ERROR_SIGNATURE, source,
                         "holds no armoured signature (gpg --armor --detach-sign makes one)");
    return is_signature_alone(signature) || fail_with(error, VELKCTL_ERROR_SIGNATURE, source,
                                                      "holds more than the signature, which no device takes");
}

static bool create_output(OutputFile* file, const std::string& output, VelkctlError** error) {
    ErrorSlot broken_rule;
    if (!check_package_file_name(output, broken_rule))
        return fail_with(error, VELKCTL_ERROR_GENERAL, output, broken_rule.message());
    return file->create(output, error);
}

static bool finish(OutputFile* file, const PackageFile& package, const std::string& signature,
                   const std::string& output, SignResult* result, VelkctlError** error) {
    const std::string trailer = encode_package_trailer(static_cast<uint32_t>(signature.size()));
    if (!file->write(signature, error) || !file->write(trailer, error) || !file->keep(error))
        return false;
    *result = {output, package.data_size + signature.size() + trailer.size(), signature.size()};
    return true;
}

bool velk_pack_sign(const std::string& path, const std::string& key, const std::string& output,
                    SignResult* result, VelkctlError** error) {
    const std::optional<PackageFile> package = open_unsigned(path, error);
    OutputFile file;
    Child gpg;
    if (!package || !create_output(&file, output, error) ||
        !gpg.start({"gpg", "--batch", "--armor", "--local-user=" + key, "--detach-sign"}, nullptr, error))
        return false;
    // Copied and hashed in the same go.
    const auto use = [&](std::string_view block) {
        gpg.feed(block);
        return file.write(block, error);
    };
    if (!for_each_data_block(*package, "signing", use, error))
        return false;
    if (gpg.wait() != 0)
        return fail_with(error, VELKCTL_ERROR_SIGNATURE, path,
                         "gpg made no signature with key '" + key + "': " + last_words(gpg.errors()));
    return check_signature(gpg.output(), "gpg", error) &&
           finish(&file, *package, gpg.output(), output, result, error);
}

bool velk_pack_attach(const std::string& path, const std::string& signature_file, const std::string& output,
                      SignResult* result, VelkctlError** error) {
    const std::optional<PackageFile> package = open_unsigned(path, error);
    if (!package)
        return false;
    ErrorSlot unread;
    const std::optional<std::string> signature = read_file(signature_file, unread);
    if (!signature)
        return fail_with_system_error(error, signature_file, "cannot be read");
    OutputFile file;
    const auto copy = [&](std::string_view block) { return file.write(block, error); };
    return check_signature(*signature, signature_file, error) && create_output(&file, output, error) &&
           for_each_data_block(*package, "attaching", copy, error) &&
           finish(&file, *package, *signature, output, result, error);
}
