#include "store/velkctl-verify-signature.h"

#include <fcntl.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <string_view>
#include <vector>

#include "base/handles.h"
#include "base/interruption.h"
#include "base/log.h"
#include "base/paths.h"
#include "store/package-trailer.h"
#include "store/velkctl-vsf.h"
#include "system/file.h"
#include "system/key-file.h"
#include "system/regex.h"
#include "system/subprocess.h"

using OptionalPath = std::optional<std::string>;

// Callers and their operators know this operation by this name.
static constexpr const char* kOperation = "velkctl_split_package_verify_signature";
static constexpr size_t kReadBuffer = 128 << 10;
/** The whole of an armoured signature (RFC 4880, section 6.2): headers, of which each may be empty, a blank
 * line, lines of radix 64, a sum; blank lines where gpgv passes over them. Nothing in it is tried twice. */
static constexpr const char* kArmouredSignature =
    R"(^[ \t\r\n]*+-----BEGIN PGP SIGNATURE-----[ \t]*+\r?\n(?:[\w-]*+:(?: [^\r\n]*+)?\r?\n)*+)"
    R"([ \t]*+\r?\n[ \t\r\n]*+(?:[A-Za-z0-9+\/]++={0,2}[ \t]*+\r?\n)++(?:=[A-Za-z0-9+\/]{4}[ \t]*+\r?\n)?)"
    R"(-----END PGP SIGNATURE-----\s*+$)";

/** The temporary files of one verification, empty for one that was not made. */
struct Temporaries {
    std::string data;
    std::string signature;
};

bool unsigned_packages_allowed(VelkctlError** error) {
    return get_keyfile_bool(paths::kSettingsFile, "Install", "AllowUnsigned", false, error);
}

static bool check_arguments(const char* path, const OptionalPath* data, const OptionalPath* signature,
                            VelkctlError** error) {
    if (!path) {
        set_null_argument_error(error, kOperation, "path");
        return false;
    }
    if (data && *data) {
        set_not_null_argument_error(error, kOperation, "data");
        return false;
    }
    if (signature && *signature) {
        set_not_null_argument_error(error, kOperation, "signature");
        return false;
    }
    return true;
}

/** A stream of its own on the open package. */
static FilePtr open_package(const Package& package, std::vector<char>* buffer, VelkctlError** error) {
    errno = package.open_failure();
    const int fd = package.fd() >= 0 ? fcntl(package.fd(), F_DUPFD_CLOEXEC, 0) : -1;
    FilePtr stream(fd >= 0 ? fdopen(fd, "rb") : nullptr);
    if (!stream) {
        SET_GENERAL_ERROR(error, "Failed opening file: %s: %s", package.path().c_str(),
                          system_error_text().c_str());
        if (fd >= 0)
            close(fd);
        return nullptr;
    }
    buffer->resize(kReadBuffer);
    std::setvbuf(stream.get(), buffer->data(), _IOFBF, buffer->size());
    posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    return stream;
}

static bool require_unsigned_allowed(VelkctlError** error) {
    ErrorSlot settings;
    const bool allowed = unsigned_packages_allowed(settings);
    if (settings.is_set())
        settings.move_to(error);
    else if (!allowed)
        velkctl_error_set(error, VELKCTL_ERROR_SIGNATURE, "Unsigned package not allowed");
    return allowed;
}

static void tell_unsigned() { log_info("Unsigned package, skipping signature verification"); }

static int accept_unsigned_package(const char* appname, const char* path, OptionalPath* data,
                                   VelkctlError** error) {
    if (data)
        *data = path;
    tell_unsigned();
    return !appname || remove_vsf_of_unsigned(appname, error) ? 0 : -1;
}

static void set_no_openpgp(VelkctlError** error) {
    velkctl_error_set(error, VELKCTL_ERROR_SIGNATURE, "Bad signature, no valid OpenPGP data found");
}

static bool run_gpgv(const Temporaries& made, VelkctlError** error) {
    ErrorSlot reason;
    const int status = run_command(reason, "gpgv --ignore-time-conflict --keyring '%s' '%s' '%s' 2>&1",
                                   {paths::kKeyring, made.signature.c_str(), made.data.c_str()});
    if (status < 0 && kept_signal() != 0)
        reason.move_to(error);
    else if (status == 1)
        velkctl_error_set(error, VELKCTL_ERROR_SIGNATURE, "Bad signature, doesn't match keyring");
    else if (status != 0)
        set_no_openpgp(error);
    return status == 0;
}

// gpgv passes over whatever stands around an armoured signature, and before its last line. All of it would go
// into the record, and be read by every listing.
bool is_signature_alone(const std::string& text) {
    ErrorSlot mismatch;
    return text.size() <= SIGNATURE_TEXT_LIMIT && (text.find("-----BEGIN PGP ") == std::string::npos ||
                                                   check_regex(kArmouredSignature, text, mismatch));
}

static std::optional<std::string> read_signature(const std::string& path, uint32_t size,
                                                 VelkctlError** error) {
    if (size > SIGNATURE_TEXT_LIMIT) {
        set_no_openpgp(error);
        return std::nullopt;
    }
    std::optional<std::string> text = read_file(path, error);
    if (!text || is_signature_alone(*text))
        return text;
    set_no_openpgp(error);
    return std::nullopt;
}

/** The text of the signature when it is good; `made` tells which files were made, also on failure. */
static std::optional<std::string> split_and_verify(std::FILE* package, const char* path, Temporaries* made,
                                                   VelkctlError** error) {
    PackageTrailer trailer{};
    if (!read_package_trailer(package, &trailer, error) ||
        !copy_package_signature(package, trailer, paths::kTemporarySignature, &made->signature, error) ||
        !copy_package_data(package, trailer, path, paths::kTemporaryData, &made->data, error) ||
        !run_gpgv(*made, error))
        return std::nullopt;
    return read_signature(made->signature, trailer.signature_size, error);
}

/** Hand a temporary file out when its slot is given, else delete it. */
static void hand_out_or_delete(const std::string& made, OptionalPath* slot) {
    if (made.empty())
        return;
    if (slot)
        *slot = made;
    else if (unlink(made.c_str()) != 0)
        log_warning("Failed to unlink file: %s: %s", made.c_str(), system_error_text().c_str());
}

namespace {

/** What was found of a package. */
struct Judgement {
    bool is_signed = false;
    Temporaries made;       ///< of a signed one
    std::string signature;  ///< the text of a good one
};

}  // namespace

/** Judge a package; `path` is what messages call it. The temporary files that were made stay. */
static bool judge(const Package& package, const char* path, Judgement* judgement, VelkctlError** error) {
    std::vector<char> buffer;
    const FilePtr stream = open_package(package, &buffer, error);
    if (!stream || !read_package_kind(stream.get(), path, &judgement->is_signed, error))
        return false;
    if (!judgement->is_signed)
        return require_unsigned_allowed(error);
    std::optional<std::string> text = split_and_verify(stream.get(), path, &judgement->made, error);
    if (text)
        judgement->signature = std::move(*text);
    return text.has_value();
}

int validate_signature_and_create_vsf(const char* appname, const char* path, OptionalPath* data,
                                      OptionalPath* signature, VsfMode mode, VelkctlError** error) {
    const VsfMode vsf = mode;
    assert(appname || vsf == CREATE_VSF_NO);
    Package package;
    if (!check_arguments(path, data, signature, error) || !package.open(path, error))
        return -1;
    Judgement judgement;
    const bool passes = judge(package, path, &judgement, error) && package.require_unchanged(error);
    if (passes && !judgement.is_signed)
        return accept_unsigned_package(appname, path, data, error);
    hand_out_or_delete(judgement.made.signature, signature);
    // An interruption says nothing about the package.
    hand_out_or_delete(judgement.made.data, !passes && kept_signal() != 0 ? nullptr : data);
    if (!passes)
        return -1;
    return mode == CREATE_VSF_NO || create_vsf(appname, judgement.signature, error) ? 0 : -1;
}

bool verify_package(const Package& package, VerifiedParts* parts, VelkctlError** error) {
    Judgement judgement;
    const bool passes = judge(package, package.path().c_str(), &judgement, error);
    hand_out_or_delete(judgement.made.signature, nullptr);
    // An interruption says nothing about the package.
    if (!passes && kept_signal() != 0) {
        hand_out_or_delete(judgement.made.data, nullptr);
        judgement.made.data.clear();
    }
    parts->data = judgement.is_signed ? judgement.made.data : package.path();
    if (passes && judgement.is_signed)
        parts->signature = std::move(judgement.signature);
    else if (passes)
        tell_unsigned();
    return passes;
}

int verify_package_signature(const char* path, VelkctlError** error) {
    return validate_signature_and_create_vsf(nullptr, path, nullptr, nullptr, CREATE_VSF_NO, error);
}
