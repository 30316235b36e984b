// The measuring loggers in the real daemon, on recorded device trees: the daemon runs
// under umockdev-run, which shows it a sysfs made of the test's device files, and the
// test changes attribute values in that tree while the daemon samples. And the log's
// [Clock] entries over a daylight-saving night.
#include <regex>

#include "tests/integration/Process.h"

namespace {

using namespace jxtest;

const std::string kUmockdevRun = "/usr/bin/umockdev-run";

class MeasuringTest : public BinariesTest {
protected:
    void SetUp() override {
        if (access(kUmockdevRun.c_str(), X_OK) != 0) GTEST_SKIP() << "umockdev missing";
    }
    // The daemon under umockdev-run with the given device description, the loggers under
    // test sampling every second; the testbed's directory is where the test changes attributes.
    void start(const std::vector<std::string>& loggers, const std::string& devices) {
        for (const std::string& logger : loggers) write({{logger, "-dict", "SamplePeriod", "1"}});
        root.writeFile("/devices.umockdev", devices);
        daemon = std::make_unique<Process>(
            std::vector<std::string>{
                kUmockdevRun, "-d", root("/devices.umockdev"), "--", "/bin/sh", "-c",
                "echo $$ >\"$0/pid\"; echo \"$UMOCKDEV_DIR\" >\"$0/testbed\"; exec \"$1\" --root \"$0\" --log-stderr",
                root.path(), binary("joulix")},
            out("joulix"), preloadEnv());
        ASSERT_TRUE(waitFor([&] { return !root.readFile("/testbed").empty(); })) << daemon->err();
        testbed = root.readFile("/testbed");
        testbed.pop_back();
    }
    // The daemon itself, not umockdev-run around it, is signalled.
    void signal(int signo) { ::kill(std::stoi(root.readFile("/pid")), signo); }
    void stop() {
        signal(SIGTERM);
        EXPECT_EQ(daemon->wait(10), 0) << tail(daemon->err());
    }
    void set(const std::string& attribute, const std::string& value) {
        std::ofstream(testbed + "/sys" + attribute) << value;
    }
    std::string lineWith(const std::string& text) {
        for (const std::string& l : lines(logText()))
            if (has(l, text)) return l;
        return "";
    }
    bool logged(const std::string& text) {
        return waitFor([&] { return !lineWith(text).empty(); });
    }

    std::unique_ptr<Process> daemon;
    std::string testbed;
};

// Three devices sampled side by side, each attribute changed while the daemon runs.
// A package counter that wraps between two samples: the interval's energy is exact,
// and its mean power is that energy over the interval. A phone's battery that offers
// only its current, voltage and charge: every sample is its power, negative while it
// drains. A wake-up source whose counts grow: ranked with what it held.
TEST_F(MeasuringTest, RaplWrapDrainingBatteryAndWakeupSourceAreMeasured) {
    const std::string zone = "/devices/virtual/powercap/intel-rapl/intel-rapl:0";
    const std::string battery = "/devices/platform/battery/power_supply/BAT0";
    const std::string source = "/devices/platform/alarmtimer.0.auto/wakeup/wakeup0";
    start({"JXPowercapLogger", "JXBatteryLogger", "JXWakeupSourceLogger"},
          "P: " + zone +
              "\nE: SUBSYSTEM=powercap\nA: name=package-0\nA: energy_uj=4294000000\n"
              "A: max_energy_range_uj=4294967295\n\nP: " +
              battery +
              "\nE: SUBSYSTEM=power_supply\nA: type=Battery\nA: present=1\nA: status=Discharging\n"
              "A: capacity=80\nA: voltage_now=3900000\nA: current_now=500000\nA: charge_now=3000000\n"
              "A: charge_full=4000000\nA: charge_full_design=5000000\nA: cycle_count=7\n\nP: " +
              source +
              "\nE: SUBSYSTEM=wakeup\nA: name=alarmtimer.0.auto\nA: total_time_ms=100\n"
              "A: wakeup_count=1\nA: event_count=1\nA: max_time_ms=40\n");
    // First readings: nothing counted yet, the battery's power and health, the ranking since boot.
    ASSERT_TRUE(logged("energy_uj=0;")) << tail(daemon->err());
    ASSERT_TRUE(logged("[BatteryPower] name=BAT0; power_mw=-1950; source=current_voltage;")) << logText();
    EXPECT_TRUE(logged(
        "[BatteryHealth] name=BAT0; charge_full_design_mah=5000; charge_full_mah=4000; cycle_count=7; health_pct=80;"))
        << logText();
    ASSERT_TRUE(logged("[WakeupSource] rank=1; scope=boot; name=alarmtimer.0.auto; active_ms=100;")) << logText();
    // The counter runs past its range; the current doubles; the source holds the system again.
    set(zone + "/energy_uj", "32705");
    set(battery + "/current_now", "1000000");
    set(source + "/total_time_ms", "600");
    set(source + "/wakeup_count", "3");
    set(source + "/event_count", "3");
    ASSERT_TRUE(logged("energy_uj=1000000;")) << logText();
    const std::string line = lineWith("energy_uj=1000000;");
    EXPECT_TRUE(has(line, "[Powercap] zone=intel-rapl:0; name=package-0; energy_uj=1000000;")) << line;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(line, m, std::regex(R"(interval_ms=(\d+); power_mw=([\d.]+);)"))) << line;
    // The interval is logged to the millisecond: the power to a tenth of that share.
    const double expected = 1e6 / std::stod(m[1]);
    EXPECT_NEAR(std::stod(m[2]), expected, expected / std::stod(m[1]) + 0.051);
    EXPECT_TRUE(logged("power_mw=-3900; source=current_voltage;")) << logText();
    EXPECT_TRUE(
        logged("[WakeupSource] rank=1; scope=interval; name=alarmtimer.0.auto; active_ms=500; wakeups=2; events=2; "
               "max_active_ms=40;"))
        << logText();
    stop();
}

// A suspend the kernel counted, with no login manager to say so: the wake-up source
// whose count grew woke it, and its account holds the battery before and after and
// the drain over the span between the two readings.
TEST_F(MeasuringTest, ASuspendIsAccountedWithItsDrainAndWhatWokeIt) {
    const std::string battery = "/devices/LNXSYSTM:00/PNP0C0A:00/power_supply/BAT0";
    const std::string lid = "/devices/LNXSYSTM:00/PNP0C0D:00/wakeup/wakeup3";
    start({"JXSleepWakeLogger"}, "P: " + battery +
                                     "\nE: SUBSYSTEM=power_supply\nA: type=Battery\nA: present=1\n"
                                     "A: status=Discharging\nA: energy_now=50000000\n\nP: " +
                                     lid +
                                     "\nE: SUBSYSTEM=wakeup\nA: name=PNP0C0D:00\n"
                                     "A: wakeup_count=5\nA: last_change_ms=100\n");
    // The kernel's statistics, then a triggered sample, which finds them.
    fs::create_directories(testbed + "/sys/power/suspend_stats");
    set("/power/suspend_stats/success", "2\n");
    ASSERT_TRUE(logShows("[Config]")) << tail(daemon->err());
    signal(SIGUSR1);
    ASSERT_TRUE(logShows("state=signal(10)"));
    // The lid woke it, 1 Wh lower.
    set(battery + "/energy_now", "49000000");
    set(lid + "/wakeup_count", "6");
    set(lid + "/last_change_ms", "900");
    set("/power/suspend_stats/success", "3\n");
    ASSERT_TRUE(logged("[Suspend] ")) << logText() << tail(daemon->err());
    const std::string line = lineWith("[Suspend] ");
    EXPECT_TRUE(has(logText(), "[Wake] reason=PNP0C0D:00;"));
    EXPECT_HAS(line, " energy_before_mwh=50000; energy_after_mwh=49000; drain_mw=",
               " woken_by=PNP0C0D:00; accounting=suspend_stats;");
    std::smatch m;
    ASSERT_TRUE(std::regex_search(line, m, std::regex(R"(drain_mw=([\d.]+);.* span_s=([\d.]+);)"))) << line;
    // 1000 mWh over the span, to the tenth of a mW it is written with and the
    // millisecond of the span.
    const double span = std::stod(m[2]);
    EXPECT_NEAR(std::stod(m[1]), 1000 * 3600 / span, 0.051 + 1000 * 3600 / span / span * 0.001) << line;
    stop();
}

// Berlin's clocks go back from 03:00 CEST to 02:00 CET at 01:00 UTC on 25 October
// 2026. The daemon's clock is set a few seconds before: the log's local times step
// back an hour, and its [Clock] entries put every entry in order again.
using ClockTest = BinariesTest;

TEST_F(ClockTest, ADaylightSavingNightIsOrderedByItsClockEntries) {
    if (!haveFakeTime()) GTEST_SKIP() << "libfaketime missing";
    const long long transition = 1792890000;
    env["TZ"] = "Europe/Berlin";
    const long long shift = transition - 6 - static_cast<long long>(::time(nullptr));
    auto d = joulix({}, (shift < 0 ? "" : "+") + std::to_string(shift));
    ASSERT_TRUE(logShows("reason=offset_change;", 1, 30)) << logText() << tail(d->err());
    d->signal(SIGUSR1);  // entries after the change, in the hour that comes twice
    ASSERT_TRUE(logShows("state=signal(10)"));
    d->signal(SIGTERM);
    EXPECT_EQ(d->wait(10), 0);

    const std::string log = logText();
    EXPECT_HAS(log, "offset_s=7200; zone=Europe/Berlin; abbreviation=CEST; dst=YES; reason=new_log;",
               "offset_s=3600; zone=Europe/Berlin; abbreviation=CET; dst=NO; reason=offset_change;");
    // Local time minus the offset of the last [Clock] entry before it: never an hour back.
    // The clock logger writes its entry a moment after the header: the few entries
    // before it take its offset, as a reader does.
    std::optional<long> offset;
    if (std::size_t first = log.find("[Clock] "); first != std::string::npos)
        offset = std::stol(log.substr(log.find("offset_s=", first) + 9));
    double last = 0, lastLocal = 0;
    bool steppedBack = false;
    for (const std::string& line : lines(log)) {
        std::tm tm{};
        if (!strptime(line.c_str(), "%m/%d/%Y %H:%M:%S", &tm)) continue;
        const double local = static_cast<double>(timegm(&tm)) + std::stod(line.substr(19, 4));
        if (has(line, "[Clock] ")) offset = std::stol(line.substr(line.find("offset_s=") + 9));
        ASSERT_TRUE(offset) << "no [Clock] entry";
        steppedBack |= local < lastLocal;
        lastLocal = local;
        const double absolute = local - static_cast<double>(*offset);
        // Entries queued to go first (the header's company) may stand a moment out of
        // order; an hour back is what the [Clock] entries must undo.
        EXPECT_GE(absolute, last - 1.0) << line;
        last = std::max(last, absolute);
    }
    EXPECT_TRUE(steppedBack) << "the local times should step back an hour";
}

}  // namespace
