#pragma once

#include <string>
#include <string_view>

/**
 * The text as it may be shown on one line of a terminal or a log. Each byte of a control character (of either
 * set), of a character that is not seen or turns the direction of what is, and of what is no UTF-8 becomes
 * "\xNN"; everything else stays.
 */
[[nodiscard]] std::string printable(std::string_view text);
