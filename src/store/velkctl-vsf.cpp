#include "store/velkctl-vsf.h"

#include <cassert>
#include <cstdlib>

#include "base/handles.h"
#include "base/log.h"
#include "base/paths.h"
#include "manifest/names.h"
#include "system/file.h"

static constexpr const char* kConfirmed = "confirmed";
static constexpr size_t kIndent = 2;

std::string vsf_path(const std::string& app) { return std::string(paths::kVerificationStates) + "/" + app; }

std::optional<std::string> vsf_text(const std::string& signature) {
    // A zero byte could be written but never read back: the reader would call the whole file broken.
    if (signature.find('\0') != std::string::npos)
        return std::nullopt;
    const JsonPtr object(
        json_pack("{s:o?, s:s}", "signature", json_string(signature.c_str()), "state", kConfirmed));
    if (!object || !json_is_string(json_object_get(object.get(), "signature")))
        return std::nullopt;
    const std::unique_ptr<char, ReleaseWith<std::free>> text(json_dumps(object.get(), JSON_INDENT(kIndent)));
    return text ? std::optional<std::string>(text.get()) : std::nullopt;
}

std::optional<std::string> vsf_state_in_text(const std::string& app, const std::string& text,
                                             VelkctlError** error) {
    const JsonPtr object(json_loadb(text.data(), text.size(), 0, nullptr));
    if (!json_is_object(object.get())) {
        SET_GENERAL_ERROR(error, "Invalid JSON in VSF for application %s", app.c_str());
        return std::nullopt;
    }
    const json_t* state = json_object_get(object.get(), "state");
    if (!state) {
        SET_GENERAL_ERROR(error, "Missing 'state' field in VSF for application %s", app.c_str());
        return std::nullopt;
    }
    if (!json_is_string(state)) {
        SET_GENERAL_ERROR(error, "Unexpected type for 'state' field in VSF for application %s", app.c_str());
        return std::nullopt;
    }
    return json_string_value(state);
}

static bool fail_to_write(const std::string& app, VelkctlError** error) {
    return FAIL_GENERAL(error, "Failed to write required fields in VSF for application %s", app.c_str());
}

std::optional<std::string> require_vsf_text(const std::string& app, const std::string& signature,
                                            VelkctlError** error) {
    std::optional<std::string> text = vsf_text(signature);
    if (!text)
        (void)fail_to_write(app, error);
    return text;
}

bool write_vsf(const std::string& app, const std::string& text, VelkctlError** error) {
    ErrorSlot reason;
    return write_file(vsf_path(app), text, reason) || fail_to_write(app, error);
}

bool create_vsf(const std::string& app, const std::string& signature, VelkctlError** error) {
    assert(error);
    if (!is_valid_app_name(app, error))
        return false;
    const std::optional<std::string> text = require_vsf_text(app, signature, error);
    return text && write_vsf(app, *text, error);
}

bool vsf_exists(const std::string& app) {
    ErrorSlot not_there;
    return path_exists(vsf_path(app), not_there);
}

bool remove_vsf(const std::string& app, VelkctlError** error) { return remove_file(vsf_path(app), error); }

bool remove_vsf_of_unsigned(const std::string& app, VelkctlError** error) {
    if (!vsf_exists(app))
        return true;
    log_warning("VSF existed for unsigned application package");
    return remove_vsf(app, error);
}

std::optional<std::string> read_vsf_state(const std::string& app, VelkctlError** error) {
    if (!vsf_exists(app))
        return "";
    const std::optional<std::string> text = read_file(vsf_path(app), error);
    return text ? vsf_state_in_text(app, *text, error) : std::nullopt;
}

bool vsf_is_confirmed(const std::string& app) {
    ErrorSlot broken;
    const std::optional<std::string> state = read_vsf_state(app, broken);
    warn_and_clear_error(broken, nullptr);
    return state == kConfirmed;
}
