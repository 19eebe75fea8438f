#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>

#include "base/handles.h"
#include "base/velkctl-error.h"
#include "manifest/parsed-manifest.h"

/** What an archive unpacks to. */
struct ArchiveSize {
    uint64_t bytes = 0;
    bool is_single_gzip = false;  ///< one gzip stream and nothing behind it
};

/**
 * The package of one command: opened once and examined once. Whatever is asked of it later is answered from
 * what was read then, so that a file that takes the package's name meanwhile is not taken for it; and where a
 * path must be used once more, `require_unchanged` tells that it still led to the same.
 */
class Package {
  public:
    Package() = default;
    Package(const Package&) = delete;
    Package& operator=(const Package&) = delete;
    ~Package() { release_data(); }

    /**
     * Find and open the package. One that cannot be opened has no descriptor; who needs it says so.
     *
     * @param error  code 10 for a path that leads nowhere or a file name that is not allowed
     */
    [[nodiscard]] bool open(const std::string& path, VelkctlError** error);
    /** Read and parse the manifest in it; as load_package_manifest and parse_manifest. */
    [[nodiscard]] bool read_manifest(VelkctlError** error);
    /** Whether the path and the descriptor are what was opened; code 1 "Invalid application package". */
    [[nodiscard]] bool require_unchanged(VelkctlError** error) const;

    /** The canonical path. */
    [[nodiscard]] const std::string& path() const { return path_; }
    /** The open package, -1 when it could not be opened, for the reason of open_failure(). */
    [[nodiscard]] int fd() const { return fd_.get(); }
    [[nodiscard]] int open_failure() const { return open_failure_; }
    [[nodiscard]] const json_t* manifest() const { return manifest_.get(); }
    [[nodiscard]] const ParsedManifest& parsed() const { return parsed_; }
    [[nodiscard]] const std::string& app() const { return parsed_.appName; }

    // --- After verification ---

    /**
     * Keep what passed verification.
     *
     * @param data    the file of the data part, a temporary one when it is not the package itself
     * @param record  the text of the verification state file, none for an unsigned package
     */
    void adopt(std::string data, std::optional<std::string> record);
    /** The file of the data part. */
    [[nodiscard]] const std::string& data() const { return data_; }
    [[nodiscard]] bool is_own_data() const { return data_ == path_; }
    /**
     * The path by which root reads the data part: through the descriptor when it is the package itself, whose
     * name may by now be a pipe's or lead to a device. Who else must read it gets data().
     */
    [[nodiscard]] std::string data_for_root() const { return is_own_data() ? reading_path() : data_; }
    [[nodiscard]] const std::optional<std::string>& record() const { return record_; }
    /** What the data part unpacks to, once it was measured. */
    [[nodiscard]] const std::optional<ArchiveSize>& size() const { return size_; }
    void remember_size(ArchiveSize size) { size_ = size; }
    /** Delete a temporary data part, at the latest with the package. A failure is only told. */
    void release_data();

  private:
    [[nodiscard]] std::string reading_path() const;

    std::string path_;
    UniqueFd fd_;
    int open_failure_ = 0;
    struct stat opened_ {};
    JsonPtr manifest_;
    ParsedManifest parsed_;
    std::string data_;
    std::optional<std::string> record_;
    std::optional<ArchiveSize> size_;
};
