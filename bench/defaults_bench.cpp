// The cost of one settings read, as the controller makes many of them.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <unistd.h>

#include "defaults/JXDefaults.h"
#include "platform/Root.h"

namespace {

struct PrivateRoot {
    PrivateRoot() {
        char tmpl[] = "/tmp/joulix-defaults-bench-XXXXXX";
        path = mkdtemp(tmpl);
        jx::setRoot(path);
        JXDefaultsSetValueForKey(JXRotateJoulixKey, jx::Value("1 day"));
    }
    ~PrivateRoot() { std::filesystem::remove_all(path); }
    std::string path;
};

void BM_ValueForKeyPresent(benchmark::State& state) {
    PrivateRoot root;
    for (auto _ : state) benchmark::DoNotOptimize(JXDefaultsValueForKey(JXRotateJoulixKey));
}
BENCHMARK(BM_ValueForKeyPresent);

// A miss also consults the managed fall-back (absent here, so tried each time).
void BM_ValueForKeyMissing(benchmark::State& state) {
    PrivateRoot root;
    for (auto _ : state) benchmark::DoNotOptimize(JXDefaultsValueExistsForKey(JXStartDelay));
}
BENCHMARK(BM_ValueForKeyMissing);

void BM_CurrentLoggingMode(benchmark::State& state) {
    PrivateRoot root;
    JXDefaultsSetValueForKey(JXLoggingMode, jx::Value(1));
    for (auto _ : state) benchmark::DoNotOptimize(JXDefaultsCurrentLoggingMode());
}
BENCHMARK(BM_CurrentLoggingMode);

}  // namespace

BENCHMARK_MAIN();
