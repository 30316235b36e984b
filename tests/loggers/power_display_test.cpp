// Batteries, chargers and displays from a fake sysfs, and what the
// post-processor reads from their lines.
#include "plugins/builtin/JXBuiltinLoggers.h"
#include "tests/loggers/LoggerTree.h"
#include "tests/loggers/PostProcessorPatterns.h"

namespace {

class BatteryLoggerTest : public LoggerTree {
protected:
    void supply(const std::string& name, const std::map<std::string, std::string>& files) {
        for (const auto& [file, contents] : files) put("/sys/class/power_supply/" + name + "/" + file, contents + "\n");
    }
    std::shared_ptr<JXBatteryLogger> logger = std::make_shared<JXBatteryLogger>(sys());
    PostProcessorPatterns patterns;
};

TEST_F(BatteryLoggerTest, ChargingAndDischargingBatteriesAndTheirCharger) {
    const struct {
        const char* what;
        std::map<std::string, std::string> battery;
        const char* online;
        const char* batteryLine;
        const char* chargerLine;
        const char* event;
    } cases[] = {
        {"charging, energy in µWh",
         {{"type", "Battery"},
          {"present", "1"},
          {"status", "Charging"},
          {"capacity", "57"},
          {"voltage_now", "12345678"},
          {"current_now", "1500000"},
          {"energy_now", "30000000"},
          {"energy_full", "50000000"},
          {"cycle_count", "12"}},
         "1",
         "[Battery] name=BAT0; level=57; voltage=12345; current=1500; energy=30000; energy_full=50000; cycle_count=12; "
         "status=Charging; charging_state=active; charging_current=1500;",
         "[Charger] name=AC; type=Mains; online=YES;",
         "BATTERY_CHARGING_ACTIVE"},
        {"discharging, a driver that gives the current unsigned, charge in µAh",
         {{"type", "Battery"},
          {"status", "Discharging"},
          {"capacity", "40"},
          {"voltage_now", "3800000"},
          {"current_now", "800000"},
          {"charge_now", "2000000"},
          {"charge_full", "4000000"}},
         "0",
         "[Battery] name=BAT0; level=40; voltage=3800; current=-800; charge=2000; charge_full=4000; "
         "status=Discharging; charging_state=inactive; charging_current=0;",
         "[Charger] name=AC; type=Mains; online=NO;",
         "BATTERY_CHARGING_INACTIVE"},
        {"full on the charger, a driver that gives the current signed",
         {{"type", "Battery"}, {"status", "Full"}, {"capacity", "100"}, {"current_now", "-5000"}},
         "1",
         "[Battery] name=BAT0; level=100; current=-5; status=Full; charging_state=inactive; charging_current=0;",
         "[Charger] name=AC; type=Mains; online=YES;",
         "BATTERY_CHARGING_INACTIVE"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::filesystem::remove_all(root("/sys"));
        supply("BAT0", c.battery);
        supply("AC", {{"type", "Mains"}, {"online", c.online}});
        supply("hidpp_battery_0", {{"type", "Battery"}, {"present", "0"}});  // an empty bay
        supply("ucsi-source-psy", {{"type", "Wireless"}, {"online", c.online}});
        const std::size_t before = lines("Battery").size();
        logger->log();
        ASSERT_EQ(lines("Battery").size(), before + 1);
        EXPECT_EQ(lines("Battery").back(), c.batteryLine);
        EXPECT_EQ(lines("Charger")[lines("Charger").size() - 2], c.chargerLine);
        const std::string stamped = lines("Battery", true).back();
        EXPECT_EQ(patterns.rowFor(stamped), "BatteryCharging");
        EXPECT_EQ(patterns.eventFor(stamped), c.event);
    }
}

TEST_F(BatteryLoggerTest, ATickWritesOnlyWhenStatusLevelOrChargerChanged) {
    supply("BAT0", {{"type", "Battery"}, {"status", "Discharging"}, {"capacity", "80"}, {"voltage_now", "3900000"}});
    supply("AC", {{"type", "Mains"}, {"online", "0"}});
    logger->log();
    EXPECT_EQ(lines("Battery").size(), 1u);
    supply("BAT0", {{"voltage_now", "3850000"}});  // moves all the time: not a change
    logger->logChanges();
    EXPECT_EQ(lines("Battery").size(), 1u);
    supply("BAT0", {{"capacity", "79"}});
    logger->logChanges();
    EXPECT_EQ(lines("Battery").size(), 2u);
    supply("AC", {{"online", "1"}});
    supply("BAT0", {{"status", "Charging"}});
    logger->logChanges();
    ASSERT_EQ(lines("Battery").size(), 3u);
    EXPECT_EQ(lines("Charger").back(), "[Charger] name=AC; type=Mains; online=YES;");
    EXPECT_NE(lines("Battery").back().find("charging_state=active;"), std::string::npos);
}

class DisplayLoggerTest : public LoggerTree {
public:
    void backlight(const std::string& brightness, const std::string& power = "0") {
        put("/sys/class/backlight/intel_backlight/brightness", brightness + "\n");
        put("/sys/class/backlight/intel_backlight/max_brightness", "255\n");
        put("/sys/class/backlight/intel_backlight/bl_power", power + "\n");
    }
    void connector(const std::string& name, const std::string& status, const std::string& dpms) {
        put("/sys/class/drm/" + name + "/status", status + "\n");
        put("/sys/class/drm/" + name + "/enabled", "enabled\n");
        put("/sys/class/drm/" + name + "/dpms", dpms + "\n");
    }

protected:
    std::shared_ptr<JXDisplayLogger> logger = std::make_shared<JXDisplayLogger>(sys());
    PostProcessorPatterns patterns;
};

TEST_F(DisplayLoggerTest, BacklightAndConnectorsOnAndOff) {
    const struct {
        const char* what;
        std::function<void(DisplayLoggerTest&)> tree;
        const char* line;
        const char* event;
    } cases[] = {
        {"lit backlight", [](DisplayLoggerTest& t) { t.backlight("120"); }, "[Display] active=YES; brightness=0.47;",
         "DisplayStatus=Active"},
        {"backlight powered down", [](DisplayLoggerTest& t) { t.backlight("120", "4"); },
         "[Display] active=NO; brightness=0.47;", "DisplayStatus=Inactive"},
        {"backlight at zero", [](DisplayLoggerTest& t) { t.backlight("0"); }, "[Display] active=NO; brightness=0;",
         "DisplayStatus=Inactive"},
        {"lit backlight, panel connector off",
         [](DisplayLoggerTest& t) {
             t.backlight("255");
             t.connector("card0-eDP-1", "connected", "Off");
             t.connector("card0-HDMI-A-1", "disconnected", "On");
         },
         "[Display] active=NO; brightness=1;", "DisplayStatus=Inactive"},
        {"lit backlight, panel connector on",
         [](DisplayLoggerTest& t) {
             t.backlight("255");
             t.connector("card0-eDP-1", "connected", "On");
         },
         "[Display] active=YES; brightness=1;", "DisplayStatus=Active"},
        {"no backlight, a monitor on", [](DisplayLoggerTest& t) { t.connector("card1-DP-2", "connected", "On"); },
         "[Display] active=YES; brightness=1;", "DisplayStatus=Active"},
        {"no backlight, a monitor in standby",
         [](DisplayLoggerTest& t) { t.connector("card1-DP-2", "connected", "Standby"); },
         "[Display] active=NO; brightness=0;", "DisplayStatus=Inactive"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::filesystem::remove_all(root("/sys"));
        put("/sys/class/drm/version", "drm 1.1.0 20060810\n");
        c.tree(*this);
        logger->log();
        EXPECT_EQ(lines("Display").back(), c.line);
        const std::string stamped = lines("Display", true).back();
        EXPECT_EQ(patterns.rowFor(stamped), "DisplayStatus");
        EXPECT_EQ(patterns.eventFor(stamped), c.event);
    }
}

TEST_F(DisplayLoggerTest, ATickWritesOnlyAChange) {
    backlight("100");
    logger->log();
    logger->logChanges();
    EXPECT_EQ(lines("Display").size(), 1u);
    backlight("100", "1");
    logger->logChanges();
    logger->logChanges();
    EXPECT_EQ(lines("Display"), (std::vector<std::string>{"[Display] active=YES; brightness=0.39;",
                                                          "[Display] active=NO; brightness=0.39;"}));
}

}  // namespace

namespace {

// The power series: from power_now, else current × voltage, else the change of the
// energy (or of the charge at the voltage) between two samples; negative while the
// battery gives energy whatever sign the driver uses; impossible readings dropped.
TEST_F(BatteryLoggerTest, PowerFromWhateverTheDriverOffers) {
    jxtest::FakeClock clock;
    const struct {
        const char* what;
        std::map<std::string, std::string> first, second;
        const char* power;  // the [BatteryPower] line of the second sample, or nullptr
    } cases[] = {
        {"power_now, unsigned while discharging",
         {{"status", "Discharging"}, {"power_now", "8123400"}, {"energy_now", "40000000"}},
         {{"status", "Discharging"}, {"power_now", "8123400"}, {"energy_now", "39990000"}},
         "name=BAT0; power_mw=-8123.4; source=power_now; energy_mwh=39990; status=Discharging;"},
        {"current and voltage, a phone's charge counter",
         {{"status", "Charging"}, {"current_now", "-500000"}, {"voltage_now", "4000000"}, {"charge_now", "1000000"}},
         {{"status", "Charging"}, {"current_now", "-500000"}, {"voltage_now", "4000000"}, {"charge_now", "1000000"}},
         "name=BAT0; power_mw=2000; source=current_voltage; energy_mwh=4000; status=Charging;"},
        {"only the energy: its change over the interval",
         {{"status", "Discharging"}, {"energy_now", "40000000"}},
         {{"status", "Discharging"}, {"energy_now", "39000000"}},
         "power_mw=-60000; source=energy_change; energy_mwh=39000; status=Discharging;"},
        {"only the charge at the voltage",
         {{"status", "Discharging"}, {"charge_now", "2000000"}, {"voltage_now", "3800000"}},
         {{"status", "Discharging"}, {"charge_now", "1900000"}, {"voltage_now", "3800000"}},
         "power_mw=-22800; source=charge_change; energy_mwh=7220; status=Discharging;"},
        {"energy rising while discharging: not power", {{"status", "Discharging"}, {"energy_now", "1000000"}},
         {{"status", "Discharging"}, {"energy_now", "2000000"}}, nullptr},
        {"a reading beyond what a battery gives", {{"status", "Discharging"}, {"power_now", "900000000"}},
         {{"status", "Discharging"}, {"power_now", "900000000"}}, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::filesystem::remove_all(sys());
        auto fresh = std::make_shared<JXBatteryLogger>(sys());
        auto files = c.first;
        files["type"] = "Battery";
        supply("BAT0", files);
        fresh->logChanges();
        clock.setNow(jx::Date{clock.now().secondsSince1970 + 60});
        const std::size_t before = lines("BatteryPower").size();
        files = c.second;
        files["type"] = "Battery";
        supply("BAT0", files);
        fresh->logChanges();
        const std::vector<std::string> power = lines("BatteryPower");
        if (!c.power) {
            EXPECT_EQ(power.size(), before) << power.back();
            continue;
        }
        ASSERT_EQ(power.size(), before + 1);
        EXPECT_NE(power.back().find(c.power), std::string::npos) << power.back();
        if (c.second.at("status") == "Discharging") {
            EXPECT_NE(power.back().find("power_mw=-"), std::string::npos);
        }
    }
    EXPECT_GE(log.countContaining("JXBatteryLogger: BAT0: an impossible reading"), 1u);
}

TEST_F(BatteryLoggerTest, HealthAtTheHeadOfEveryLog) {
    supply("BAT0", {{"type", "Battery"}, {"status", "Full"}, {"energy_full_design", "57000000"}, {"energy_full", "51300000"},
                    {"cycle_count", "312"}});
    logger->log();
    EXPECT_EQ(lines("BatteryHealth"),
              std::vector<std::string>{"[BatteryHealth] name=BAT0; energy_full_design_mwh=57000; energy_full_mwh=51300; "
                                       "cycle_count=312; health_pct=90;"});
    logger->logChanges();
    EXPECT_EQ(lines("BatteryHealth").size(), 1u) << "only at the head of a log";
}

}  // namespace
