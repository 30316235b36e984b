// Every logger on a machine without its device: no line, and one message however
// often it is asked.
#include "plugins/builtin/JXBuiltinLoggers.h"
#include "plugins/thermal/JXThermalLogger.h"
#include "tests/loggers/LoggerTree.h"

namespace {

using QuietLoggerTest = LoggerTree;

TEST_F(QuietLoggerTest, ALoggerWithoutItsDeviceWritesNothingAndSaysSoOnce) {
    const struct {
        std::function<std::shared_ptr<JXLogger>()> make;
        std::vector<const char*> tags;
        const char* message;
        std::function<void()> tree;  // what there is that is not the device
    } cases[] = {
        {[&] { return std::make_shared<JXConfigLogger>(sys(), proc(), etc()); }, {"Config"},
         "JXConfigLogger: nothing to read", [] {}},
        {[&] { return std::make_shared<JXThermalLogger>(sys()); }, {"Thermal", "Cooling"},
         "JXThermalLogger: no thermal zone", [] {}},
        {[&] { return std::make_shared<JXWiFiLogger>(sys(), proc()); }, {"WiFi"}, "JXWiFiLogger: no wireless interface",
         [&] {
             put("/sys/class/net/eth0/operstate", "up\n");
             put("/sys/class/net/lo/operstate", "unknown\n");
         }},
        {[&] { return std::make_shared<JXBatteryLogger>(sys()); }, {"Battery", "Charger"},
         "JXBatteryLogger: no battery or charger",
         [&] {
             put("/sys/class/power_supply/BAT1/type", "Battery\n");
             put("/sys/class/power_supply/BAT1/present", "0\n");
             put("/sys/class/power_supply/hid-mouse/type", "Unknown\n");
         }},
        {[&] { return std::make_shared<JXDisplayLogger>(sys()); }, {"Display"}, "JXDisplayLogger: no backlight",
         [&] { put("/sys/class/drm/card0-VGA-1/status", "disconnected\n"); }},
        {[&] { return std::make_shared<JXProcessMonitorLogger>(proc()); }, {"Process"},
         "JXProcessMonitorLogger: no process statistics", [] {}},
        {[&] { return std::make_shared<JXNetworkLogger>(proc()); }, {"Network"}, "JXNetworkLogger: no interface counters",
         [&] { put("/proc/net/dev", "Inter-|   Receive |  Transmit\n face |bytes |bytes\n"); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        std::filesystem::remove_all(root.path() + "/sys");
        std::filesystem::remove_all(root.path() + "/proc");
        auto logger = c.make();
        logger->log();
        c.tree();
        if (auto sampling = std::dynamic_pointer_cast<JXSamplingLogger>(logger)) sampling->logChanges();
        logger->log();
        for (const char* tag : c.tags) EXPECT_TRUE(lines(tag).empty()) << tag;
        EXPECT_EQ(log.countContaining(c.message), 1u);
    }
}

}  // namespace
