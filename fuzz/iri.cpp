#include "lifecycle/iri.h"

#include <algorithm>

#include "fuzz/targets.h"

void fuzz_iri(std::string_view input) {
    const std::optional<std::string> uri = iri_to_uri(std::string(input));
    if (!uri)
        return;
    must_hold(
        std::all_of(uri->begin(), uri->end(), [](char c) { return static_cast<unsigned char>(c) < 128; }));
}
