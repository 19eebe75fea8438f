#include "manifest/manifest.h"
#include "base/handles.h"
#include "fuzz/targets.h"
#include "manifest/app-user.h"
#include "manifest/developer-mode-fields.h"
#include "manifest/manifest-rules.h"
#include "manifest/names.h"

/** What every accepted manifest promises to its readers. */
static void check_strict(const ParsedManifest& parsed) {
    ErrorSlot error;
    must_hold(is_valid_app_name(parsed.appName, error));
    must_hold(parsed.version.major >= 0 && parsed.version.minor >= 0 && parsed.version.patch >= 0);
    must_hold(check_no_newline(parsed.runMode, "", error) && check_no_newline(parsed.runOptions, "", error));
    must_hold(parsed.realTimePriority >= 0 && parsed.realTimePriority <= 99 && parsed.appId >= -1);
    must_hold(!parsed.dlpuRequired || parsed.dlpuEnabled);
    for (const CgiEntry& entry : parsed.cgiEntries)
        must_hold(check_no_path_traversal(entry.name, "", error));
    if (parsed.osVersionRanges)
        (void)check_compatibility({12, 0, -1}, *parsed.osVersionRanges, nullptr);
}

void fuzz_manifest(std::string_view input) {
    const JsonPtr manifest(json_loadb(input.data(), input.size(), 0, nullptr));
    // The serial number of the device is asked for over the system bus.
    if (is_developer_mode_velk(manifest.get()))
        return;
    ErrorSlot strict_error;
    const std::optional<ParsedManifest> strict = parse_manifest(manifest.get(), strict_error);
    must_hold(strict.has_value() != strict_error.is_set());
    ErrorSlot lenient_error;
    const std::optional<ParsedManifest> lenient = parse_manifest_leniently(manifest.get(), lenient_error);
    must_hold(lenient.has_value() != lenient_error.is_set());
    must_hold(!strict || lenient);
    if (strict) {
        check_strict(*strict);
        must_hold(lenient->appName == strict->appName && lenient->cgiEntries == strict->cgiEntries);
        (void)get_valid_groups_from_manifest(manifest.get(), &*strict, nullptr);
    }
}
