// Wireless interfaces from a fake sysfs and wireless statistics table.
#include "plugins/builtin/JXBuiltinLoggers.h"
#include "tests/loggers/LoggerTree.h"

namespace {

class WiFiLoggerTest : public LoggerTree {
protected:
    void SetUp() override {
        put("/sys/class/net/eth0/operstate", "up\n");  // wired: not listed
        put("/sys/class/net/lo/operstate", "unknown\n");
        put("/sys/class/net/wlan0/phy80211/name", "phy0\n");
    }
    void link(const std::string& state) { put("/sys/class/net/wlan0/operstate", state + "\n"); }
    void statistics(const std::string& signal) {
        put("/proc/net/wireless",
            "Inter-| sta-|   Quality        |   Discarded packets               | Missed | WE\n"
            " face | tus | link level noise |  nwid  crypt   frag  retry   misc | beacon | 22\n"
            " wlan0: 0000   61.  " +
                signal + ".  -256        0      0      0      3     12        0\n");
    }
    std::shared_ptr<JXWiFiLogger> logger = std::make_shared<JXWiFiLogger>(sys(), proc());
};

TEST_F(WiFiLoggerTest, LinkAndSignalThenOnlyALinkChangeOrAMovedSignal) {
    link("up");
    statistics("-49");
    logger->log();
    EXPECT_EQ(lines("WiFi"), std::vector<std::string>{"[WiFi] interface=wlan0; link=YES; quality=61; signal=-49;"});

    statistics("-52");  // a small move: not written
    logger->logChanges();
    statistics("-54");  // five from what the log says
    logger->logChanges();
    link("dormant");
    logger->logChanges();
    logger->logChanges();
    EXPECT_EQ(lines("WiFi"), (std::vector<std::string>{"[WiFi] interface=wlan0; link=YES; quality=61; signal=-49;",
                                                       "[WiFi] interface=wlan0; link=YES; quality=61; signal=-54;",
                                                       "[WiFi] interface=wlan0; link=NO;"}));
}

TEST_F(WiFiLoggerTest, ARadioWithTheWirelessExtensionsDirectoryAndNoStatisticsTable) {
    std::filesystem::remove_all(root("/sys/class/net/wlan0"));
    put("/sys/class/net/wlp2s0/wireless/.keep", "");
    put("/sys/class/net/wlp2s0/operstate", "up\n");
    logger->log();
    EXPECT_EQ(lines("WiFi"), std::vector<std::string>{"[WiFi] interface=wlp2s0; link=YES;"});
}

}  // namespace
