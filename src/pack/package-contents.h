#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/velkctl-error.h"
#include "pack/package-file.h"

/** A member of a package's archive. */
struct PackageMember {
    std::string name;
    char type;  ///< as ls shows it: '-', 'd', 'l', or '?' for what a device would not unpack
    uint32_t mode;
    uint64_t size;
    std::string hard_link;   ///< the member that it is another name of, if any
    bool is_device = false;  ///< which nobody but root can make
};

/** What stands in a package's archive. */
struct PackageContents {
    bool is_compressed = false;
    std::vector<PackageMember> members;
    uint64_t size = 0;  ///< bytes in the members
    /** The texts of the members that are called manifest.json however they spell it, by their place among the
     * members. */
    std::vector<std::pair<size_t, std::string>> manifests;
};

/** Sees a block of a data part; returns false to stop, with the error set. */
using BlockUse = std::function<bool(std::string_view block, VelkctlError** error)>;

/**
 * Read the archive of a package to its end, with a bar on a terminal. What is kept of it has a bound,
 * whatever it unpacks to.
 *
 * @param label  of the bar
 * @param use    sees every block of the data part in order, also those behind the archive's end or behind
 * what is wrong with it
 * @param error  code 1 when the archive cannot be read to its end, or has more names or a larger manifest
 * than any application; code 10 when the file cannot be read; that of `use`
 */
[[nodiscard]] bool read_package_contents(const PackageFile& package, const std::string& label,
                                         const BlockUse& use, PackageContents* contents,
                                         VelkctlError** error);

/** Where a member of that name is unpacked to: without the slashes and dots that mean nothing. */
[[nodiscard]] std::string unpacked_name(const std::string& name);
