#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/velkctl-error.h"
#include "store/package.h"

/** More than any signature takes. */
inline constexpr uint32_t SIGNATURE_TEXT_LIMIT = 1 << 20;

/** Whether a text that gpgv takes is a signature with nothing around it; no larger one passes. */
[[nodiscard]] bool is_signature_alone(const std::string& text);

/** Whether a good signature is recorded. */
enum VsfMode {
    CREATE_VSF_NO,
    CREATE_VSF,  ///< write the application's verification state file; needs its name
};

/**
 * Verify a package: a signed one by gpgv against the device's keyring, an unsigned one by the "AllowUnsigned"
 * setting.
 *
 * A signed package is split into two temporary files. Each is handed out when its slot is given, and is then
 * the caller's to delete; otherwise it is deleted here. For an unsigned package the data is the package
 * itself.
 *
 * @param appname    required unless `mode` is CREATE_VSF_NO (asserted)
 * @param data       optional, must be empty; receives the path of the data, also when gpgv refuses the
 * signature
 * @param signature  optional, must be empty; receives the path of the signature, also on a failure after it
 * was made
 * @param error      code 1 for a file too small or exchanged meanwhile, 2 for every fault of the signature,
 * 10 for the rest
 * @return 0, or -1 on failure
 */
[[nodiscard]] int validate_signature_and_create_vsf(const char* appname, const char* path,
                                                    std::optional<std::string>* data,
                                                    std::optional<std::string>* signature, VsfMode mode,
                                                    VelkctlError** error);

/** What verification leaves to who takes the package over. */
struct VerifiedParts {
    std::string data;                      ///< a temporary file, or the package itself when it is unsigned
    std::optional<std::string> signature;  ///< the text of the good signature of a signed one
};

/**
 * The same for a package that is open: nothing is recorded, and what happened to its path meanwhile is not
 * asked.
 *
 * @param parts  on failure, the data part of a signed package that was refused, when it was made: it stays
 * for whoever looks into the matter
 */
[[nodiscard]] bool verify_package(const Package& package, VerifiedParts* parts, VelkctlError** error);

/** Verify a package and record nothing; 0, or -1 with the codes of validate_signature_and_create_vsf. */
[[nodiscard]] int verify_package_signature(const char* path, VelkctlError** error);

/** The device's setting whether unsigned packages pass; false together with an error when it cannot be read.
 */
[[nodiscard]] bool unsigned_packages_allowed(VelkctlError** error);
