// Thermal zones and cooling devices from a fake sysfs.
#include "plugins/thermal/JXThermalLogger.h"
#include "tests/loggers/LoggerTree.h"

namespace {

class ThermalLoggerTest : public LoggerTree {
protected:
    void zone(int n, const std::string& type, const std::string& milli) {
        put("/sys/class/thermal/thermal_zone" + std::to_string(n) + "/type", type + "\n");
        put("/sys/class/thermal/thermal_zone" + std::to_string(n) + "/temp", milli + "\n");
    }
    void cooling(int n, const std::string& type, const std::string& state, const std::string& maximum) {
        const std::string base = "/sys/class/thermal/cooling_device" + std::to_string(n) + "/";
        put(base + "type", type + "\n");
        put(base + "cur_state", state + "\n");
        put(base + "max_state", maximum + "\n");
    }
    std::shared_ptr<JXThermalLogger> logger = std::make_shared<JXThermalLogger>(sys());
};

TEST_F(ThermalLoggerTest, ZonesAndCoolingDevicesThenOnlyWhatMoved) {
    zone(0, "acpitz", "27800");
    zone(1, "x86_pkg_temp", "45500");
    put("/sys/class/thermal/thermal_zone2/type", "iwlwifi_1\n");  // its sensor asleep: no temp to read
    cooling(0, "Processor", "0", "3");
    logger->log();
    EXPECT_EQ(lines("Thermal"), (std::vector<std::string>{"[Thermal] zone=acpitz; temperature=27.8;",
                                                          "[Thermal] zone=x86_pkg_temp; temperature=45.5;"}));
    EXPECT_EQ(lines("Cooling"), std::vector<std::string>{"[Cooling] device=Processor; state=0; max_state=3;"});

    zone(0, "acpitz", "28100");  // still 28 degrees
    zone(1, "x86_pkg_temp", "47000");
    logger->logChanges();
    cooling(0, "Processor", "2", "3");
    logger->logChanges();
    EXPECT_EQ(lines("Thermal").back(), "[Thermal] zone=x86_pkg_temp; temperature=47;");
    EXPECT_EQ(lines("Thermal").size(), 3u);
    EXPECT_EQ(lines("Cooling").back(), "[Cooling] device=Processor; state=2; max_state=3;");
    logger->log();
    EXPECT_EQ(lines("Thermal").size(), 5u);
}

}  // namespace
