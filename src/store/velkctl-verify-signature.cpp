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
#include "manifest/names.h"
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
/** The whole of an armoured signature (RFC 4880, section 6.2): headers, a blank line, lines of radix 64, a
 * sum. */
static constexpr const char* kArmouredSignature =
    R"(^-----BEGIN PGP SIGNATURE-----[ \t]*\r?\n(?:[\w-]++: [^\r\n]*+\r?\n)*+[ \t]*\r?\n)"
    R"((?:[A-Za-z0-9+\/]++={0,2}[ \t]*\r?\n)++(?:=[A-Za-z0-9+\/]{4}[ \t]*\r?\n)?)"
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

static FilePtr open_package(const std::string& path, std::vector<char>* buffer, VelkctlError** error) {
    // Not blocking, so that a pipe of that name is refused by the first seek instead of being waited for.
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    FilePtr package(fd >= 0 ? fdopen(fd, "rb") : nullptr);
    if (!package) {
        SET_GENERAL_ERROR(error, "Failed opening file: %s: %s", path.c_str(), system_error_text().c_str());
        if (fd >= 0)
            close(fd);
        return nullptr;
    }
    buffer->resize(kReadBuffer);
    std::setvbuf(package.get(), buffer->data(), _IOFBF, buffer->size());
    posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    return package;
}

static int accept_unsigned_package(const char* appname, const char* path, OptionalPath* data,
                                   VelkctlError** error) {
    ErrorSlot settings;
    const bool allowed = unsigned_packages_allowed(settings);
    if (settings.is_set()) {
        settings.move_to(error);
        return -1;
    }
    if (!allowed) {
        velkctl_error_set(error, VELKCTL_ERROR_SIGNATURE, "Unsigned package not allowed");
        return -1;
    }
    if (data)
        *data = path;
    log_info("Unsigned package, skipping signature verification");
    if (!appname || !vsf_exists(appname))
        return 0;
    log_warning("VSF existed for unsigned application package");
    return remove_vsf(appname, error) ? 0 : -1;
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

int validate_signature_and_create_vsf(const char* appname, const char* path, OptionalPath* data,
                                      OptionalPath* signature, VsfMode mode, VelkctlError** error) {
    const VsfMode vsf = mode;
    assert(appname || vsf == CREATE_VSF_NO);
    if (!check_arguments(path, data, signature, error))
        return -1;
    const OptionalPath resolved = canonical_path(path, error);
    if (!resolved || !check_package_file_name(*resolved, error))
        return -1;
    std::vector<char> buffer;
    const FilePtr package = open_package(*resolved, &buffer, error);
    bool is_signed = false;
    if (!package || !read_package_kind(package.get(), path, &is_signed, error))
        return -1;
    if (!is_signed)
        return accept_unsigned_package(appname, path, data, error);

    Temporaries made;
    const std::optional<std::string> text = split_and_verify(package.get(), path, &made, error);
    hand_out_or_delete(made.signature, signature);
    // An interruption says nothing about the package.
    hand_out_or_delete(made.data, !text && kept_signal() != 0 ? nullptr : data);
    if (!text)
        return -1;
    if (mode == CREATE_VSF_NO)
        return 0;
    ErrorSlot state_file;
    if (create_vsf(appname, *text, state_file))
        return 0;
    state_file.move_to(error);
    return -1;
}

int verify_package_signature(const char* path, VelkctlError** error) {
    return validate_signature_and_create_vsf(nullptr, path, nullptr, nullptr, CREATE_VSF_NO, error);
}
