// Writer throughput: short entries per second from logEntry into a file on disk,
// counted up to the moment they are written and flushed.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "platform/JXLogWriter.h"

namespace {

std::string tempPath() {
    char path[] = "/tmp/joulix-writer-bench-XXXXXX";
    int fd = mkstemp(path);
    close(fd);
    return path;
}

JXEntry shortEntry(int i) {
    JXEntry e("Display");
    e.setObject(JXValue::valueWithBool(i % 2 == 0), "active");
    e.setObject(JXValue::valueWithDouble(0.5), "brightness");
    return e;
}

// One thread logs a batch of entries, then waits until they are on disk.
void BM_WriterThroughput(benchmark::State& state) {
    std::string path = tempPath();
    FILE* file = std::fopen(path.c_str(), "a");
    JXLogWriter writer;
    writer.setLogFile(file);
    writer.setLogFileEnabled(true);
    const int batch = static_cast<int>(state.range(0));
    for (auto _ : state) {
        for (int i = 0; i < batch; ++i) writer.logEntry(shortEntry(i));
        writer.blockOnWriteEntries();
    }
    state.SetItemsProcessed(state.iterations() * batch);
    writer.setLogFileEnabled(false);
    writer.setLogFile(nullptr);
    std::fclose(file);
    unlink(path.c_str());
}
BENCHMARK(BM_WriterThroughput)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond)->UseRealTime();

// Several loggers at once, each on its own thread, as the daemon's loggers are.
void BM_WriterThroughputFourThreads(benchmark::State& state) {
    std::string path = tempPath();
    FILE* file = std::fopen(path.c_str(), "a");
    JXLogWriter writer;
    writer.setLogFile(file);
    writer.setLogFileEnabled(true);
    const int perThread = 25000;
    for (auto _ : state) {
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&] {
                for (int i = 0; i < perThread; ++i) writer.logEntry(shortEntry(i));
            });
        for (auto& t : threads) t.join();
        writer.blockOnWriteEntries();
    }
    state.SetItemsProcessed(state.iterations() * 4 * perThread);
    writer.setLogFileEnabled(false);
    writer.setLogFile(nullptr);
    std::fclose(file);
    unlink(path.c_str());
}
BENCHMARK(BM_WriterThroughputFourThreads)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
