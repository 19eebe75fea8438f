#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/velkctl-error.h"

/** The last bytes of a signed package: its magic number, big-endian. */
inline constexpr uint64_t PACKAGE_MAGIC = 0x658D14AB4207AAC6;

/**
 * More than any control file has. A parsed one takes up to eighty times as much memory, and a few kilobytes
 * of a package that nobody verified yet unpack to this.
 */
inline constexpr size_t CONTROL_FILE_LIMIT = 1 << 20;

/** Whether the file ends in PACKAGE_MAGIC; what cannot be read does not. */
[[nodiscard]] bool has_package_magic(const std::string& path);

/**
 * While it lives, each tar that is started unpacks gzip with pigz where the device has one and that is
 * wanted: in half the time. Else with gzip, and with nothing else: tar itself would take a file that is both
 * for a plain archive.
 *
 * pigz is meant for files of which the two say the same only: at what stands behind the stream gzip lets tar
 * fail, while pigz says nothing. Works by TAR_OPTIONS, whose value is back afterwards.
 */
class TarGzip {
  public:
    TarGzip(const std::string& archive, bool pigz_wanted);
    TarGzip(const TarGzip&) = delete;
    TarGzip& operator=(const TarGzip&) = delete;
    ~TarGzip();

  private:
    std::optional<std::string> old_options_;
};

/**
 * The contents of one member of a package, or of one file of an unpacked application when `archive` is a
 * directory. A member stored with "./" before its name is found too.
 *
 * @param error  code 1 "Invalid application package" when tar cannot give the member, or when it is larger
 * than CONTROL_FILE_LIMIT; code 10 "Failed spawning a child process: %s"
 */
[[nodiscard]] std::optional<std::string> read_tar_member(const std::string& archive,
                                                         const std::string& member, VelkctlError** error);

/**
 * The number of bytes that a gzip file unpacks to; the plain size of a file that is not compressed.
 *
 * @param error  code 10 "Failed to open gzip archive: %s" with the system's text, or "Failed to read gzip
 * archive %s: %s"; the result is then 0
 */
[[nodiscard]] uint64_t uncompressed_size(const std::string& path, VelkctlError** error);

/**
 * The number of bytes that a file unpacks to when it is one sound gzip stream with nothing behind it; nothing
 * for every other file, and for one that cannot be read.
 */
[[nodiscard]] std::optional<uint64_t> single_gzip_size(const std::string& path);
