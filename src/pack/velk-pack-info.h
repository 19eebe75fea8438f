#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/handles.h"
#include "base/velkctl-error.h"
#include "pack/package-contents.h"
#include "pack/velk-pack-verify.h"

/** What can be seen of a package without a key. */
struct PackageInfo {
    std::string path;
    uint64_t size = 0;
    uint64_t data_size = 0;
    std::optional<uint64_t> signature_size;  ///< of a signed package
    Signer signer;                           ///< as the signature says; nobody has checked it
    PackageContents contents;
    JsonPtr manifest;  ///< the first one in the archive
};

/**
 * Look into a package, in one pass over it.
 *
 * @param error  that of open_package_file; code 1 when the archive cannot be read to its end or has no
 * manifest; code 29 when the manifest is no JSON
 */
[[nodiscard]] std::optional<PackageInfo> velk_pack_info(const std::string& package, VelkctlError** error);

/** The answer of `info` for people. */
[[nodiscard]] std::string info_text(const PackageInfo& info);
/** The same for machines. */
[[nodiscard]] JsonPtr info_json(const PackageInfo& info);
