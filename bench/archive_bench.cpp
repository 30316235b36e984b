// Archiving a large rolled log against gzip -9 on the same file, and how soon the
// running daemon re-creates a deleted current log.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "bench/Spawn.h"
#include "platform/Compression.h"

namespace {

namespace fs = std::filesystem;

// A 50 MB power log of realistic lines: timestamps, tags and changing numbers.
struct LargeLog {
    LargeLog() {
        char pattern[] = "/var/tmp/joulix-archive-bench-XXXXXX";
        dir = mkdtemp(pattern);
        path = dir + "/JX_2026-11-21-000000_bench.joulix";
        std::ofstream out(path, std::ios::binary);
        std::mt19937 random(42);
        const char* tags[] = {"[Battery] level=", "[Display] active=YES; brightness=", "[BB HW Other] sleep_ms=",
                              "[Network] rx_bytes=", "[Process] top=kworker; cpu_ms="};
        std::size_t written = 0;
        for (long i = 0; written < 50u * 1024 * 1024; ++i) {
            char line[200];
            int n = std::snprintf(line, sizeof line, "11/21/2026 %02ld:%02ld:%02ld.%03ld %s%u; seq=%ld;\n",
                                  (i / 360000) % 24, (i / 6000) % 60, (i / 100) % 60, (i * 7) % 1000,
                                  tags[random() % 5], static_cast<unsigned>(random() % 100000), i);
            out.write(line, n);
            written += static_cast<std::size_t>(n);
        }
    }
    ~LargeLog() { fs::remove_all(dir); }
    std::string dir, path;
};

LargeLog& largeLog() {
    static LargeLog log;
    return log;
}

void BM_ArchiveLogFile(benchmark::State& state) {
    const std::string out = largeLog().dir + "/ours.gz";
    for (auto _ : state) {
        std::unique_ptr<FILE, int (*)(FILE*)> in(std::fopen(largeLog().path.c_str(), "r"), std::fclose);
        std::unique_ptr<FILE, int (*)(FILE*)> gz(std::fopen(out.c_str(), "w"), std::fclose);
        if (jx::deflateFileToGzip(in.get(), gz.get(), 9) != 0) state.SkipWithError("deflate failed");
    }
    state.counters["input_MB"] = static_cast<double>(fs::file_size(largeLog().path)) / 1e6;
    state.counters["output_bytes"] = static_cast<double>(fs::file_size(out));
}
BENCHMARK(BM_ArchiveLogFile)->Unit(benchmark::kMillisecond)->Iterations(5);

void BM_Gzip9Command(benchmark::State& state) {
    const std::string out = largeLog().dir + "/gzip.gz";
    const std::string command = "gzip -9 -c '" + largeLog().path + "' > '" + out + "'";
    for (auto _ : state)
        if (std::system(command.c_str()) != 0) state.SkipWithError("gzip failed");
    state.counters["output_bytes"] = static_cast<double>(fs::file_size(out));
}
BENCHMARK(BM_Gzip9Command)->Unit(benchmark::kMillisecond)->Iterations(5);

// From the unlink of the current log to the moment its replacement exists.
void BM_DeletedLogRecreated(benchmark::State& state) {
    char pattern[] = "/tmp/joulix-watch-bench-XXXXXX";
    const std::string root = mkdtemp(pattern);
    const std::string log = root + "/var/mobile/Library/Logs/CurrentJoulix.joulix";
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/joulix-bench", 1);
    pid_t daemon = jxbench::spawnQuiet({JOULIX_BIN_DIR "/joulix", "--root", root});
    while (access(log.c_str(), F_OK) != 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // set-up, watch armed
    for (auto _ : state) {
        ::unlink(log.c_str());
        // Polled gently: a spinning poll would take a core from the daemon.
        while (access(log.c_str(), F_OK) != 0) std::this_thread::sleep_for(std::chrono::microseconds(50));
        state.PauseTiming();
        // Let the rebuilds that the re-creation itself causes settle.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        state.ResumeTiming();
    }
    kill(daemon, SIGTERM);
    waitpid(daemon, nullptr, 0);
    fs::remove_all(root);
}
BENCHMARK(BM_DeletedLogRecreated)->Unit(benchmark::kMicrosecond)->Iterations(100);

}  // namespace

BENCHMARK_MAIN();
