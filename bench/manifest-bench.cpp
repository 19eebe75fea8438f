#include <benchmark/benchmark.h>

#include <fstream>
#include <sstream>

#include "base/handles.h"
#include "manifest/manifest-rules.h"

/*
 * One manifest of 2 KiB: loading it and checking it by every rule, beside loading it with the JSON library
 * alone. It must stay under 50 times that.
 */

namespace {

std::string sample() {
    std::ostringstream text;
    text << std::ifstream(TEST_DATA_DIR "/manifest/valid.json").rdbuf();
    std::string manifest = text.str();
    // Filled up by a key that nobody reads.
    const std::string filling(2048 - std::min<size_t>(manifest.size() + 16, 2048), 'x');
    return manifest.insert(manifest.find('{') + 1, "\"filling\": \"" + filling + "\",");
}

void CheckManifest(benchmark::State& state) {
    const std::string text = sample();
    for (auto _ : state) {
        const JsonPtr manifest(json_loadb(text.data(), text.size(), 0, nullptr));
        ErrorSlot error;
        const std::optional<ParsedManifest> parsed = parse_manifest(manifest.get(), error);
        if (!parsed)
            state.SkipWithError(error.message());
        benchmark::DoNotOptimize(parsed);
    }
}
BENCHMARK(CheckManifest);

void CheckManifestByHand(benchmark::State& state) {
    const std::string text = sample();
    for (auto _ : state)
        benchmark::DoNotOptimize(JsonPtr(json_loadb(text.data(), text.size(), 0, nullptr)));
}
BENCHMARK(CheckManifestByHand);

}  // namespace
