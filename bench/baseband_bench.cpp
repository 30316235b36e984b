// A whole baseband post-processing run on a generated power log whose extract is
// just under the 15 MB limit: selection, extraction with grep, reading, matching,
// the sweep and the verdict. Once with each line dispatched to the patterns of its
// tag, once with every pattern tried on every line. The peak resident memory of
// the process is reported as a counter.
//
// JOULIX_BENCH_ROOT=DIR keeps the generated root in DIR (for timing joulixctl bbpower on it).
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <random>

#include "baseband/JXBasebandPostProcessing.h"
#include "platform/Root.h"

namespace {

constexpr std::uint64_t kExtractTarget = 15'000'000;  // kept bytes; the limit is 15728640

class Generator {
public:
    explicit Generator(std::ofstream& out) : out_(out) {
        std::tm tm{};
        tm.tm_year = 126, tm.tm_mon = 10, tm.tm_mday = 14, tm.tm_isdst = -1;
        t_ = static_cast<double>(std::mktime(&tm));
    }
    // One minute of a day's log: an ARM utility sample and what else the loggers say.
    void minute() {
        const double u = pick(0, 100), a = pick(0, 80), p = pick(0, 75);
        kept("BB HW Log", "LogCode=0x1; Duration=" + num(60) + ";");
        kept("BB HW RPM", "XO_Shutdown=[" + num(pick(0, 100 - u)) + "%,1200]; VDD_Min=[" + num(0) + "%,30];");
        kept("BB HW APPS", "Sleep=4; CXO_Shutdown=[" + num(100 - a) + "%,55];");
        kept("BB HW Peripherals", "USB=[1,2," + num(p) + "%]; SPI=[3," + num(pick(0, 10)) +
                                      "%]; UART=[3,0.5%]; GPS=[0," + num(pick(0, 5)) + "%]; GPS_DPO=[0,0%];");
        kept("BB HW Processor", "system_State=[12.5%,3]; cores=2;");
        kept("BB HW MPSS", "CXO_Shutdown=[" + num(pick(10, 90)) + "%,100];");
        kept("Battery", "level=" + num(pick(5, 100)) + "; charging_state=inactive; charging_current=0; voltage=3.9;");
        noise("Process", "name=launchdeck; cpu=" + num(pick(0, 30)) + "; mem=182;");
        noise("WiFi", "rssi=-" + num(pick(40, 90)) + "; channel=36; tx=120;");
        // An hour: the display on for five minutes, a short call, audio and the hotspot
        // held for a while; idle otherwise, so that idle intervals close and are counted.
        const int m = minute_++ % 60;
        if (m == 0 || m == 5) kept("Display", std::string("active=") + (m == 0 ? "YES" : "NO") + "; brightness=0.5;");
        if (m == 20 || m == 22)
            kept("Telephony",
                 std::string("signal=-80; call_status=") + (m == 20 ? "Active" : "Inactive") + "; airplane_mode=NO;");
        if (m % 5 == 0) kept("Sleep", "event=did_sleep;");
        if (m % 5 == 1) kept("Wake", "reason=rtc_alarm;");
        if (m % 3 == 0)
            kept("BB Event", "EventCode=EVENT_WCDMA_RRC_STATE; prevState=FACH; currState=Disconnected; rate=0;");
        if (m == 30 || m == 33)
            kept("Assertion", std::string("id=4; state=") + (m == 30 ? "created" : "released") +
                                  "; process=soundhubd; pid=80; name=com.brindle.audio.VAD Aggregate Device UID;");
        if (m == 40 || m == 41)
            kept("Assertion", std::string("id=9; state=") + (m == 40 ? "held" : "released") +
                                  "; process=wlanhubd; pid=81; name=ap1;");
        t_ += 60;
    }
    std::uint64_t keptBytes() const { return kept_; }

private:
    void line(const std::string& tag, const std::string& fields, bool keep) {
        std::time_t whole = static_cast<std::time_t>(t_);
        std::tm tm{};
        localtime_r(&whole, &tm);
        char stamp[40];
        std::snprintf(stamp, sizeof stamp, "%02d/%02d/%04d %02d:%02d:%02d.%03d", tm.tm_mon + 1, tm.tm_mday,
                      tm.tm_year + 1900, tm.tm_hour, tm.tm_min, tm.tm_sec, ms_);
        ms_ = (ms_ + 1) % 1000;
        std::string text = std::string(stamp) + " [" + tag + "] " + fields + "\n";
        out_ << text;
        if (keep) kept_ += text.size();
    }
    void kept(const std::string& tag, const std::string& fields) { line(tag, fields, true); }
    void noise(const std::string& tag, const std::string& fields) { line(tag, fields, false); }
    double pick(double lo, double hi) { return std::round(std::uniform_real_distribution<>(lo, hi)(rng_) * 10) / 10; }
    static std::string num(double v) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%g", v);
        return buf;
    }

    std::ofstream& out_;
    std::mt19937 rng_{42};
    double t_;
    int ms_ = 0, minute_ = 0;
    std::uint64_t kept_ = 0;
};

struct Setup {
    Setup() {
        const char* keep = std::getenv("JOULIX_BENCH_ROOT");
        if (keep) {
            path = keep;
            std::filesystem::create_directories(path);
        } else {
            char tmpl[] = "/var/tmp/joulix-baseband-bench-XXXXXX";
            path = mkdtemp(tmpl);
        }
        kept = keep != nullptr;
        jx::setRoot(path);
        crash = jx::rootPath("/var/mobile/Library/Logs/Faultkeeper/");
        std::filesystem::create_directories(crash);
        std::filesystem::create_directories(jx::rootPath("/var/tmp"));
        {
            std::ofstream out(crash + "JX_2026-11-14-000000_A.joulix", std::ios::binary);
            Generator g(out);
            while (g.keptBytes() < kExtractTarget - 2000) g.minute();
            extractBytes = g.keptBytes();
        }
        // The newest log, passed over; made a moment later so that its creation date is later.
        usleep(50000);
        std::ofstream(crash + "JX_2026-11-15-000000_B.joulix") << "11/15/2026 00:00:00.000 [Joulix] x=1;\n";
    }
    ~Setup() {
        if (!kept) std::filesystem::remove_all(path);
    }
    std::string path, crash;
    bool kept = false;
    std::uint64_t extractBytes = 0;
};

void BM_FullRun(benchmark::State& state) {
    static Setup setup;
    const bool dispatch = state.range(0) != 0;
    double intervals = 0;
    for (auto _ : state) {
        JXBasebandPostProcessing processor;
        processor.setDispatchesByTag(dispatch);
        processor.postProcessJoulixsAtPath(setup.crash, false);
        if (processor.lastRun().outcome != JXBasebandPostProcessing::Outcome::Completed)
            state.SkipWithError("the run did not complete");
        intervals = processor.totalNumberOfARMUtilityValuesFiltered();
    }
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    state.counters["extract_MB"] = static_cast<double>(setup.extractBytes) / 1e6;
    state.counters["intervals"] = intervals;
    state.counters["peak_rss_MB"] = static_cast<double>(usage.ru_maxrss) / 1024.0;
    state.SetLabel(dispatch ? "dispatch by tag" : "every pattern");
}
BENCHMARK(BM_FullRun)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
BENCHMARK_MAIN();
