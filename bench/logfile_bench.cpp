// The cost of a start of logging, continuing or rolling the current log, for a
// small and a large log: it links and renames, it never copies, so the size of
// the log must not show.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unicode/timezone.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "JoulixMain/JoulixMain.h"
#include "defaults/JXDefaults.h"
#include "platform/JXLogWriter.h"
#include "platform/JXUtilities.h"
#include "platform/Root.h"

namespace {

const char* const kLog = "/var/mobile/Library/Logs/CurrentJoulix.joulix";

struct Setup {
    Setup() {
        char tmpl[] = "/var/tmp/joulix-logfile-bench-XXXXXX";
        path = mkdtemp(tmpl);
        jx::setRoot(path);
        std::filesystem::create_directories(jx::rootPath("/var/mobile/Library/Logs/Faultkeeper"));
        JXDefaultsSetValueForKey(JXLinkFaultkeeper, jx::Value(true));
        controller = JoulixMain::create();
        controller->setLogToFile(true);
        controller->setShouldKeepRunning(true);
    }
    ~Setup() {
        JXUtilities::sharedDispatchQueue().sync([&] { controller->stopLoggingAndCloseFile(); });
        controller.reset();
        std::filesystem::remove_all(path);
    }
    // A current log of the given size whose header begins at the given timestamp.
    void writeLog(const std::string& timestamp, off_t size) {
        std::string log = jx::rootPath(kLog);
        std::filesystem::remove(log);
        std::ofstream(log) << "11/21/2026 00:00:00.000 [Joulix] Version=6.01; Build=" << JXUtilities::buildVersion()
                           << "; Timestamp=" << timestamp << "; File_GUID=" << JXUtilities::UUIDString()
                           << "; rotateJoulixKey=Default; loggingMode=Lite; binary=joulix; pid=1;\n";
        // The rest of the log's size, without writing it: a sparse file reads as zeros.
        if (truncate(log.c_str(), size) != 0) abort();
    }
    void start() {
        controller->startLoggingToFile();
        JXUtilities::sharedDispatchQueue().sync([] {});
    }
    std::string today() {
        std::lock_guard lock(controller->logTimestampFormatter().monitor());
        return controller->logTimestampFormatter().stringFromDate(jx::Date::now()).substr(0, 10) + "-000000";
    }
    std::string path;
    std::shared_ptr<JoulixMain> controller;
};

void BM_ContinueLog(benchmark::State& state) {
    Setup s;
    s.writeLog(s.today(), state.range(0));
    s.start();
    for (auto _ : state) s.start();
}
BENCHMARK(BM_ContinueLog)->Arg(1 << 10)->Arg(500 << 20)->Unit(benchmark::kMicrosecond);

void BM_RollLog(benchmark::State& state) {
    Setup s;
    for (auto _ : state) {
        state.PauseTiming();
        s.writeLog("2020-01-01-000000", state.range(0));
        state.ResumeTiming();
        s.start();
    }
}
BENCHMARK(BM_RollLog)->Arg(1 << 10)->Arg(500 << 20)->Unit(benchmark::kMicrosecond)->Iterations(200);

}  // namespace

BENCHMARK_MAIN();
