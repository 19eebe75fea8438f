#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "system/file.h"
#include "system/regex.h"
#include "system/subprocess.h"

/*
 * The helpers that every command calls, each beside what the machine itself needs for the same work.
 */

namespace {

/** A file of the benchmark's own with `size` bytes. */
class ScratchFile {
  public:
    explicit ScratchFile(size_t size) {
        const int fd = mkstemp(path_.data());
        const std::string text(size, 'x');
        if (fd < 0 || write(fd, text.data(), size) != static_cast<ssize_t>(size))
            std::abort();
        close(fd);
    }
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;
    ~ScratchFile() { unlink(path_.c_str()); }

    [[nodiscard]] const std::string& path() const { return path_; }

  private:
    std::string path_ = std::string(P_tmpdir) + "/velkctl-bench-XXXXXX";
};

void ReadFile(benchmark::State& state) {
    const ScratchFile file(static_cast<size_t>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(read_file(file.path(), nullptr));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(ReadFile)->Arg(1 << 10)->Arg(64 << 10);

void ReadFileByHand(benchmark::State& state) {
    const ScratchFile file(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        std::string text(static_cast<size_t>(state.range(0)), '\0');
        std::FILE* stream = std::fopen(file.path().c_str(), "re");
        benchmark::DoNotOptimize(std::fread(text.data(), 1, text.size(), stream));
        std::fclose(stream);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(ReadFileByHand)->Arg(1 << 10)->Arg(64 << 10);

void CheckArgument(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(
            check_regex(SAFE_ARGUMENT_PATTERN, "some/where/MyApp/manifest.json", nullptr));
}
BENCHMARK(CheckArgument);

void RunShellCommand(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(run_command(nullptr, "true '%s'", {"argument"}));
}
BENCHMARK(RunShellCommand)->Unit(benchmark::kMicrosecond);

void RunShellCommandByHand(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(std::system("true 'argument'"));
}
BENCHMARK(RunShellCommandByHand)->Unit(benchmark::kMicrosecond);

}  // namespace
