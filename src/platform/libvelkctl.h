#pragma once

#include <jansson.h>

#include <cstdint>

/**
 * One pending error. The layout is shared with the companion library, which fills records of its own.
 *
 * `foreign` tells who made the record: a foreign one is released with `velkctl_error_free`, never with
 * `free`.
 */
struct VelkctlError {
    int32_t code;
    char message[256];
    bool foreign;
};

/**
 * Call `function` ("validate", "config" or "remove") in every plug-in of the device, with the application's
 * manifest and user. Stops at the first plug-in that refuses. No plug-in at all is a success.
 *
 * @param manifest  borrowed
 * @param error     receives a foreign record of the library's; must point to null
 */
bool velkctl_plugin_call(const char* function, const json_t* manifest, const char* user,
                         VelkctlError** error);

/**
 * Merge two parameter group files of one application: the definition in `current` stands, and `param` blocks
 * that only `saved` has are kept behind its own. The result is written to `merged`.
 *
 * @param error  receives a foreign record of the library's; must point to null
 */
bool velkctl_parconf_merge_files(const char* current, const char* saved, const char* merged,
                                 VelkctlError** error);

/** Release a foreign record. */
void velkctl_error_free(VelkctlError* error);
