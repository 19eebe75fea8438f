#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/velkctl-error.h"

/** Builds the text of one unit file, entry by entry. */
class UnitText {
  public:
    UnitText() = default;
    /** Begin with `Description` in section `Unit`. */
    explicit UnitText(std::string_view description) { add("Unit", "Description", description); }

    /**
     * Append an entry, below a new section line when the section is another one than that of the entry
     * before; a section's name can so appear more than once. Trailing blanks of the value are left out. A key
     * or value that the service manager would not read as one line spoils the text, and later entries are
     * then ignored.
     */
    UnitText& add(std::string_view section, std::string_view key, std::string_view value);

    /**
     * The whole text.
     *
     * @param error  code 10 "Systemd unit field contains invalid newline character" when an entry was refused
     */
    [[nodiscard]] std::optional<std::string> text(VelkctlError** error) const;

  private:
    std::string text_;
    std::string section_;
    bool refused_ = false;
};
