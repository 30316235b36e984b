// What the measuring loggers cost on a laptop with every device they read: the CPU
// time of one sampling pass of all of them (the writer's thread included), and the
// size of a day of logging at the default periods, with the share of each tag.
//
// The device tree is built from the same description the idle measurement runs the
// daemon on under umockdev (bench/devices/laptop.umockdev), as plain files, and its
// counters are moved on between passes as a minute of use would move them.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/JXLogWriter.h"
#include "platform/Root.h"
#include "plugins/builtin/JXBuiltinLoggers.h"

namespace fs = std::filesystem;

namespace {

// A clock that moves only when the bench says a minute has passed.
class StepClock : public jx::Clock {
public:
    jx::Date now() override { return jx::Date{now_}; }
    double suspendedSeconds() override { return 0; }
    void advance(double seconds) { now_ += seconds; }

private:
    double now_ = 1795000000;
};

// The device description as files under root/sys: each device's attributes in its
// directory, and the class or bus link its subsystem gives it.
class DeviceTree {
public:
    DeviceTree() {
        char tmpl[] = "/tmp/joulix-sampling-bench-XXXXXX";
        root_ = ::mkdtemp(tmpl);
        std::ifstream in(JOULIX_DEVICES);
        std::string line, device, subsystem;
        auto link = [&] {
            if (device.empty() || subsystem.empty()) return;
            const bool bus = subsystem == "pci" || subsystem == "usb" || subsystem == "platform";
            const std::string at = sys() + (bus ? "/bus/" + subsystem + "/devices/" : "/class/" + subsystem + "/") +
                                   fs::path(device).filename().string();
            fs::create_directories(fs::path(at).parent_path());
            if (subsystem != "cpu") fs::create_directory_symlink(sys() + device, at);
        };
        while (std::getline(in, line)) {
            if (line.rfind("P: ", 0) == 0) {
                link();
                device = line.substr(3);
                subsystem.clear();
                fs::create_directories(sys() + device);
            } else if (line.rfind("E: SUBSYSTEM=", 0) == 0) {
                subsystem = line.substr(13);
            } else if (line.rfind("A: ", 0) == 0) {
                const std::size_t eq = line.find('=');
                std::string value = line.substr(eq + 1);
                for (std::size_t at; (at = value.find("\\n")) != std::string::npos;) value.replace(at, 2, "\n");
                put(device + "/" + line.substr(3, eq - 3), value);
            }
        }
        link();
        put("/power/suspend_stats/success", "12\n");
    }
    ~DeviceTree() { fs::remove_all(root_); }
    std::string sys() const { return root_ + "/sys"; }
    const std::string& root() const { return root_; }

    void put(const std::string& path, const std::string& value) const {
        fs::create_directories(fs::path(sys() + path).parent_path());
        std::ofstream(sys() + path) << value;
    }
    long long get(const std::string& path) const {
        long long v = 0;
        std::ifstream(sys() + path) >> v;
        return v;
    }
    void add(const std::string& path, long long by) const { put(path, std::to_string(get(path) + by) + "\n"); }

    // A minute of use: the battery drains at 7.3 W, the RAPL counters count (and wrap),
    // the CPUs idle and run, a few wake-up sources hold the system, awake devices stay so.
    void minute(int n) const {
        const std::string battery = "/devices/LNXSYSTM:00/LNXSYBUS:00/PNP0C0A:00/power_supply/BAT0";
        add(battery + "/energy_now", -121966);
        put(battery + "/capacity", std::to_string(get(battery + "/energy_now") * 100 / 53280000) + "\n");
        const std::pair<const char*, long long> zones[] = {{"intel-rapl:0", 5}, {"intel-rapl:0/intel-rapl:0:0", 2},
                                                           {"intel-rapl:0/intel-rapl:0:1", 1}, {"intel-rapl:0/intel-rapl:0:2", 1},
                                                           {"intel-rapl:1", 8}};
        for (const auto& [zone, watts] : zones) {
            const std::string at = std::string("/devices/virtual/powercap/intel-rapl/") + zone + "/energy_uj";
            put(at, std::to_string((get(at) + watts * 60000000) % 262143328850) + "\n");
        }
        for (int cpu = 0; cpu < 8; ++cpu)
            for (int state = 1; state < 4; ++state) {
                const std::string at = "/devices/system/cpu/cpu" + std::to_string(cpu) + "/cpuidle/state" + std::to_string(state);
                add(at + "/time", 15000000 * state);
                add(at + "/usage", 400 / state);
            }
        for (int source : {4, 6, 14, 18, 25}) {
            const std::string at = "/devices/virtual/wakeup/wakeup" + std::to_string(source);
            add(at + "/total_time_ms", 40 * source + n % 7);
            add(at + "/event_count", 3);
            add(at + "/active_count", 3);
        }
        for (const char* device : {"0000:00:00.0", "0000:00:07.0", "0000:00:0d.0", "0000:00:14.0", "0000:00:15.1"})
            add(std::string("/devices/pci0000:00/") + device + "/power/runtime_active_time", 60000);
        for (const char* device : {"usb1", "usb2", "1-3"})
            add(std::string("/devices/pci0000:00/0000:00:14.0/") + device + "/power/runtime_active_time", 60000);
    }

private:
    std::string root_;
};

struct Logger {
    std::shared_ptr<JXSamplingLogger> logger;
    double periodSeconds = 0;
};

// Every sampling logger with a device in the tree, at its default period; with
// processes, the process and network loggers too, on this machine's /proc.
std::vector<Logger> makeLoggers(const DeviceTree& tree, bool processes) {
    const std::string sys = tree.sys();
    std::vector<Logger> loggers = {
        {std::make_shared<JXBatteryLogger>(sys)},      {std::make_shared<JXPowercapLogger>(sys)},
        {std::make_shared<JXWakeupSourceLogger>(sys)}, {std::make_shared<JXCpuResidencyLogger>(sys)},
        {std::make_shared<JXRuntimePMLogger>(sys)},    {std::make_shared<JXDisplayLogger>(sys)},
        {std::make_shared<JXSleepWakeLogger>(sys)},     {std::make_shared<JXSelfCostLogger>()},
    };
    if (processes) {
        loggers.push_back({std::make_shared<JXProcessMonitorLogger>()});
        loggers.push_back({std::make_shared<JXNetworkLogger>()});
    }
    // The head of a new log: everything, once; then each at the period it set itself.
    for (Logger& l : loggers) {
        l.logger->loggerSerialQueue().sync([&] { l.logger->log(); });
        l.periodSeconds = l.logger->samplePeriod();
    }
    return loggers;
}

struct Session {
    Session() {
        // No login manager: the sleep logger counts suspends, as it does without one.
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/joulix-bench", 1);
        jx::setRoot(tree.root());
        jx::Clock::setCurrent(&clock);
        file = std::fopen((tree.root() + "/log").c_str(), "w+");
        JXLogWriter::sharedWriter().setLogFile(file);
        JXLogWriter::sharedWriter().setLogFileEnabled(true);
    }
    ~Session() {
        JXLogWriter::sharedWriter().blockOnWriteEntries();
        JXLogWriter::sharedWriter().setLogFile(nullptr);
        std::fclose(file);
        jx::Clock::setCurrent(nullptr);
    }
    DeviceTree tree;
    StepClock clock;
    FILE* file;
};

// One pass: each logger's tick, then the writer until its entries are in the file.
void samplingPass(benchmark::State& state, bool processes) {
    Session session;
    std::vector<Logger> loggers = makeLoggers(session.tree, processes);
    JXLogWriter::sharedWriter().blockOnWriteEntries();
    int n = 0;
    for (auto _ : state) {
        state.PauseTiming();
        session.tree.minute(++n);
        session.clock.advance(60);
        state.ResumeTiming();
        for (Logger& l : loggers) l.logger->logChanges();
        JXLogWriter::sharedWriter().blockOnWriteEntries();
    }
    state.counters["loggers"] = static_cast<double>(loggers.size());
}

// Each device logger's share of the pass.
void BM_OneLogger(benchmark::State& state) {
    Session session;
    std::vector<Logger> loggers = makeLoggers(session.tree, false);
    JXLogWriter::sharedWriter().blockOnWriteEntries();
    Logger& l = loggers.at(static_cast<std::size_t>(state.range(0)));
    state.SetLabel(l.logger->name());
    int n = 0;
    for (auto _ : state) {
        state.PauseTiming();
        session.tree.minute(++n);
        session.clock.advance(60);
        state.ResumeTiming();
        l.logger->logChanges();
        JXLogWriter::sharedWriter().blockOnWriteEntries();
    }
}
BENCHMARK(BM_OneLogger)->DenseRange(0, 7)->MeasureProcessCPUTime()->Unit(benchmark::kMicrosecond);

void BM_SamplingPassDevices(benchmark::State& state) { samplingPass(state, false); }
void BM_SamplingPassWithProcesses(benchmark::State& state) { samplingPass(state, true); }
BENCHMARK(BM_SamplingPassDevices)->MeasureProcessCPUTime()->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_SamplingPassWithProcesses)->MeasureProcessCPUTime()->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly(true);

// A day at the default periods: a tick every 10 s of simulated time, each logger
// sampled when its period has passed. Counters: the day's bytes, and each tag's share
// of them in percent.
void BM_DayOfLogging(benchmark::State& state) {
    for (auto _ : state) {
        Session session;
        std::vector<Logger> loggers = makeLoggers(session.tree, true);
        for (int t = 10; t <= 86400; t += 10) {
            if (t % 60 == 0) session.tree.minute(t / 60);
            session.clock.advance(10);
            for (Logger& l : loggers)
                if (l.periodSeconds > 0 && t % static_cast<int>(l.periodSeconds) == 0) l.logger->logChanges();
            // The writer keeps a bounded queue: let it drain as the day goes.
            if (t % 600 == 0) JXLogWriter::sharedWriter().blockOnWriteEntries();
        }
        JXLogWriter::sharedWriter().blockOnWriteEntries();
        std::fflush(session.file);
        std::rewind(session.file);
        std::map<std::string, double> bytes;
        double total = 0;
        char buffer[8192];
        while (std::fgets(buffer, sizeof buffer, session.file)) {
            const std::string line = buffer;
            const std::size_t open = line.find(" [");
            const std::size_t close = line.find(']', open);
            const std::string tag = open == std::string::npos ? "?" : line.substr(open + 2, close - open - 2);
            bytes[tag] += static_cast<double>(line.size());
            total += static_cast<double>(line.size());
        }
        state.counters["day_bytes"] = total;
        for (const auto& [tag, size] : bytes) state.counters["pct_" + tag] = size * 100 / total;
    }
}
BENCHMARK(BM_DayOfLogging)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
