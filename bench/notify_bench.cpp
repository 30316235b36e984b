// How long a system-wide notification takes to act: from a post to the observer's
// callback on another thread's run loop (through a private dbus-daemon), and from
// starting `joulixctl status` to the running daemon's state entry in its log.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <condition_variable>
#include <fstream>
#include <sstream>
#include <thread>

#include "bench/Spawn.h"
#include "platform/NotificationCenter.h"
#include "platform/RunLoop.h"
#include "tests/support/PrivateBus.h"

namespace {

using Center = jx::SystemNotificationCenter;

void BM_PostToObserverCallback(benchmark::State& state) {
    jxtest::PrivateBus bus;
    if (!bus.available()) {
        state.SkipWithError("dbus-daemon is not installed");
        return;
    }
    std::mutex mutex;
    std::condition_variable cv;
    long delivered = 0;
    std::shared_ptr<jx::RunLoop> loop;
    bool done = false;
    std::thread runThread([&] {
        {
            std::lock_guard lock(mutex);
            loop = jx::RunLoop::current();
            loop->setKeepAlive(true);
            Center::shared().addObserver(&delivered, "com.brindle.joulix.BenchPing",
                                         [&](Center*, void*, const std::string&, const void*, const jx::Value&) {
                                             std::lock_guard l(mutex);
                                             ++delivered;
                                             cv.notify_all();
                                         });
        }
        cv.notify_all();
        while (!done) loop->runUntilSourceHandled(-1);
        Center::shared().removeObserver(&delivered, "com.brindle.joulix.BenchPing");
    });
    {
        std::unique_lock lock(mutex);
        cv.wait(lock, [&] { return loop != nullptr; });
    }
    long expected = 0;
    for (auto _ : state) {
        Center::shared().post("com.brindle.joulix.BenchPing");
        ++expected;
        std::unique_lock lock(mutex);
        cv.wait(lock, [&] { return delivered >= expected; });
    }
    loop->perform([&] { done = true; });
    runThread.join();
}
BENCHMARK(BM_PostToObserverCallback)->Unit(benchmark::kMicrosecond);

std::size_t countIn(const std::string& path, const std::string& what) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    std::string text = s.str();
    std::size_t n = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

// The whole way a user's request goes: a new joulixctl process posts, the bus
// delivers, the daemon's run loop calls the handler and the writer writes.
void BM_CtlStatusToDaemonLogEntry(benchmark::State& state) {
    jxtest::PrivateBus bus;
    if (!bus.available()) {
        state.SkipWithError("dbus-daemon is not installed");
        return;
    }
    char pattern[] = "/tmp/joulix-notify-bench-XXXXXX";
    std::string root = mkdtemp(pattern);
    std::string log = root + "/var/mobile/Library/Logs/CurrentJoulix.joulix";
    pid_t daemon = jxbench::spawnQuiet({JOULIX_BIN_DIR "/joulix", "--root", root});
    // Up once the log has its header and the booting state.
    while (countIn(log, "state=booting;") == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // set-up ends after the first entries

    std::size_t seen = 0;
    for (auto _ : state) {
        pid_t ctl = jxbench::spawnQuiet({JOULIX_BIN_DIR "/joulixctl", "--root", root, "trigger"});
        ++seen;
        while (countIn(log, "state=statusRequested;") < seen)
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        state.PauseTiming();
        waitpid(ctl, nullptr, 0);
        state.ResumeTiming();
    }
    kill(daemon, SIGTERM);
    waitpid(daemon, nullptr, 0);
    std::filesystem::remove_all(root);
}
BENCHMARK(BM_CtlStatusToDaemonLogEntry)->Unit(benchmark::kMillisecond)->Iterations(50);

}  // namespace

BENCHMARK_MAIN();
