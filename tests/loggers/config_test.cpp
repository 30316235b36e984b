// The configuration, locale and settings entries.
#include <unicode/locid.h>
#include <unicode/timezone.h>

#include "defaults/JXDefaults.h"
#include "platform/PreferencesStore.h"
#include "platform/PropertyList.h"
#include "plugins/builtin/JXBuiltinLoggers.h"
#include "tests/loggers/LoggerTree.h"

namespace {

class ConfigLoggerTest : public LoggerTree {
protected:
    void fullTree() {
        put("/sys/class/dmi/id/product_name", "Brick 14\n");
        put("/sys/class/dmi/id/sys_vendor", "Stonework\n");
        put("/proc/sys/kernel/osrelease", "6.1.0-27-arm64\n");
        put("/proc/sys/kernel/version", "#1 SMP Debian 6.1.115-1\n");
        put("/etc/os-release",
            "NAME=\"Debian GNU/Linux\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nVERSION_ID=\"12\"\n");
        put("/proc/cpuinfo",
            "processor\t: 0\nmodel name\t: Quartz Q9 @ 2.0GHz\nflags\t\t: fpu\n\n"
            "processor\t: 1\nmodel name\t: Quartz Q9 @ 2.0GHz\nflags\t\t: fpu\n");
        put("/proc/meminfo", "MemTotal:        3984412 kB\nMemFree:          123456 kB\n");
    }
    void sample() { std::make_shared<JXConfigLogger>(sys(), proc(), etc())->log(); }
};

TEST_F(ConfigLoggerTest, DescribesTheDeviceFromItsKernelFiles) {
    fullTree();
    sample();
    EXPECT_EQ(lines("Config"),
              std::vector<std::string>{
                  "[Config] model=Brick 14; vendor=Stonework; kernel=6.1.0-27-arm64; "
                  "kernel_version=#1 SMP Debian 6.1.115-1; os=Debian GNU/Linux 12 (bookworm); os_build=12; "
                  "cpu=Quartz Q9 @ 2.0GHz; cpu_count=2; memory_mb=3891;"});
}

TEST_F(ConfigLoggerTest, PrefersTheDeviceTreeModelAndTheBuildIdentifier) {
    fullTree();
    // The device tree's text ends in a NUL; an ARM kernel names its SoC as "Hardware".
    put("/sys/firmware/devicetree/base/model", std::string("Pebble Board rev 2\0", 19));
    put("/proc/cpuinfo", "processor\t: 0\nBogoMIPS\t: 48.00\n\nHardware\t: Granite G1\n");
    put("/etc/os-release", "PRETTY_NAME='Pebble OS 3'\nVERSION_ID=3\nBUILD_ID=3.1.4-20261101\n");
    sample();
    ASSERT_EQ(lines("Config").size(), 1u);
    const std::string line = lines("Config")[0];
    EXPECT_NE(line.find("[Config] model=Pebble Board rev 2; vendor=Stonework;"), std::string::npos) << line;
    EXPECT_NE(line.find("os=Pebble OS 3; os_build=3.1.4-20261101; cpu=Granite G1; cpu_count=1;"), std::string::npos)
        << line;
}

// The default locale and zone of the process, set for the test and put back.
class LocaleLoggerTest : public LoggerTree {
protected:
    void SetUp() override {
        savedLocale = icu::Locale::getDefault();
        savedZone.reset(icu::TimeZone::createDefault());
    }
    void TearDown() override {
        UErrorCode status = U_ZERO_ERROR;
        icu::Locale::setDefault(savedLocale, status);
        icu::TimeZone::setDefault(*savedZone);
    }
    icu::Locale savedLocale;
    std::unique_ptr<icu::TimeZone> savedZone;
};

TEST_F(LocaleLoggerTest, GivesTheLocaleAndTheZoneWithItsOffsetNow) {
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale::setDefault(icu::Locale("de", "CH"), status);
    // A zone without daylight saving time: its offset does not depend on the date.
    icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("Asia/Kolkata"));
    std::make_shared<JXLocaleLogger>()->log();
    EXPECT_EQ(lines("Locale"), std::vector<std::string>{"[Locale] locale=de_CH; language=de; country=CH; "
                                                        "time_zone=Asia/Kolkata; gmt_offset=19800; dst=NO;"});
}

TEST(SettingsLoggerTest, GivesTheSettingsInForceIncludingPerLoggerOnes) {
    jxtest::TestRoot root;
    WrittenLog written;
    auto logger = std::make_shared<JXSettingsLogger>();
    logger->log();
    // Nothing set: only the mode.
    EXPECT_EQ(written.count("[Settings] loggingMode=Lite;\n"), 1u) << written.text();

    JXDefaultsSetValueForKey(JXLoggingMode, jx::Value(1));
    JXDefaultsSetValueForKey(JXLoggerDiscovery, jx::Value("dynamic; or not"));
    JXDefaultsSetValueForKey("JXBatteryLogger",
                             jx::Value(jx::Dictionary{{"Enabled", jx::Value(false)}, {"SamplePeriod", jx::Value(30)}}));
    JXDefaultsSetValueForKey(JXFullModeBlackList, jx::Value(jx::Array{jx::Value("JXAudioLogger"), jx::Value(2.5)}));
    logger->log();
    // Keys in order, collections on one line, the line's separator kept out of values.
    EXPECT_EQ(written.count("[Settings] loggingMode=Full; JXBatteryLogger={Enabled=NO,SamplePeriod=30}; "
                            "JXFullModeBlackList=(JXAudioLogger,2.5); JXLoggerDiscovery=dynamic_ or not; "
                            "JXLoggingMode=1;\n"),
              1u)
        << written.text();

    // A domain stuffed with keys: read once (the cost was the square of the key count),
    // its first 256 keys shown and the rest counted.
    jx::Dictionary many;
    for (int i = 0; i < 40000; ++i) many[jx::formatString("K%05d", i)] = jx::Value(i);
    ASSERT_TRUE(jx::writePropertyListFileAtomically(jx::preferencesPath(kJXDefaultsDomain, kJXDefaultsUser), jx::Value(many)));
    logger->log();
    const std::string text = written.text();
    const std::size_t last = text.rfind("[Settings]");
    const std::string line = text.substr(last, text.find('\n', last) - last);
    EXPECT_EQ(jxtest::occurrences(line, "; "), 257u) << line.substr(0, 200);  // the mode, 256 keys, the count
    EXPECT_NE(line.find("; keysNotShown=39744;"), std::string::npos) << line.substr(line.size() - 200);
}

}  // namespace
