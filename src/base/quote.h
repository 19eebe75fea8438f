#pragma once

#include <string>

/**
 * The text inside double quotes, with a backslash before each double quote and backslash in it: the form that
 * the web server and the service manager both read back as the text.
 */
[[nodiscard]] inline std::string double_quoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char character : text) {
        if (character == '"' || character == '\\')
            quoted += '\\';
        quoted += character;
    }
    return quoted + "\"";
}
