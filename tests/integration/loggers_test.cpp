// The built-in loggers in the real daemon, reading this machine's own kernel files.
#include <gtest/gtest.h>


#include <filesystem>

#include "tests/integration/Process.h"
#include "tests/support/TestSupport.h"

namespace {

using jxtest::Process;

using LoggersIntegrationTest = jxtest::BinariesTest;

TEST_F(LoggersIntegrationTest, OnceWritesTheBuiltInLoggersEntriesUnderAPrivateRoot) {
    auto run = joulix({"--once"});
    ASSERT_EQ(run->wait(), 0) << run->err();
    Process& p = *run;
    const std::string log = root.readFile("/var/mobile/Library/Logs/CurrentJoulix.joulix");
    EXPECT_EQ(log.find("[Joulix] Version="), 24u) << log;
    for (const char* entry :
         {"[Config] ", "[Locale] locale=", "[Settings] loggingMode=", "[Process] pid=", "[Network] interface=lo;"})
        EXPECT_NE(log.find(entry), std::string::npos) << entry << "\n" << log;
    for (const char* logger :
         {"JXConfigLogger", "JXLocaleLogger", "JXSettingsLogger", "JXProcessMonitorLogger", "JXNetworkLogger"}) {
        EXPECT_NE(p.err().find(std::string("setting up core logger ") + logger), std::string::npos) << logger;
        EXPECT_EQ(p.err().find(std::string("Could not find ") + logger), std::string::npos) << logger;
    }
    // A device this machine lacks gives no entry and at most one line of the system log.
    const struct {
        const char* logger;
        const char* entry;
        const char* path;
    } devices[] = {
        {"JXBatteryLogger", "[Battery]", "/sys/class/power_supply"},
        {"JXDisplayLogger", "[Display]", "/sys/class/backlight"},
        {"JXWiFiLogger", "[WiFi]", "/sys/class/ieee80211"},
        {"JXSleepWakeLogger", "[Sleep]", "/sys/power/suspend_stats"},
        {"JXTelephonyLogger", "[Telephony]", "/nonexistent/joulix-bus"},  // the run's bus: none
        {"JXBasebandLogger", "[BB HW ", "/nonexistent/joulix-bus"},      // one sample is only a starting point
    };
    for (const auto& d : devices) {
        EXPECT_NE(p.err().find(std::string("setting up core logger ") + d.logger), std::string::npos) << d.logger;
        std::size_t said = 0;
        for (std::size_t at = p.err().find(std::string(d.logger) + ": "); at != std::string::npos;
             at = p.err().find(std::string(d.logger) + ": ", at + 1))
            ++said;
        EXPECT_LE(said, 1u) << d.logger;
        std::error_code ec;
        if (!std::filesystem::is_empty(d.path, ec) && !ec) continue;  // the machine has one after all
        EXPECT_EQ(log.find(d.entry), std::string::npos) << log;
    }
}

TEST_F(LoggersIntegrationTest, TheThermalBundleLoadsInTheDaemon) {
    jxtest::installBundle(root, "JXThermalLogger.bundle", "JXThermalLogger.bundle");
    auto run = joulix({"--once"});
    ASSERT_EQ(run->wait(), 0) << run->err();
    Process& p = *run;
    EXPECT_NE(p.err().find("setting up bundle logger JXThermalLogger"), std::string::npos) << p.err();
    EXPECT_EQ(p.err().find("Could not find JXThermalLogger"), std::string::npos) << p.err();
    // The machine's own thermal class: entries where it has zones, else one line at most.
    const std::string log = root.readFile("/var/mobile/Library/Logs/CurrentJoulix.joulix");
    std::error_code ec;
    if (std::filesystem::is_empty("/sys/class/thermal", ec) || ec) {
        EXPECT_EQ(log.find("[Thermal]"), std::string::npos) << log;
        EXPECT_NE(p.err().find("JXThermalLogger: no thermal zone"), std::string::npos) << p.err();
    }
    EXPECT_EQ(p.err().find("JXThermalLogger: no thermal zone"), p.err().rfind("JXThermalLogger: no thermal zone"));
}

}  // namespace
