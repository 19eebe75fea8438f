#include "system/key-file.h"

#include <cassert>

#include "base/handles.h"
#include "base/log.h"

bool get_keyfile_bool(const std::string& file, const char* group, const char* key, bool fallback,
                      VelkctlError** error) {
    assert(error);
    const char* fallback_text = fallback ? "true" : "false";
    const KeyFilePtr keys(g_key_file_new());
    GErrorSlot load_error;
    if (!g_key_file_load_from_file(keys.get(), file.c_str(), G_KEY_FILE_KEEP_COMMENTS, load_error.out())) {
        if (g_error_matches(load_error.get(), G_FILE_ERROR, G_FILE_ERROR_NOENT))
            log_info("Defaulting to '%s' for [%s].%s, no keyfile: %s", fallback_text, group, key,
                     file.c_str());
        return fallback;
    }
    GErrorSlot read_error;
    const bool value = g_key_file_get_boolean(keys.get(), group, key, read_error.out());
    if (!read_error.get())
        return value;
    log_warning("Defaulting to '%s' for [%s].%s, bad keyfile: %s", fallback_text, group, key, file.c_str());
    SET_GENERAL_ERROR(error, "Failed reading key %s, group %s from %s: %s", key, group, file.c_str(),
                      read_error.message());
    return fallback;
}

bool get_keyfile_int(int32_t* value, const std::string& file, const char* group, const char* key,
                     VelkctlError** error) {
    const KeyFilePtr keys(g_key_file_new());
    GErrorSlot reason;
    int32_t number = 0;
    if (g_key_file_load_from_file(keys.get(), file.c_str(), G_KEY_FILE_NONE, reason.out()))
        number = g_key_file_get_integer(keys.get(), group, key, reason.out());
    if (reason.get()) {
        SET_GENERAL_ERROR(error, "Failed reading key %s, group %s from %s: %s", key, group, file.c_str(),
                          reason.message());
        return false;
    }
    *value = number;
    return true;
}

static KeyFilePtr load_group(const std::string& file, const std::string& group, VelkctlError** error) {
    KeyFilePtr keys(g_key_file_new());
    GErrorSlot reason;
    // Without its flag GLib drops keys that end in "[...]": it takes them for texts in languages not spoken
    // here.
    const auto flags = static_cast<GKeyFileFlags>(G_KEY_FILE_KEEP_COMMENTS | G_KEY_FILE_KEEP_TRANSLATIONS);
    if (g_key_file_load_from_file(keys.get(), file.c_str(), flags, reason.out()) &&
        g_key_file_has_group(keys.get(), group.c_str()))
        return keys;
    const std::string text = reason.get() ? reason.message() : "there is no group " + group;
    SET_GENERAL_ERROR(error, "Failed loading keys from: %s Error: %s", file.c_str(), text.c_str());
    return nullptr;
}

std::string merge_key_files(const std::string& group, const std::string& current, const std::string& saved,
                            VelkctlError** error) {
    const KeyFilePtr merged = load_group(current, group, error);
    const KeyFilePtr saved_keys = merged ? load_group(saved, group, error) : nullptr;
    if (!saved_keys)
        return {};
    const GStringVectorPtr names(g_key_file_get_keys(saved_keys.get(), group.c_str(), nullptr, nullptr));
    for (char** name = names.get(); name && *name; name++) {
        const GStringPtr value(g_key_file_get_value(saved_keys.get(), group.c_str(), *name, nullptr));
        g_key_file_set_value(merged.get(), group.c_str(), *name, value.get());
    }
    GErrorSlot reason;
    const GStringPtr text(g_key_file_to_data(merged.get(), nullptr, reason.out()));
    if (reason.get()) {
        SET_GENERAL_ERROR(error, "Failed parsing merged contents from %s and %s. Error: %s", current.c_str(),
                          saved.c_str(), reason.message());
        return {};
    }
    return text.get();
}
