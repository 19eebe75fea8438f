#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "base/velkctl-error.h"
#include "system/archive.h"

/*
 * A signed package is a data part, a detached signature, and a trailer of 16 bytes: the size of the
 * signature, the version of the format and a magic number, all big-endian. These functions read an open
 * package and move its position.
 */

/** The trailer of a signed package. */
struct PackageTrailer {
    uint32_t signature_size;
    uint32_t version;
    uint64_t magic;
};

inline constexpr uint32_t PACKAGE_TRAILER_SIZE = 16;
inline constexpr uint32_t PACKAGE_VERSION = 1;
/** The largest signature that is read. */
inline constexpr uint32_t PACKAGE_SIGNATURE_LIMIT = 0x7FFFFFF0;
/** The largest data part of a signed package: lengths are signed 32-bit numbers in packages of this version.
 */
inline constexpr int32_t PACKAGE_DATA_LIMIT = INT32_MAX;
/** The mode of a data part in a file of its own that a command leaves for good. */
inline constexpr mode_t PACKAGE_DATA_MODE = 0644;

/**
 * Whether the package ends in the magic number.
 *
 * @param path   for messages
 * @param error  code 1 when it is smaller than a trailer or its size cannot be told, 2 when the magic cannot
 * be read
 * @return false on failure with `is_signed` untouched
 */
[[nodiscard]] bool read_package_kind(std::FILE* package, const std::string& path, bool* is_signed,
                                     VelkctlError** error);

/** Read and check the trailer of a signed package; code 2, with `trailer` untouched. */
[[nodiscard]] bool read_package_trailer(std::FILE* package, PackageTrailer* trailer, VelkctlError** error);

/** The three rules of a trailer in a package of `size` bytes; code 2. */
[[nodiscard]] bool check_package_trailer(const PackageTrailer& trailer, off_t size, VelkctlError** error);

/** The trailer in exactly PACKAGE_TRAILER_SIZE bytes, unchecked. */
[[nodiscard]] PackageTrailer decode_package_trailer(std::string_view bytes);

/** The bytes of the trailer behind a signature of that size. */
[[nodiscard]] std::string encode_package_trailer(uint32_t signature_size);

/**
 * Write the signature into a new file made from `name_template`, whose six X before the four characters of
 * its ending become random.
 *
 * @param made   receives the file's name as soon as it exists, also when writing it fails
 * @param error  code 2 when the package cannot be read, 10 when the file cannot be written
 */
[[nodiscard]] bool copy_package_signature(std::FILE* package, const PackageTrailer& trailer,
                                          const std::string& name_template, std::string* made,
                                          VelkctlError** error);

/**
 * Write the data part into a new file made from `name_template` as above, mode 0644 with the sticky bit,
 * which says that a command still works with it: one that is found so later was left by a command that died.
 *
 * @param path   of the package, for messages
 * @param made   receives the file's name; untouched on failure, when the file is deleted again
 * @param error  code 2 when the package has no data part of less than 2 GiB, 10 when it cannot be copied
 */
[[nodiscard]] bool copy_package_data(std::FILE* package, const PackageTrailer& trailer,
                                     const std::string& path, const std::string& name_template,
                                     std::string* made, VelkctlError** error);

/** Leave such a file for good, without that bit. */
void keep_package_data(const std::string& path);
