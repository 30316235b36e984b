// Setting up the loggers: the core list, the static list and the plug-in
// directory, with the messages each choice leaves in the system log.
#include <gtest/gtest.h>

#include <filesystem>

#include "JoulixMain/JoulixMain.h"
#include "defaults/JXDefaults.h"
#include "platform/JXUtilities.h"
#include "tests/JoulixMain/TestLogger.h"
#include "tests/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;

class RegistryTest : public ::testing::Test {
protected:
    void SetUp() override {
        controller = JoulixMain::create();
        controller->setShouldKeepRunning(true);  // state entries are written only then
        fs::create_directories(pluginDir);
    }
    static void setEnabled(const std::string& logger, bool on) {
        JXDefaultsSetValueForKey(logger, jx::Value(jx::Dictionary{{"Enabled", jx::Value(on)}}));
    }
    std::vector<std::string> registered() const { return controller->loggerList()->keys(); }
    void installBundle(const std::string& as) { jxtest::installBundle(root, "JXTestBundleLogger.bundle", as); }

    jxtest::TestRoot root;
    jxtest::LogCapture log;
    HiddenBuiltinLoggers builtins;
    std::shared_ptr<JoulixMain> controller;
    std::string pluginDir = root("/System/Library/JoulixPlugins");
};

TEST_F(RegistryTest, StaticListSetsUpEnabledCoreLoggersOnceAndReportsDisabledOnesTwice) {
    ScopedLoggerClass config("JXConfigLogger"), battery("JXBatteryLogger");
    ScopedLoggerClass kpc("JXKPCLogger", [] { return std::shared_ptr<JXLogger>(); });
    setEnabled("JXBatteryLogger", false);
    JXDefaultsSetValueForKey(JXLoggingMode, jx::Value(1));
    WrittenLog written;

    controller->setupLoggers();

    EXPECT_EQ(registered(), std::vector<std::string>{"JXConfigLogger"});
    EXPECT_EQ(log.count("setting up core logger JXConfigLogger"), 1u);
    EXPECT_EQ(log.count("setting up bundle logger JXConfigLogger"), 0u);
    EXPECT_EQ(log.count("Skipping core logger JXBatteryLogger"), 1u);
    EXPECT_EQ(log.count("Skipping bundle logger JXBatteryLogger"), 1u);
    // Found, but no logger: reported as core and again as a bundle.
    EXPECT_EQ(log.count("ERROR: No plugin bundle found for JXKPCLogger"), 2u);
    EXPECT_EQ(log.count("Could not find JXAccessoryLogger, skipping."), 1u);
    EXPECT_EQ(log.count("Could not find JXSettingsLogger, skipping."), 2u);
    // Off unless switched on.
    EXPECT_EQ(log.count("Skipping bundle logger JXPushNotificationLogger"), 1u);
    EXPECT_EQ(log.count("Could not find JXPushNotificationLogger, skipping."), 0u);
    // Each name is tried once per list: 18 core, then the 35 static names not yet registered.
    EXPECT_EQ(log.countContaining("core logger"), 18u);
    EXPECT_EQ(log.countContaining("bundle logger"), 35u);
    EXPECT_EQ(written.count("[Log] state=booting;"), 1u);

    // Switched on, the push-notification logger is tried like any other.
    controller.reset();
    controller = JoulixMain::create();
    setEnabled("JXPushNotificationLogger", true);
    controller->setupLoggers();
    EXPECT_EQ(log.count("Could not find JXPushNotificationLogger, skipping."), 1u);
}

TEST_F(RegistryTest, ModeZeroSkipsDisabledLoggersSilently) {
    ScopedLoggerClass battery("JXBatteryLogger");
    setEnabled("JXBatteryLogger", false);
    JXDefaultsSetValueForKey(JXLoggingMode, jx::Value(0));
    controller->setupLoggers();
    EXPECT_TRUE(registered().empty());
    EXPECT_EQ(log.countContaining("Skipping"), 0u);
    EXPECT_EQ(log.countContaining("JXBatteryLogger"), 0u);
    EXPECT_EQ(log.countContaining("JXPushNotificationLogger"), 0u);
}

TEST_F(RegistryTest, DynamicDiscoveryLoadsBundlesSkipsDebugSymbolsAndRunsOnce) {
    JXDefaultsSetValueForKey(JXLoggerDiscovery, jx::Value("DYNAMIC"));
    installBundle("JXThermalLogger.bundle");
    fs::create_directories(pluginDir + "/JXThermalLogger.bundle.dSYM");
    root.writeFile("/System/Library/JoulixPlugins/README", "plug-ins live here\n");

    controller->setupLoggers();

    EXPECT_EQ(registered(), std::vector<std::string>{"JXThermalLogger"});
    EXPECT_EQ(JXUtilities::getLoggerForName("JXThermalLogger")->name(), "JXTestBundleLogger");
    EXPECT_EQ(log.count("setting up bundle logger JXThermalLogger"), 1u);
    EXPECT_EQ(log.count("skipped JXThermalLogger.bundle.dSYM"), 1u);
    EXPECT_EQ(log.count("setting up bundle logger README"), 1u);
    EXPECT_EQ(log.count("Could not find README, skipping."), 1u);
    EXPECT_EQ(log.count("Could not find JXAccessoryLogger, skipping."), 0u) << "the static list is not used";

    // The registry is filled once.
    auto before = log.messages().size();
    auto logger = JXUtilities::getLoggerForName("JXThermalLogger");
    controller->setupLoggers();
    EXPECT_EQ(log.messages().size(), before);
    EXPECT_EQ(JXUtilities::getLoggerForName("JXThermalLogger"), logger);

    controller->addLoggerByName("JXThermalLogger");
    EXPECT_EQ(log.count("Logger JXThermalLogger already exists, skipping."), 1u);
}

TEST_F(RegistryTest, ALoadedClassComesBeforeTheBundleOfTheSameName) {
    installBundle("JXConfigLogger.bundle");
    ScopedLoggerClass config("JXConfigLogger");
    controller->addLoggerByName("JXConfigLogger");
    auto logger = JXUtilities::getLoggerForName("JXConfigLogger");
    ASSERT_TRUE(logger);
    EXPECT_TRUE(std::dynamic_pointer_cast<CountingLogger>(logger));
}

}  // namespace
