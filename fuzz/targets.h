#pragma once

#include <cstdlib>
#include <string_view>

/*
 * What is done with one input, for each parser that reads what others wrote. The same functions replay the
 * collected inputs in the unit tests. A promise of the parser that does not hold ends the process.
 */
void fuzz_allowlist(std::string_view input);
void fuzz_firmware_version(std::string_view input);
void fuzz_iri(std::string_view input);
void fuzz_manifest(std::string_view input);
void fuzz_package_conf(std::string_view input);
void fuzz_version(std::string_view input);

inline void must_hold(bool promise) {
    if (!promise)
        std::abort();
}
