// Every logger on a machine without its device: no line, and one message however
// often it is asked.
#include "plugins/thermal/JXThermalLogger.h"
#include "tests/loggers/LoggerTree.h"

using QuietLoggerTest = LoggerTree;

TEST_F(QuietLoggerTest, ALoggerWithoutItsDeviceWritesNothingAndSaysSoOnce) {
    NoSystemBus noBus;
    const struct {
        std::shared_ptr<JXLogger> logger;
        const char* message;
        const char* tree = "";    // what there is that is not the device
        bool timerStops = false;  // rather than ticking to look again
    } cases[] = {
        {std::make_shared<JXConfigLogger>(sys(), proc(), etc()), "JXConfigLogger: nothing to read"},
        {std::make_shared<JXThermalLogger>(sys()), "JXThermalLogger: no thermal zone"},
        {std::make_shared<JXWiFiLogger>(sys(), proc()), "JXWiFiLogger: no wireless interface",
         "sys/class/net/eth0/operstate=up; sys/class/net/lo/operstate=unknown"},
        {std::make_shared<JXBatteryLogger>(sys()), "JXBatteryLogger: no battery or charger",
         "sys/class/power_supply/BAT1/type=Battery; sys/class/power_supply/BAT1/present=0; "
         "sys/class/power_supply/hid-mouse/type=Unknown"},
        {std::make_shared<JXDisplayLogger>(sys()), "JXDisplayLogger: no backlight",
         "sys/class/drm/card0-VGA-1/status=disconnected"},
        {std::make_shared<JXProcessMonitorLogger>(proc()), "JXProcessMonitorLogger: no process statistics"},
        {std::make_shared<JXNetworkLogger>(proc()), "JXNetworkLogger: no interface counters",
         "proc/net/dev=Inter-|   Receive |  Transmit\n face |bytes |bytes"},
        {std::make_shared<JXPowercapLogger>(sys()), "JXPowercapLogger: no energy counter under"},
        {std::make_shared<JXWakeupSourceLogger>(sys()), "JXWakeupSourceLogger: no wake-up source"},
        {std::make_shared<JXCpuResidencyLogger>(sys()), "JXCpuResidencyLogger: no cpuidle or cpufreq statistics"},
        {std::make_shared<JXRuntimePMLogger>(sys()), "JXRuntimePMLogger: no runtime-PM statistics"},
        {std::make_shared<JXTelephonyLogger>(), "JXTelephonyLogger: no modem manager on the system bus"},
        {std::make_shared<JXBasebandLogger>(sys(), root.path() + "/debug"),
         "JXBasebandLogger: no modem sleep statistics", "debug/tracing/README=x", true},
        {std::make_shared<JXSleepWakeLogger>(sys()), "JXSleepWakeLogger: no login manager", "", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        std::filesystem::remove_all(sys());
        std::filesystem::remove_all(proc());
        auto sampling = std::dynamic_pointer_cast<JXSamplingLogger>(c.logger);
        c.logger->loggerSerialQueue().sync([&] {
            c.logger->log();
            files("", c.tree);
            if (sampling) sampling->logChanges();
            c.logger->log();
        });
        EXPECT_EQ(fresh(""), Lines{});
        EXPECT_EQ(log.countContaining(c.message), 1u);
        EXPECT_EQ(c.timerStops ? sampling->samplePeriod() : 0, 0) << "the timer stops rather than look again";
    }
}
