#pragma once

#include <string>
#include <string_view>

#include "base/handles.h"
#include "base/velkctl-error.h"

/**
 * A file that is there whole or not at all: it is written without a name, or beside its place under another
 * one, and takes its place when it is kept. Failures are code 10 and name the file's place.
 */
class OutputFile {
  public:
    OutputFile() = default;
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    /** What was not kept is deleted. */
    ~OutputFile();

    /** Begin the file that is to be at `path`. */
    [[nodiscard]] bool create(const std::string& path, VelkctlError** error);
    [[nodiscard]] bool write(std::string_view data, VelkctlError** error);
    /** Put it in its place, mode 0644, in place of an older file there. */
    [[nodiscard]] bool keep(VelkctlError** error);

  private:
    bool name_it();

    std::string path_;
    std::string temporary_;  ///< empty as long as it has no name at all
    UniqueFd fd_;
};
