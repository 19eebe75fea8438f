#include "fuzz/targets.h"
#include "manifest/version.h"

void fuzz_firmware_version(std::string_view input) {
    const std::string text(input);
    ErrorSlot error;
    const std::optional<Version> version = parse_firmware_version_string(text.c_str(), error);
    must_hold(version.has_value() != error.is_set());
    if (!version)
        return;
    must_hold(version->major >= 0 && version->minor >= 0 && version->patch >= -1);
    ErrorSlot again;
    must_hold(parse_firmware_version_string(format_version(*version).c_str(), again) == version);
    must_hold(version_in_range(*version, {{version->major, -1, -1}, {version->major, -1, -1}}));
}
