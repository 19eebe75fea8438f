#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/handles.h"
#include "base/velkctl-error.h"
#include "pack/velk-pack-verify.h"

/** A member of a package's archive. */
struct PackageMember {
    std::string name;
    char type;  ///< as ls shows it: '-', 'd', 'l', or '?' for what a device would not unpack
    uint32_t mode;
    uint64_t size;
};

/** What can be seen of a package without a key. */
struct PackageInfo {
    std::string path;
    uint64_t size = 0;
    uint64_t data_size = 0;
    bool is_compressed = false;
    std::optional<uint64_t> signature_size;  ///< of a signed package
    Signer signer;                           ///< as the signature says; nobody has checked it
    JsonPtr manifest;
    std::vector<PackageMember> members;
    uint64_t content_size = 0;  ///< bytes in the members
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
