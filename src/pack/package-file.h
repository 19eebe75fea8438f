#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "base/handles.h"
#include "base/velkctl-error.h"

/** An open package: what stands at its end is known, its data part is still to be read, once. */
struct PackageFile {
    std::string path;
    UniqueFd fd;
    uint64_t size = 0;
    uint64_t data_size = 0;
    std::optional<std::string> signature;  ///< of a signed package
};

/**
 * Open a package and read its trailer and signature.
 *
 * @param error  code 10 when it cannot be read; code 1 when it is no file or smaller than a trailer; code 2
 * for a trailer that breaks a rule, with the device's words; all name the package
 */
[[nodiscard]] std::optional<PackageFile> open_package_file(const std::string& path, VelkctlError** error);

/**
 * The next block of a data part, for reading it from its start to its end.
 *
 * @param position  where the block starts; moved behind it
 * @param buffer    receives the block; it is empty at the end of the data part
 * @param error     code 10, also for a file that has become shorter
 */
[[nodiscard]] bool read_data_block(const PackageFile& package, uint64_t* position, std::string* buffer,
                                   VelkctlError** error);

/** How many bytes of a data part are read at a time. */
inline constexpr size_t DATA_BLOCK = 256 << 10;

/**
 * Hand the data part to `use`, block by block, with a bar on a terminal.
 *
 * @param label  of the bar
 * @param use    returns false to stop, with the error set
 * @param error  code 1 when it begins neither as a tar archive nor as a gzip file; code 10 when it cannot be
 * read; that of `use`
 */
[[nodiscard]] bool for_each_data_block(const PackageFile& package, const std::string& label,
                                       const std::function<bool(std::string_view block)>& use,
                                       VelkctlError** error);

/** Whether the first bytes of a data part are those of a gzip file. */
[[nodiscard]] bool begins_as_gzip(std::string_view start);
