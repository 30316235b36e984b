// Loggers of a fake sysfs and procfs: who kept the system awake, where the processors
// spent their time, thermal zones, wireless links and energy counters.
#include <array>

#include "plugins/thermal/JXThermalLogger.h"
#include "tests/loggers/LoggerTree.h"

using SysfsLoggerTest = LoggerTree;

TEST_F(SysfsLoggerTest, WakeupSourcesRankedByTheActiveTimeTheyHeld) {
    JXWakeupSourceLogger logger(sys());
    // Three sources as rtc0, eventpoll, PNP0C0D:00: active ms, wake-ups and events of each.
    auto sources = [&](const std::array<int, 9>& n) {
        const char* names[] = {"rtc0", "eventpoll", "PNP0C0D:00"};
        for (int i = 0; i < 3; ++i)
            files("/sys/class/wakeup/wakeup" + std::to_string(i),
                  jx::formatString("name=%s; max_time_ms=250; total_time_ms=%d; wakeup_count=%d; event_count=%d",
                                   names[i], n[3 * i], n[3 * i + 1], n[3 * i + 2]));
    };
    const std::string rank = "[WakeupSource] rank=", tail = " max_active_ms=250;";
    sources({100, 1, 1, 5000, 0, 900, 10, 3, 3});
    EXPECT_EQ(trigger(logger).at(2),
              rank + "3; scope=boot; name=PNP0C0D:00; active_ms=10; wakeups=3; events=3;" + tail);
    sources({100, 2, 2, 7400, 0, 1300, 10, 3, 3});  // rtc0 woke the system once; eventpoll held it 2.4 s
    EXPECT_EQ(tick(logger),
              (Lines{rank + "1; scope=interval; name=eventpoll; active_ms=2400; wakeups=0; events=400;" + tail,
                     rank + "2; scope=interval; name=rtc0; active_ms=0; wakeups=1; events=1;" + tail}));
}

TEST_F(SysfsLoggerTest, IdleStateSharesAndTheWeightedMeanFrequency) {
    JXCpuResidencyLogger logger(sys());
    // On each processor: C1's and C6's microseconds and entries, and 10 ms ticks at 800 and 2400 MHz.
    auto cpus = [&](const char* c1, const char* c1n, const char* c6, const char* c6n, const char* freq) {
        for (const std::string cpu : {"/sys/devices/system/cpu/cpu0", "/sys/devices/system/cpu/cpu1"}) {
            files(cpu + "/cpuidle", jx::formatString("state0/name=POLL; state0/time=0; state0/usage=0; state1/name=C1; "
                                                     "state1/time=%s; state1/usage=%s; state2/name=C6; state2/time=%s; "
                                                     "state2/usage=%s",
                                                     c1, c1n, c6, c6n));
            put(cpu + "/cpufreq/stats/time_in_state", freq);
        }
    };
    cpus("1000000", "10", "5000000", "20", "800000 100\n2400000 50\n");
    EXPECT_EQ(trigger(logger), Lines{});
    // Over 60 s of two processors (120 s in all): C1 held 6 s, C6 held 90 s; 1000 ticks at
    // 800 MHz and 500 at 2400 MHz on each: a mean of 1333.3 MHz.
    cpus("4000000", "40", "50000000", "120", "800000 1100\n2400000 550\n");
    EXPECT_EQ(
        tick(logger),
        (Lines{"[CpuIdle] state=C1; residency_pct=5; entries=60;", "[CpuIdle] state=C6; residency_pct=75; entries=200;",
               "[CpuIdle] state=POLL; residency_pct=0; entries=0;", "[CpuIdle] state=active; residency_pct=20;",
               "[CpuFrequency] mean_mhz=1333.3; source=time_in_state;"}));
}

TEST_F(SysfsLoggerTest, ZonesAndCoolingDevicesThenOnlyWhatMoved) {
    JXThermalLogger logger(sys());
    const std::string dir = "/sys/class/thermal";
    // The third zone's sensor is asleep: no temp to read.
    EXPECT_EQ(trigger(logger, dir,
                      "thermal_zone0/type=acpitz; thermal_zone0/temp=27800; thermal_zone1/type=x86_pkg_temp; "
                      "thermal_zone1/temp=45500; thermal_zone2/type=iwlwifi_1; cooling_device0/type=Processor; "
                      "cooling_device0/cur_state=0; cooling_device0/max_state=3"),
              (Lines{"[Cooling] device=Processor; state=0; max_state=3;", "[Thermal] zone=acpitz; temperature=27.8;",
                     "[Thermal] zone=x86_pkg_temp; temperature=45.5;"}));
    EXPECT_EQ(tick(logger, dir, "thermal_zone0/temp=28100; thermal_zone1/temp=47000"),  // the first still 28 degrees
              Lines{"[Thermal] zone=x86_pkg_temp; temperature=47;"});
}

TEST_F(SysfsLoggerTest, LinkAndSignalThenOnlyALinkChangeOrAMovedSignal) {
    JXWiFiLogger logger(sys(), proc());
    const std::string table =
        "net/wireless=Inter-| sta-|   Quality        |   Discarded packets               | Missed | WE\n"
        " face | tus | link level noise |  nwid  crypt   frag  retry   misc | beacon | 22\n"
        " wlan0: 0000   61.  ";
    const std::string tail = ".  -256        0      0      0      3     12        0";
    files("/sys/class/net", "eth0/operstate=up; wlan0/phy80211/name=phy0; wlan0/operstate=up");  // eth0: wired
    EXPECT_EQ(trigger(logger, "/proc", table + "-49" + tail),
              Lines{"[WiFi] interface=wlan0; link=YES; quality=61; signal=-49;"});
    EXPECT_EQ(tick(logger, "/proc", table + "-52" + tail), Lines{});  // a small move: not written
    EXPECT_EQ(tick(logger, "/proc", table + "-54" + tail),            // five from what the log says
              Lines{"[WiFi] interface=wlan0; link=YES; quality=61; signal=-54;"});
    EXPECT_EQ(tick(logger, "/sys/class/net", "wlan0/operstate=dormant"), Lines{"[WiFi] interface=wlan0; link=NO;"});
}

// A counter that goes back without a range to wrap at is said, not logged (the wrap
// itself the daemon's measuring run proves).
TEST_F(SysfsLoggerTest, APowercapCounterGoingBackWithoutARangeIsSaidNotLogged) {
    JXPowercapLogger logger(sys());
    const std::string dir = "/sys/class/powercap";
    EXPECT_EQ(trigger(logger, dir, "intel-rapl/enabled=1; intel-rapl:0:0/name=core; intel-rapl:0:0/energy_uj=6000"),
              Lines{});
    EXPECT_EQ(tick(logger, dir, "intel-rapl:0:0/energy_uj=10"), Lines{});
    EXPECT_EQ(log.countContaining("JXPowercapLogger: intel-rapl:0:0 went back from 6000 to 10"), 1u);
}
