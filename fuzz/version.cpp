#include "manifest/version.h"

#include "base/handles.h"
#include "fuzz/targets.h"
#include "manifest/manifest-rules.h"

static void set_invalid(VelkctlError** error, const char* text) {
    velkctl_error_set(error, VELKCTL_ERROR_INVALID_MANIFEST, "%s", text);
}

/** The version rules on one text: as an application's version, and as both ends of a range. */
void fuzz_version(std::string_view input) {
    const JsonPtr text(json_stringn(input.data(), input.size()));
    if (!text)
        return;
    const JsonPtr object(json_object());
    json_object_set(object.get(), "version", text.get());
    Version version;
    ErrorSlot error;
    const char* pattern = R"(^(0|[1-9]\d*)(\.(0|[1-9]\d*)){0,2}$)";
    if (!read_sem_version_or_fail_with_invalid_manifest(object.get(), "version", pattern, &version,
                                                        set_invalid, error)) {
        must_hold(error.is_set() && version == Version());
        return;
    }
    must_hold(format_version(version) == input);
    const Version first = complete_lower_bound(version);
    must_hold(version_in_range(first, {version, version}));
}
