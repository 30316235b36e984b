// Per-logger settings, and bundle loading with its trust rules.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "platform/JXLogger.h"
#include "platform/JXLoggerClass.h"
#include "platform/PreferencesStore.h"
#include "platform/PropertyList.h"
#include "tests/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;

void writeLoggerSettings(const jxtest::TestRoot& root, const jx::Dictionary& settings) {
    fs::create_directories(root("/var/mobile/Library/Preferences"));
    ASSERT_TRUE(jx::writePropertyListFileAtomically(root("/var/mobile/Library/Preferences/com.brindle.joulix.plist"),
                                                    jx::Value(settings)));
}

TEST(JXLoggerSettings, StoredSettingThenManagedThenRegisteredDefaultThenEnabled) {
    jxtest::TestRoot root;
    jx::resetManagedPreferencesForTesting();
    // The administrator's file: consulted key by key where the store has nothing (the
    // store winning over it is run with the real daemon).
    fs::create_directories(root("/Library/Managed Preferences/mobile"));
    ASSERT_TRUE(jx::writePropertyListFileAtomically(
        jx::managedPreferencesPath("com.brindle.joulix"),
        jx::Value(jx::Dictionary{
            {"JXTestOffLogger", jx::Value(jx::Dictionary{{"Enabled", jx::Value(true)}, {"Depth", jx::Value(4)}})}})));
    JXLogger::setDefault(jx::Value(false), "Enabled", "JXTestDefaultedLogger");
    writeLoggerSettings(root, {
                                  {"JXTestOffLogger",
                                   jx::Value(jx::Dictionary{{"Enabled", jx::Value("NO")}, {"Period", jx::Value(30)}})},
                              });
    for (auto [name, on] :
         {std::pair{"JXTestUnknownLogger", true}, {"JXTestDefaultedLogger", false}, {"JXTestOffLogger", false}})
        EXPECT_EQ(JXLogger::loggerEnabledWithName(name), on) << name;
    EXPECT_EQ(JXLogger::settingForKey("Period", "JXTestOffLogger"), jx::Value(30));
    EXPECT_EQ(JXLogger::settingForKey("Depth", "JXTestOffLogger"), jx::Value(4));  // the store's dictionary lacks it
    jx::resetManagedPreferencesForTesting();
}

class BundleTest : public ::testing::Test {
protected:
    std::string install(const std::string& name, mode_t mode) {
        return jxtest::installBundle(root, "JXTestBundleLogger.bundle", name, mode);
    }
    jxtest::TestRoot root;
    jxtest::LogCapture log;
    std::string pluginDir = root("/System/Library/JoulixPlugins");
};

TEST_F(BundleTest, UntrustedOrBrokenBundlesCountAsNotFound) {
    fs::create_directories(pluginDir);
    EXPECT_EQ(JXBundle::principalClass(pluginDir + "/JXMissingLogger.bundle"), nullptr);
    EXPECT_TRUE(log.messages().empty()) << "a missing bundle is not worth a message";

    EXPECT_EQ(JXBundle::principalClass(install("JXGroupWritable.bundle", 0664)), nullptr);
    EXPECT_EQ(log.countContaining("writable by group or others"), 1u);

    // A FIFO in a bundle's place: refused without opening it, which would block for ever.
    ::mkfifo((pluginDir + "/JXFifo.bundle").c_str(), 0644);
    EXPECT_EQ(JXBundle::principalClass(pluginDir + "/JXFifo.bundle"), nullptr);
    EXPECT_EQ(log.countContaining("JXFifo.bundle not loaded: not a regular file"), 1u);

    // A directory others can write to makes every bundle in it untrusted.
    std::string good = install("JXThermalLogger.bundle", 0644);
    chmod(pluginDir.c_str(), 0777);
    EXPECT_EQ(JXBundle::principalClass(good), nullptr);
    EXPECT_EQ(log.countContaining("its directory is writable"), 1u);
}

// Bundles opened one after another reuse one descriptor number: each must still be
// its own library, and one file under two names must not give one class twice.
TEST_F(BundleTest, EachBundleIsItsOwnLibrary) {
    std::string test = install("JXTestBundleLogger.bundle", 0644);
    std::string load = jxtest::installBundle(root, "JXLoadAverageLogger.bundle", "JXLoadAverageLogger.bundle", 0644);
    JXLoggerClass* a = JXBundle::principalClass(test);
    JXLoggerClass* b = JXBundle::principalClass(load);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a->name(), "JXTestBundleLogger");
    EXPECT_EQ(b->name(), "JXLoadAverageLogger");

    ASSERT_EQ(::link(load.c_str(), (pluginDir + "/JXLoadAverageTwin.bundle").c_str()), 0);
    EXPECT_EQ(JXBundle::principalClass(pluginDir + "/JXLoadAverageTwin.bundle"), nullptr);
    EXPECT_EQ(log.countContaining("it is the same library as " + load), 1u);
}

}  // namespace
