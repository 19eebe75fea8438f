#pragma once

#include <string>
#include <string_view>

#include "base/velkctl-error.h"

/** A folder that is there whole or not at all: it is filled under another name and renamed when it is kept.
 */
class NewFolder {
  public:
    NewFolder() = default;
    NewFolder(const NewFolder&) = delete;
    NewFolder& operator=(const NewFolder&) = delete;
    /** What was not kept is deleted. */
    ~NewFolder();

    /** Begin the folder; code 14 when there is anything at `path`, code 10 when it cannot be made. */
    [[nodiscard]] bool create(const std::string& path, VelkctlError** error);
    /** Where the file of that name is filled in. */
    [[nodiscard]] std::string file(const std::string& name) const { return temporary_ + "/" + name; }
    /** Write a file, the folders above it included; code 10. */
    [[nodiscard]] bool add_file(const std::string& name, std::string_view text, bool is_executable,
                                VelkctlError** error);
    /** Put it in its place; code 10. */
    [[nodiscard]] bool keep(VelkctlError** error);

  private:
    std::string path_;
    std::string temporary_;
};
