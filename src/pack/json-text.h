#pragma once

#include <glib.h>
#include <jansson.h>

#include <cstdint>
#include <string>

#include "base/handles.h"

/** The text as a JSON value; bytes that are no UTF-8, which cannot stand in one, are replaced. */
inline json_t* json_text(const std::string& text) {
    const GStringPtr valid(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
    return json_string(valid.get());
}

/** The number as a JSON value. */
inline json_t* json_number(uint64_t number) { return json_integer(static_cast<json_int_t>(number)); }
