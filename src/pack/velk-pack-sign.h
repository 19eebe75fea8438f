#pragma once

#include <string>

#include "base/velkctl-error.h"

/** What became of a package that was signed. */
struct SignResult {
    std::string path;
    uint64_t size;
    uint64_t signature_size;
};

/**
 * Sign a package with gpg: its data part stays, the signature and the trailer are put behind it.
 *
 * @param key     what gpg is to find the key by
 * @param output  where the signed package is to be; the package itself may be replaced
 * @param error   code 14 when it is signed already; code 2 when gpg gives no signature, with its last words;
 * code 1 when it is no archive or too large for a signed package; code 10 when something cannot be read or
 * written. What was at `output` before is then still there.
 */
[[nodiscard]] bool velk_pack_sign(const std::string& package, const std::string& key,
                                  const std::string& output, SignResult* result, VelkctlError** error);

/**
 * The same with a detached armoured signature that was made elsewhere. Whether it is one of this package is
 * for verification to say.
 *
 * @param error  as for velk_pack_sign; code 2 when the file holds no armoured signature
 */
[[nodiscard]] bool velk_pack_attach(const std::string& package, const std::string& signature_file,
                                    const std::string& output, SignResult* result, VelkctlError** error);
