#include "integration/unit-text.h"

/** Without trailing blanks, which the service manager would drop too. */
static std::string_view trimmed(std::string_view value) {
    const size_t last = value.find_last_not_of(" \t");
    return last == std::string_view::npos ? std::string_view() : value.substr(0, last + 1);
}

UnitText& UnitText::add(std::string_view section, std::string_view key, std::string_view value) {
    const std::string_view shown = trimmed(value);
    // A line that ends in a backslash goes on in the next one.
    if (key.find_first_of("\r\n") != std::string_view::npos ||
        value.find_first_of("\r\n") != std::string_view::npos || shown.ends_with('\\'))
        refused_ = true;
    if (refused_)
        return *this;
    if (section != section_) {
        text_.append(text_.empty() ? "[" : "\n[").append(section).append("]\n");
        section_ = section;
    }
    text_.append(key).append("=").append(shown).append("\n");
    return *this;
}

std::optional<std::string> UnitText::text(VelkctlError** error) const {
    if (!refused_)
        return text_;
    velkctl_error_set(error, VELKCTL_ERROR_GENERAL, "Systemd unit field contains invalid newline character");
    return std::nullopt;
}
