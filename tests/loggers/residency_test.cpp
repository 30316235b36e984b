// Who kept the system awake and where the processors spent their time, from fake
// sysfs trees and a clock the test moves.
#include "plugins/builtin/JXBuiltinLoggers.h"
#include "tests/loggers/LoggerTree.h"

namespace {

class ResidencyTest : public LoggerTree {
protected:
    void later(double seconds) { clock.setNow(jx::Date{clock.now().secondsSince1970 + seconds}); }
    void source(int n, const std::string& name, long long activeMs, long long wakeups, long long events) {
        const std::string base = "/sys/class/wakeup/wakeup" + std::to_string(n) + "/";
        put(base + "name", name + "\n");
        put(base + "total_time_ms", std::to_string(activeMs) + "\n");
        put(base + "wakeup_count", std::to_string(wakeups) + "\n");
        put(base + "event_count", std::to_string(events) + "\n");
        put(base + "max_time_ms", "250\n");
    }
    void idle(int cpu, int state, const std::string& name, long long us, long long entries) {
        const std::string base = "/sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/cpuidle/state" + std::to_string(state) + "/";
        put(base + "name", name + "\n");
        put(base + "time", std::to_string(us) + "\n");
        put(base + "usage", std::to_string(entries) + "\n");
    }
    jxtest::FakeClock clock;
};

TEST_F(ResidencyTest, WakeupSourcesRankedByTheActiveTimeTheyHeld) {
    auto logger = std::make_shared<JXWakeupSourceLogger>(sys());
    source(0, "rtc0", 100, 1, 1);
    source(1, "eventpoll", 5000, 0, 900);
    source(2, "PNP0C0D:00", 10, 3, 3);
    logger->log();
    EXPECT_EQ(lines("WakeupSource"),
              (std::vector<std::string>{"[WakeupSource] rank=1; scope=boot; name=eventpoll; active_ms=5000; wakeups=0; events=900; max_active_ms=250;",
                                        "[WakeupSource] rank=2; scope=boot; name=rtc0; active_ms=100; wakeups=1; events=1; max_active_ms=250;",
                                        "[WakeupSource] rank=3; scope=boot; name=PNP0C0D:00; active_ms=10; wakeups=3; events=3; max_active_ms=250;"}));
    source(0, "rtc0", 100, 2, 2);           // woke the system once, held it no longer
    source(1, "eventpoll", 7400, 0, 1300);  // held it 2.4 s
    later(60);
    logger->logChanges();
    const std::vector<std::string> all = lines("WakeupSource");
    const std::vector<std::string> interval(all.begin() + 3, all.end());
    EXPECT_EQ(interval,
              (std::vector<std::string>{"[WakeupSource] rank=1; scope=interval; name=eventpoll; active_ms=2400; wakeups=0; events=400; max_active_ms=250;",
                                        "[WakeupSource] rank=2; scope=interval; name=rtc0; active_ms=0; wakeups=1; events=1; max_active_ms=250;"}));
    setLoggerSetting("JXWakeupSourceLogger", "TopCount", jx::Value(1));
    source(0, "rtc0", 100, 3, 3);
    source(1, "eventpoll", 7500, 0, 1310);
    logger->logChanges();
    EXPECT_EQ(lines("WakeupSource").size(), 6u);
    EXPECT_EQ(lines("WakeupSource").back(), "[WakeupSource] rank=1; scope=interval; name=eventpoll; active_ms=100; wakeups=0; events=10; max_active_ms=250;");
}

TEST_F(ResidencyTest, IdleStateSharesAndTheWeightedMeanFrequency) {
    auto logger = std::make_shared<JXCpuResidencyLogger>(sys());
    for (int cpu : {0, 1}) {
        idle(cpu, 0, "POLL", 0, 0);
        idle(cpu, 1, "C1", 1000000, 10);
        idle(cpu, 2, "C6", 5000000, 20);
        put("/sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/cpufreq/stats/time_in_state", "800000 100\n2400000 50\n");
    }
    logger->log();
    EXPECT_TRUE(lines("CpuIdle").empty());
    // Over 60 s of two processors (120 s in all): C1 held 6 s, C6 held 90 s.
    idle(0, 1, "C1", 4000000, 40);
    idle(1, 1, "C1", 4000000, 40);
    idle(0, 2, "C6", 50000000, 120);
    idle(1, 2, "C6", 50000000, 120);
    // 1000 × 10 ms at 800 MHz and 500 × 10 ms at 2400 MHz on each: a mean of 1333.3 MHz.
    for (int cpu : {0, 1})
        put("/sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/cpufreq/stats/time_in_state", "800000 1100\n2400000 550\n");
    later(60);
    logger->logChanges();
    EXPECT_EQ(lines("CpuIdle"), (std::vector<std::string>{"[CpuIdle] state=C1; residency_pct=5; entries=60;",
                                                           "[CpuIdle] state=C6; residency_pct=75; entries=200;",
                                                           "[CpuIdle] state=POLL; residency_pct=0; entries=0;",
                                                           "[CpuIdle] state=active; residency_pct=20;"}));
    EXPECT_EQ(lines("CpuFrequency").back(), "[CpuFrequency] mean_mhz=1333.3; source=time_in_state;");
}

TEST_F(ResidencyTest, NothingToReadIsQuiet) {
    auto wake = std::make_shared<JXWakeupSourceLogger>(sys());
    auto cpu = std::make_shared<JXCpuResidencyLogger>(sys());
    for (int i = 0; i < 2; ++i) {
        wake->log();
        cpu->log();
    }
    EXPECT_TRUE(lines("WakeupSource").empty() && lines("CpuIdle").empty() && lines("CpuFrequency").empty());
    EXPECT_EQ(log.countContaining("JXWakeupSourceLogger: no wake-up source"), 1u);
    EXPECT_EQ(log.countContaining("JXCpuResidencyLogger: no cpuidle or cpufreq statistics"), 1u);
}

}  // namespace

namespace {

TEST_F(ResidencyTest, DevicesThatStayedPoweredRankedByActiveTime) {
    auto logger = std::make_shared<JXRuntimePMLogger>(sys());
    auto device = [&](const std::string& bus, const std::string& name, long long ms, const char* status) {
        put("/sys/bus/" + bus + "/devices/" + name + "/power/runtime_active_time", std::to_string(ms) + "\n");
        put("/sys/bus/" + bus + "/devices/" + name + "/power/runtime_status", std::string(status) + "\n");
    };
    device("usb", "1-2", 1000, "active");
    device("pci", "0000:00:14.0", 5000, "suspended");
    device("platform", "serial8250", 0, "unsupported");
    logger->log();
    EXPECT_TRUE(lines("RuntimePM").empty());
    device("usb", "1-2", 61000, "active");         // awake the whole minute
    device("pci", "0000:00:14.0", 5200, "suspended");
    later(60);
    logger->logChanges();
    EXPECT_EQ(lines("RuntimePM"), (std::vector<std::string>{"[RuntimePM] rank=1; bus=usb; device=1-2; active_ms=60000; status=active;",
                                                             "[RuntimePM] rank=2; bus=pci; device=0000:00:14.0; active_ms=200; status=suspended;"}));
}

TEST_F(ResidencyTest, TheDaemonsOwnCostSinceTheLastEntry) {
    auto logger = std::make_shared<JXSelfCostLogger>();
    later(3600);
    logger->logChanges();
    later(1800);
    logger->log();
    const std::vector<std::string> cost = lines("SelfCost");
    ASSERT_EQ(cost.size(), 2u);
    EXPECT_NE(cost[0].find("interval_s=3600;"), std::string::npos) << cost[0];
    EXPECT_NE(cost[1].find("interval_s=1800;"), std::string::npos) << cost[1];
    for (const std::string& line : cost) {
        EXPECT_EQ(line.rfind("[SelfCost] cpu_ms=", 0), 0u) << line;
        EXPECT_GE(std::stol(line.substr(line.find("wakeups=") + 8)), 0) << line;
        EXPECT_GT(std::stol(line.substr(line.find("max_rss_kb=") + 11)), 0) << line;
    }
}

}  // namespace
