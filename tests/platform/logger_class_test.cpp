// Logger classes, per-logger settings, bundle loading with its trust rules, and the
// process-wide utilities.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <filesystem>
#include <mutex>
#include <regex>
#include <set>
#include <thread>
#include <vector>

#include "platform/JXEntry.h"
#include "platform/JXLogger.h"
#include "platform/JXLoggerClass.h"
#include "platform/JXUtilities.h"
#include "platform/PreferencesStore.h"
#include "platform/PropertyList.h"
#include "platform/Root.h"
#include "tests/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;

class QuietLogger : public JXLogger {
public:
    explicit QuietLogger(std::string name) : JXLogger(std::move(name)) {}

protected:
    void logSample() override {}
};

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
    JXLogger::setDefault(jx::Value(false), "Enabled", "JXTestOverriddenLogger");
    writeLoggerSettings(root, {
                                  {"JXTestOverriddenLogger", jx::Value(jx::Dictionary{{"Enabled", jx::Value(true)}})},
                                  {"JXTestOffLogger",
                                   jx::Value(jx::Dictionary{{"Enabled", jx::Value("NO")}, {"Period", jx::Value(30)}})},
                                  {"JXTestOddLogger", jx::Value(false)},  // not a dictionary: as if absent
                              });
    for (auto [name, on] : {std::pair{"JXTestUnknownLogger", true},
                            {"JXTestDefaultedLogger", false},
                            {"JXTestOddLogger", true},
                            {"JXTestOverriddenLogger", true},
                            {"JXTestOffLogger", false}})
        EXPECT_EQ(JXLogger::loggerEnabledWithName(name), on) << name;
    EXPECT_EQ(JXLogger::settingForKey("Period", "JXTestOffLogger"), jx::Value(30));
    EXPECT_EQ(JXLogger::settingForKey("Depth", "JXTestOffLogger"), jx::Value(4));  // the store's dictionary lacks it

    // A setting written by another process while the daemon runs is seen at the next
    // read: run with the real daemon (a hangup after joulixctl's write).
    jx::resetManagedPreferencesForTesting();
}

TEST(JXLoggerClass, OneLoggerWhileItLivesEachOnItsOwnQueue) {
    int made = 0;
    JXLoggerClass cls("JXTestClassLogger", [&] {
        ++made;
        return std::make_shared<QuietLogger>("JXTestClassLogger");
    });
    auto first = cls.logger();
    EXPECT_EQ(cls.logger(), first);
    EXPECT_EQ(made, 1);
    EXPECT_EQ(&first->loggerSerialQueue(), &JXUtilities::getQueueForLogger(cls));
    EXPECT_NE(&first->loggerSerialQueue(), &JXUtilities::getQueueForLoggerNamed("JXTestOtherLogger"));
    // The registry owns the logger: once nobody holds it, the class makes a new one.
    first.reset();
    EXPECT_TRUE(cls.logger());
    EXPECT_EQ(made, 2);

    JXLoggerClass none("JXTestNoLogger", [] { return std::shared_ptr<JXLogger>(); });
    EXPECT_EQ(none.logger(), nullptr);

    JXClassRegistry::registerClass(&cls);
    EXPECT_EQ(JXClassRegistry::lookUpClass("JXTestClassLogger"), &cls);
    EXPECT_EQ(JXClassRegistry::lookUpClass("jxtestclasslogger"), nullptr);  // names are exact
    JXClassRegistry::removeClass(&cls);
    EXPECT_EQ(JXClassRegistry::lookUpClass("JXTestClassLogger"), nullptr);
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
    EXPECT_EQ(JXBundle::principalClass(install("JXWorldWritable.bundle", 0646)), nullptr);
    EXPECT_EQ(log.countContaining("writable by group or others"), 2u);

    // A file that is not a shared object.
    root.writeFile("/System/Library/JoulixPlugins/JXText.bundle", "not a library");
    chmod((pluginDir + "/JXText.bundle").c_str(), 0644);
    EXPECT_EQ(JXBundle::principalClass(pluginDir + "/JXText.bundle"), nullptr);
    EXPECT_EQ(log.countContaining("cannot be loaded"), 1u);

    // A FIFO in a bundle's place: refused without opening it, which would block for ever.
    ::mkfifo((pluginDir + "/JXFifo.bundle").c_str(), 0644);
    EXPECT_EQ(JXBundle::principalClass(pluginDir + "/JXFifo.bundle"), nullptr);
    EXPECT_EQ(log.countContaining("JXFifo.bundle not loaded: not a regular file"), 1u);

    // A directory others can write to makes every bundle in it untrusted.
    std::string good = install("JXThermalLogger.bundle", 0644);
    chmod(pluginDir.c_str(), 0777);
    EXPECT_EQ(JXBundle::principalClass(good), nullptr);
    EXPECT_EQ(log.countContaining("its directory is writable"), 1u);
    // Said once per bundle, however often it is asked for.
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

TEST(JXUtilities, UUIDsAreVersionFourUppercaseAndUnique) {
    std::mutex mutex;
    std::set<std::string> seen;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 500; ++i) {
                std::string u = JXUtilities::UUIDString();
                std::lock_guard lock(mutex);
                seen.insert(u);
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(seen.size(), 2000u);
    // Uppercase hex in groups of 8-4-4-4-12, version 4, variant 10xx.
    const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    for (const auto& u : seen) ASSERT_TRUE(std::regex_match(u, form)) << u;
}

TEST(JXUtilities, BuildVersionComesFromTheRootsOsRelease) {
    jxtest::TestRoot root;
    struct utsname u {};
    ASSERT_EQ(uname(&u), 0);
    const std::string kernel = std::string(" (") + u.release + ")";
    struct {
        const char* osRelease;
        const char* version;
    } cases[] = {
        {"VERSION_ID=7\n", "7"},
        {"VERSION_ID='3.1'\nBUILD_ID=x", "3.1"},
        {"ID=rolling\nBUILD_ID=20260101\n", "20260101"},
        {"VERSION_ID=\"1;2\"\n", "1,2"},
        {"# comment\n\nVERSION_ID=\"\"\nID=\"plain\"", "plain"},
    };
    for (auto& c : cases) {
        root.writeFile("/etc/os-release", c.osRelease);
        EXPECT_EQ(JXUtilities::buildVersion(), c.version + kernel) << c.osRelease;
    }
}

TEST(JXUtilities, LoggerLookupGoesThroughTheLinkedList) {
    EXPECT_EQ(JXUtilities::getLoggerForName("JXBatteryLogger"), nullptr);  // nothing linked
    auto battery = std::make_shared<QuietLogger>("JXBatteryLogger");
    auto list = std::make_shared<JXEntry>("Loggers");
    list->setObject(JXValue::valueWithObject(battery), "JXBatteryLogger");
    list->setObject(JXValue::valueWithObject(JXNull::null()), "JXCameraLogger");
    list->setObject(JXValue::valueWithObject(std::make_shared<JXEntry>("NotALogger")), "JXOddLogger");
    JXUtilities::linkLoggerList(list);

    EXPECT_EQ(JXUtilities::getLoggerForName("JXBatteryLogger"), battery);
    for (const char* other : {"JXCameraLogger", "JXOddLogger", "JXMissingLogger"})
        EXPECT_EQ(JXUtilities::getLoggerForName(other), nullptr) << other;

    JXUtilities::linkLoggerList(nullptr);
    EXPECT_EQ(JXUtilities::getLoggerForName("JXBatteryLogger"), nullptr);
}

TEST(JXUtilities, TheSharedRunLoopIsKeptAlive) {
    auto previous = JXUtilities::sharedJXRunLoop();
    auto loop = std::make_shared<jx::RunLoop>();
    EXPECT_EQ(loop->runUntilSourceHandled(0), jx::RunLoop::Result::Finished);
    JXUtilities::setSharedJXRunLoop(loop);
    // Other threads may hand it work at any time, so an empty turn waits instead of finishing.
    EXPECT_EQ(loop->runUntilSourceHandled(0), jx::RunLoop::Result::TimedOut);
    JXUtilities::setSharedJXRunLoop(previous);
}

TEST(Root, PathsLieUnderTheRoot) {
    const std::string saved = jx::root();
    struct {
        const char* root;
        const char* normalised;
        const char* path;
        const char* expected;
    } cases[] = {
        {"///", "/", "/var/mobile", "/var/mobile"},
        {"", "/", "/var/mobile", "/var/mobile"},
        {"/tmp/r//", "/tmp/r", "relative/x", "/tmp/r/relative/x"},
        {"/tmp/r", "/tmp/r", "/", "/tmp/r/"},
    };
    for (auto& c : cases) {
        jx::setRoot(c.root);
        EXPECT_EQ(jx::root(), c.normalised) << '"' << c.root << '"';
        EXPECT_EQ(jx::rootPath(c.path), c.expected) << '"' << c.root << "\" " << c.path;
    }
    jx::setRoot(saved);
}

}  // namespace
