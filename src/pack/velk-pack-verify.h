#pragma once

#include <string>

#include "base/velkctl-error.h"

/** Who signed a package. */
struct Signer {
    std::string fingerprint;  ///< or, when the signature does not tell it, the key's short identifier
    std::string user;         ///< empty when the signature alone was looked at
    int64_t time = 0;         ///< of the signature, in seconds since 1970; 0 when it is not told
};

/**
 * Check a package as a device does that verifies and imports it, in one pass over the package: its file's
 * name, its signature against a keyring, whether that can be recorded, its manifest and its archive. What
 * only the device can tell, or only unpacking shows, is left to it.
 *
 * @param keyring  a file of public keys in binary form, as devices have it
 * @param error    code 2 when it is not signed, or when no key of the keyring made the signature, or when
 * more than the signature stands at its place; code 29 for a rule of the manifest; code 1 for the archive;
 * code 10 for the package's name, for a signature that is not armoured, and when the keyring cannot be used;
 * that of open_package_file
 */
[[nodiscard]] bool velk_pack_verify(const std::string& package, const std::string& keyring, Signer* signer,
                                    VelkctlError** error);

/** Who a signature says that it is by; nobody has checked that. Needs gpg, and no keyring; empty without. */
[[nodiscard]] Signer claimed_signer(const std::string& signature);
