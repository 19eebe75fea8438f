#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/handles.h"
#include "base/velkctl-error.h"

/** Something in an application's folder that goes into its package. */
struct FolderEntry {
    std::string name;  ///< below the folder
    std::string path;
    struct stat status;  ///< links not followed
};

/** An application's folder. */
struct Folder {
    std::string name;  ///< as the user wrote it
    std::string path;  ///< canonical
    std::vector<FolderEntry>
        entries;                ///< in the order in which they are packed: the manifest, then by byte value
    uint64_t content_size = 0;  ///< bytes in its files
};

/** One thing that a device would refuse. */
struct Finding {
    int32_t code;
    std::string file;
    std::string key;  ///< of the manifest; empty when the file as a whole is at fault
    std::string message;
};

/**
 * Look at everything in a folder.
 *
 * @param error  code 10 when it is no folder or cannot be read, naming it
 */
[[nodiscard]] std::optional<Folder> read_folder(const std::string& name, VelkctlError** error);

/**
 * Everything that keeps a device from taking the folder's package, as far as it can be told without one: the
 * manifest's rules, and what the manifest promises about files.
 *
 * @param manifest  receives the manifest when it could be read at all
 */
[[nodiscard]] std::vector<Finding> check_folder(const Folder& folder, JsonPtr* manifest);
