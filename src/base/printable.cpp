#include "base/printable.h"

#include <glib.h>

#include <cstdio>

static constexpr auto kInvalid = static_cast<gunichar>(-1);
static constexpr auto kIncomplete = static_cast<gunichar>(-2);

static bool is_shown(gunichar character) {
    switch (g_unichar_type(character)) {
        case G_UNICODE_CONTROL:
        case G_UNICODE_FORMAT:
        case G_UNICODE_LINE_SEPARATOR:
        case G_UNICODE_PARAGRAPH_SEPARATOR:
            return false;
        default:
            return true;
    }
}

std::string printable(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
        const gunichar character =
            text[0] == '\0' ? 0 : g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
        const bool is_text = character != kInvalid && character != kIncomplete;
        const std::string_view bytes =
            text.substr(0, is_text ? static_cast<size_t>(g_unichar_to_utf8(character, nullptr)) : 1);
        text.remove_prefix(bytes.size());
        if (is_text && is_shown(character)) {
            shown += bytes;
            continue;
        }
        for (const char byte : bytes) {
            char escaped[5];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(byte));
            shown += escaped;
        }
    }
    return shown;
}
