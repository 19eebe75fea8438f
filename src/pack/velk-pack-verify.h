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
 * Check a package's signature against a keyring, as a device does, in one pass over the package.
 *
 * @param keyring  a file of public keys in binary form, as devices have it
 * @param error    code 2 when it is not signed, or when no key of the keyring made the signature; code 10
 * when the keyring cannot be used; that of open_package_file
 */
[[nodiscard]] bool velk_pack_verify(const std::string& package, const std::string& keyring, Signer* signer,
                                    VelkctlError** error);

/** Who a signature says that it is by; nobody has checked that. Needs gpg, and no keyring; empty without. */
[[nodiscard]] Signer claimed_signer(const std::string& signature);
