#pragma once

#include <cstdint>
#include <string>

#include "base/velkctl-error.h"
#include "pack/folder.h"

/** What was packed. */
struct BuildResult {
    std::string path;
    uint64_t entries;
    uint64_t content_size;
    uint64_t size;
};

/**
 * Pack a folder whose check had no findings. The same content gives the same bytes: owner, times and the
 * order are fixed, and of a file's mode only the executable bit is kept.
 *
 * @param output    where the package is to be
 * @param compress  gzip, or a plain tar archive
 * @param error     code 10 for an output whose name no device accepts or that lies in the folder, and when
 * something cannot be read or written, naming it. What was at `output` before is then still there.
 */
[[nodiscard]] bool velk_pack_build(const Folder& folder, const std::string& output, bool compress,
                                   BuildResult* result, VelkctlError** error);
