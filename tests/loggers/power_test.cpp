// Batteries, chargers and displays from a fake sysfs, the modem's sleep from fake
// debugfs statistics and runtime-PM figures, and what the post-processor reads from their lines.
#include "tests/loggers/LoggerTree.h"

const std::string kSupply = "/sys/class/power_supply/", kBat = kSupply + "BAT0", kAC = kSupply + "AC";

class BatteryLoggerTest : public LoggerTree {
protected:
    std::shared_ptr<JXBatteryLogger> logger = std::make_shared<JXBatteryLogger>(sys());
};

TEST_F(BatteryLoggerTest, ChargingAndDischargingBatteriesAndTheirChargers) {
    files(kSupply,
          "AC/type=Mains; AC/online=1; ucsi-source-psy/type=Wireless; ucsi-source-psy/online=0; "
          "hidpp_battery_0/type=Battery; hidpp_battery_0/present=0");  // an empty bay
    // Charging, energy in µWh; discharging, a driver that gives the current unsigned, charge in µAh.
    files(kBat,
          "type=Battery; present=1; status=Charging; capacity=57; voltage_now=12345678; current_now=1500000; "
          "energy_now=30000000; energy_full=50000000; cycle_count=12");
    const Lines all = trigger(*logger, kSupply + "BAT1",
                              "type=Battery; status=Discharging; capacity=40; voltage_now=3800000; "
                              "current_now=800000; charge_now=2000000; charge_full=4000000");
    EXPECT_EQ(Lines(all.end() - std::min<long>(4, all.size()), all.end()),  // power and health first
              (Lines{"[Charger] name=AC; type=Mains; online=YES;",
                     "[Battery] name=BAT0; level=57; voltage=12345; current=1500; energy=30000; energy_full=50000; "
                     "cycle_count=12; status=Charging; charging_state=active; charging_current=1500;",
                     "[Battery] name=BAT1; level=40; voltage=3800; current=-800; charge=2000; charge_full=4000; "
                     "status=Discharging; charging_state=inactive; charging_current=0;",
                     "[Charger] name=ucsi-source-psy; type=Wireless; online=NO;"}));
    EXPECT_EQ(eventsFor(lines("Battery", true)), (Lines{"BATTERY_CHARGING_ACTIVE", "BATTERY_CHARGING_INACTIVE"}));
}

TEST_F(BatteryLoggerTest, ATickWritesOnlyWhenStatusLevelOrChargerChangedAndHealthOnlyAtTheHeadOfALog) {
    files(kAC, "type=Mains; online=0");
    EXPECT_EQ(trigger(*logger, kBat,
                      "type=Battery; status=Discharging; capacity=80; voltage_now=3900000; "
                      "energy_full_design=57000000; energy_full=51300000; cycle_count=312"),
              (Lines{"[BatteryHealth] name=BAT0; energy_full_design_mwh=57000; energy_full_mwh=51300; "
                     "cycle_count=312; health_pct=90;",
                     "[Charger] name=AC; type=Mains; online=NO;",
                     "[Battery] name=BAT0; level=80; voltage=3900; cycle_count=312; status=Discharging; "
                     "charging_state=inactive; charging_current=0;"}));
    EXPECT_EQ(tick(*logger, kBat, "voltage_now=3850000"), Lines{});  // moves all the time: not a change
    // A changed level writes the battery with its charger.
    EXPECT_EQ(tick(*logger, kBat, "capacity=79").at(1).rfind("[Battery] name=BAT0; level=79; voltage=3850;", 0), 0u);
}

// The power series: from power_now, else current × voltage, else the change of the
// energy (or of the charge at the voltage) between two samples; negative while the
// battery gives energy whatever sign the driver uses; impossible readings dropped.
TEST_F(BatteryLoggerTest, PowerFromWhateverTheDriverOffers) {
    const struct {
        const char *first, *second;  // the files of two samples a minute apart
        const char* power;           // part of the [BatteryPower] line of the second, or nullptr
    } cases[] = {
        // power_now, unsigned while discharging.
        {"status=Discharging; power_now=8123400; energy_now=40000000", "energy_now=39990000",
         "name=BAT0; power_mw=-8123.4; source=power_now; energy_mwh=39990; status=Discharging;"},
        // Current and voltage (a phone's charge counter) the measuring run shows.
        {"status=Discharging; energy_now=40000000", "energy_now=39000000",
         "power_mw=-60000; source=energy_change; energy_mwh=39000; status=Discharging;"},
        {"status=Discharging; charge_now=2000000; voltage_now=3800000", "charge_now=1900000",
         "power_mw=-22800; source=charge_change; energy_mwh=7220; status=Discharging;"},
        {"status=Discharging; energy_now=1000000", "energy_now=2000000", nullptr},  // rising: not power
        {"status=Discharging; power_now=900000000", "", nullptr},                   // beyond what a battery gives
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        std::filesystem::remove_all(sys());
        JXBatteryLogger battery(sys());
        tick(battery, kBat, std::string("type=Battery; ") + c.first);
        fresh("BatteryPower");
        tick(battery, kBat, c.second);
        const Lines power = fresh("BatteryPower");
        EXPECT_EQ(power.size(), c.power ? 1u : 0u);
        for (const std::string& line : power) EXPECT_NE(line.find(c.power ? c.power : "\n"), std::string::npos) << line;
    }
    EXPECT_GE(log.countContaining("JXBatteryLogger: BAT0: an impossible reading"), 1u);
}

using DisplayLoggerTest = LoggerTree;

TEST_F(DisplayLoggerTest, BacklightAndConnectorsOnAndOffAndATickWritesOnlyAChange) {
    auto logger = std::make_shared<JXDisplayLogger>(sys());
    const std::string light = "/sys/class/backlight/intel_backlight", drm = "/sys/class/drm/card1-DP-2";
    const struct {
        const char *backlight, *dpms, *line;  // nullptr: no backlight, no connector
    } cases[] = {
        {"brightness=120; bl_power=0", nullptr, "active=YES; brightness=0.47;"},
        {"brightness=120; bl_power=4", nullptr, "active=NO; brightness=0.47;"},  // powered down
        {nullptr, "On", "active=YES; brightness=1;"},
        {nullptr, "Standby", "active=NO; brightness=0;"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        std::filesystem::remove_all(sys());
        put("/sys/class/drm/version", "drm 1.1.0 20060810\n");
        if (c.backlight) files(light, std::string("max_brightness=255; ") + c.backlight);
        if (c.dpms) files(drm, std::string("enabled=enabled; status=connected; dpms=") + c.dpms);
        EXPECT_EQ(trigger(*logger), Lines{std::string("[Display] ") + c.line});
    }
    EXPECT_EQ(readAs("Display"), "DisplayStatus=Inactive");
    EXPECT_EQ(tick(*logger), Lines{});
    EXPECT_EQ(tick(*logger, drm, "dpms=On"), Lines{"[Display] active=YES; brightness=1;"});
    EXPECT_EQ(readAs("Display"), "DisplayStatus=Active");
}

// Time since boot and the always-on counter, moved by the test.
struct BootClock : JXBasebandLogger::Clock {
    double seconds = 1000;
    std::optional<unsigned long long> ticks;
    double secondsSinceBoot() const override { return seconds; }
    std::optional<unsigned long long> counterTicks() const override { return ticks; }
    std::optional<double> counterFrequency() const override { return std::nullopt; }
};

constexpr unsigned long long kRate = 19200000;  // the default rate: no setting, no counter

class BasebandLoggerTest : public LoggerTree {
protected:
    // A statistics file as the drivers print it: seconds in the mode, in ticks.
    void stat(const std::string& file, unsigned count, double seconds, unsigned long long entered = 0,
              unsigned long long exited = 0) {
        put("/debug/sleep_stats/" + file,
            jx::formatString("Count: %u\nLast Entered At: %llu\nLast Exited At: %llu\nAccumulated Duration: %llu\n",
                             count, entered, exited, static_cast<unsigned long long>(seconds * kRate)));
    }
    // The runtime-PM figures of each device: control, active and suspended milliseconds.
    std::string devices(int usb1, int usb1Suspended, int usb11, int usb2, int spi) {
        return jx::formatString(
            "usb/devices/usb1/power/control=auto; usb/devices/usb1/power/runtime_active_time=%d; "
            "usb/devices/usb1/power/runtime_suspended_time=%d; usb/devices/1-1/power/control=auto; "
            "usb/devices/1-1/power/runtime_active_time=%d; usb/devices/usb2/power/control=on; "
            "usb/devices/usb2/power/runtime_active_time=%d; spi/devices/spi0.0/power/control=auto; "
            "spi/devices/spi0.0/power/runtime_active_time=%d",
            usb1, usb1Suspended, usb11, usb2, spi);
    }
    std::shared_ptr<BootClock> boot = std::make_shared<BootClock>();
    JXBasebandLogger logger{sys(), root.path() + "/debug", boot};
};

TEST_F(BasebandLoggerTest, WritesEachIntervalAsTheLinesThePostProcessorAssemblesIntoOneSample) {
    put("/debug/other/modem", "not statistics\n");  // found by content, not by name
    stat("vlow", 10, 100);
    stat("vmin", 4, 50);
    stat("apss", 20, 300);
    stat("modem", 7, 400);
    stat("cdsp", 1, 1);  // a subsystem the log has no line for
    // usb2 is forced on: not counted.
    EXPECT_EQ(trigger(logger, "/sys/bus", devices(1000, 5000, 2000, 0, 0)), Lines{}) << "the starting point";

    boot->seconds += 60;
    stat("vlow", 13, 100 + 15);  // 25 % in crystal shutdown
    stat("vmin", 5, 50 + 30);    // 50 % at minimum voltage
    stat("apss", 26, 300 + 48);  // 80 % of the application processors asleep
    stat("modem", 9, 400 + 57);
    // usb1 active 10 % of the minute, spi0.0 75 %.
    EXPECT_EQ(tick(logger, "/sys/bus", devices(1000 + 6000, 5000 + 54000, 2000 + 3000, 60000, 45000)),
              (Lines{"[BB HW Log] Duration=60.000;", "[BB HW RPM] XO_Shutdown=[25.00%,3]; VDD_Min=[50.00%,1];",
                     "[BB HW APPS] CXO_Shutdown=[80.00%,6];", "[BB HW MPSS] CXO_Shutdown=[95.00%,2];",
                     "[BB HW Peripherals] USB=[6000,54000,10.00%]; SPI=[45000,75.00%]; UART=[0,0.00%]; "
                     "GPS=[0,0.00%]; GPS_DPO=[0,0.00%];"}));
    // The ARM utility is what is left after both deep modes; the sample is assembled at the peripherals' line.
    EXPECT_EQ(eventsFor(lines("", true)),
              (Lines{"MPSSUtility=5;MPSSUtilityDuration=60.000000;",
                     "ARMUtility=25.000000;ARMUtilityDuration=60.000000;APPSValue=20.000000;"
                     "PERIPHERALSValue=75.000000;"}));
    EXPECT_EQ(log.countContaining("JXBasebandLogger"), 0u);
}

TEST_F(BasebandLoggerTest, CountsAStayInAModeThatHasNotEndedAndAResetCounterFromZero) {
    setting("JXBasebandLogger", "TicksPerSecond", jx::Value(std::string("19200000")));
    boot->ticks = 1000 * kRate;
    stat("modem", 5, 100, /*entered*/ 990 * kRate, /*exited*/ 980 * kRate);  // asleep for 10 s so far
    stat("vlow", 10, 100);
    trigger(logger);
    boot->seconds += 100;
    *boot->ticks += 100 * kRate;  // still asleep: the whole interval
    stat("vlow", 2, 30);          // the counters started again
    EXPECT_EQ(tick(logger), (Lines{"[BB HW Log] Duration=100.000;", "[BB HW MPSS] CXO_Shutdown=[100.00%,0];",
                                   "[BB HW Peripherals] USB=[0,0,0.00%]; SPI=[0,0.00%]; UART=[0,0.00%]; "
                                   "GPS=[0,0.00%]; GPS_DPO=[0,0.00%];"}))
        << "no RPM line without both deep modes";
}
