// The controller's run thread, its observers and trigger, and the setting up of its loggers.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <filesystem>

#include "JoulixMain/JoulixMain.h"
#include "defaults/JXDefaults.h"
#include "platform/JXUtilities.h"
#include "platform/NotificationCenter.h"
#include "platform/NotificationNames.h"
#include "tests/JoulixMain/TestLogger.h"
#include "tests/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using jxtest::waitFor;

// The system-wide centre for these tests: counts posts and observes nothing
// (delivery over a bus is run with the real daemon, and in platform_tests).
class CountingCenter : public jx::SystemNotificationCenter {
public:
    CountingCenter() { setShared(this); }
    ~CountingCenter() override { setShared(nullptr); }
    bool post(const std::string&) override {
        ++posts;
        return true;
    }
    bool addObserver(void*, const std::string&, Callback, SuspensionBehavior, std::shared_ptr<jx::RunLoop>) override {
        return true;
    }
    void removeObserver(void*, const std::string&) override {}
    std::atomic<int> posts{0};
};

class RunThreadTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(root("/var/mobile/Library/Logs/Faultkeeper"));
        jx::NotificationCenter::defaultCenter().addObserver(this, JXSharedRunLoopStopped,
                                                            [this](const jx::Notification&) { ++stoppedPosts; });
    }
    void TearDown() override {
        jx::NotificationCenter::defaultCenter().removeObserver(this);
        JXUtilities::setProcessNameForTesting(std::nullopt);
        JoulixMain::stopSharedJoulixMain();
    }
    // Starts the singleton's run thread with the entry code's two flags; held loggers are registered first.
    std::shared_ptr<JoulixMain> start(bool logToFile, bool keepRunning, const std::vector<std::string>& held = {},
                                      bool exitAtOnce = false) {
        auto controller = JoulixMain::sharedJoulixMain();
        EXPECT_TRUE(controller);
        controller->setLogToFile(logToFile);
        controller->setShouldKeepRunning(keepRunning);
        for (const auto& name : held) {
            loggers.push_back(registerLogger(*controller, name));
            loggers.back()->hold();
        }
        if (exitAtOnce) controller->joulixExitRequested();
        controller->run();
        return controller;
    }
    std::size_t sleepsOf(std::uint64_t us) const {
        auto s = clock.sleepsMicroseconds();
        return static_cast<std::size_t>(std::count(s.begin(), s.end(), us));
    }

    jxtest::TestRoot root;
    jxtest::LogCapture log;
    HiddenBuiltinLoggers builtins;
    jxtest::FakeClock clock;
    CountingCenter systemCenter;
    std::atomic<int> stoppedPosts{0};
    std::vector<std::shared_ptr<CountingLogger>> loggers;
};

TEST_F(RunThreadTest, OneShotRunWaitsForEveryLoggerThenEnds) {
    auto controller = start(false, false, {"JXConfigLogger", "JXBatteryLogger"});
    ASSERT_TRUE(waitFor([&] { return controller->setupComplete(); }));
    // The new log asked each logger for its state; the run ends once both have given it.
    loggers[0]->release();
    ASSERT_TRUE(waitFor([&] { return loggers[0]->haveLogged(); }));
    std::size_t sleeps = sleepsOf(50000);
    ASSERT_TRUE(waitFor([&] { return sleepsOf(50000) >= sleeps + 3; }));
    EXPECT_TRUE(JoulixMain::haveSharedJoulixMain());
    EXPECT_EQ(stoppedPosts.load(), 0);
    loggers[1]->release();

    JoulixMain::waitForRunThreads();
    EXPECT_FALSE(JoulixMain::haveSharedJoulixMain());
    EXPECT_EQ(stoppedPosts.load(), 1);
    EXPECT_EQ(systemCenter.posts.load(), 1);  // the state change, seen on the bus with the real daemon
}

TEST_F(RunThreadTest, EarlyExitSkipsTheWaitAndWithNoLoggersItSleepsOnceAndThenIgnoresTheSignal) {
    auto controller = start(false, false, {"JXDisplayLogger"}, true);
    JoulixMain::waitForRunThreads();
    EXPECT_TRUE(controller->exitRequested());
    EXPECT_FALSE(loggers[0]->haveLogged());
    EXPECT_EQ(sleepsOf(50000), 0u);

    start(false, false);
    JoulixMain::waitForRunThreads();
    EXPECT_EQ(sleepsOf(50000), 1u);
    EXPECT_EQ(stoppedPosts.load(), 2);
    ASSERT_TRUE(waitFor([] {
        struct sigaction sa {};
        sigaction(SIGUSR1, nullptr, &sa);
        return sa.sa_handler == SIG_IGN;
    }));
    // A signal now neither crashes nor brings a controller back.
    raise(SIGUSR1);
    signalTrigger(SIGUSR1);
    EXPECT_FALSE(JoulixMain::haveSharedJoulixMain());
}

using TriggerTest = ControllerTest;

// The observers that call it, a status request and SIGUSR1, are run with the real daemon.
TEST_F(TriggerTest, FlushesTheRadiosThenAsksEveryLogger) {
    std::vector<std::string> radios;
    for (const char* name : {JXFlushRadiosNotification, JXCommitRadiosNotification})
        jx::NotificationCenter::defaultCenter().addObserver(
            &radios, name, [&](const jx::Notification& n) { radios.push_back(n.name); });
    auto a = registerLogger(*controller, "JXConfigLogger");
    controller->loggerList()->setObject(JXValue::valueWithObject(JXNull::null()), "JXNullLogger");
    controller->triggerAllLoggers("signal(10)");
    jx::NotificationCenter::defaultCenter().removeObserver(&radios);
    EXPECT_EQ(radios, (std::vector<std::string>{JXFlushRadiosNotification, JXCommitRadiosNotification}));
    a->loggerSerialQueue().sync([] {});
    EXPECT_EQ(a->samples(), 1);
}

// Only a sender the bus named as root, the daemon's user or the group may ask for the
// exit; one it could not name (gone before it was asked) may not.
TEST_F(TriggerTest, OnlyANamedTrustedSenderMayAskForTheExit) {
    auto from = [](std::optional<long long> uid) {
        return uid ? jx::Value(jx::Dictionary{{jx::kSenderUIDKey, jx::Value(*uid)}}) : jx::Value();
    };
    for (auto uid : {std::optional<long long>(), std::optional<long long>(65534)})
        JoulixExitRequested(nullptr, controller.get(), JXExitRequest, nullptr, from(uid));
    EXPECT_FALSE(controller->exitRequested());
    EXPECT_EQ(log.countContaining("refused " + std::string(JXExitRequest) + " from a sender the bus did not name"), 1u);
    JoulixExitRequested(nullptr, controller.get(), JXExitRequest, nullptr, from(0));
    EXPECT_TRUE(controller->exitRequested());
}

// Setting up the loggers: the core list, the static list and the plug-in
// directory, with the messages each choice leaves in the system log.

class RegistryTest : public ControllerTest {
protected:
    void SetUp() override {
        ControllerTest::SetUp();
        controller->setLogToFile(false);
        controller->setShouldKeepRunning(true);  // state entries are written only then
        fs::create_directories(root("/System/Library/JoulixPlugins"));
    }
    static void setEnabled(const std::string& logger, bool on) {
        JXDefaultsSetValueForKey(logger, jx::Value(jx::Dictionary{{"Enabled", jx::Value(on)}}));
    }
    std::vector<std::string> registered() const { return controller->loggerList()->keys(); }
    HiddenBuiltinLoggers builtins;
};

TEST_F(RegistryTest, StaticListSetsUpEnabledCoreLoggersOnceAndReportsDisabledOnesTwice) {
    ScopedLoggerClass config("JXConfigLogger"), battery("JXBatteryLogger");
    ScopedLoggerClass kpc("JXKPCLogger", [] { return std::shared_ptr<JXLogger>(); });
    setEnabled("JXBatteryLogger", false);
    JXDefaultsSetValueForKey(JXLoggingMode, jx::Value(1));
    WrittenLog written;  // it may take entries other tests left waiting for a file
    const std::size_t booting = written.count("[Log] state=booting;");
    controller->setupLoggers();
    EXPECT_EQ(registered(), std::vector<std::string>{"JXConfigLogger"});
    for (auto [message, times] :
         {std::pair{"setting up bundle logger JXConfigLogger", 0u},
          {"Skipping bundle logger JXBatteryLogger", 1u},
          {"ERROR: No plugin bundle found for JXKPCLogger", 2u},     // found, but no logger: as core and as bundle
          {"Skipping bundle logger JXPushNotificationLogger", 1u}})  // off unless switched on
        EXPECT_EQ(log.count(message), times) << message;
    // Each name is tried once per list: 18 core, then the 35 static names not yet registered.
    EXPECT_EQ(log.countContaining("core logger"), 18u);
    EXPECT_EQ(log.countContaining("bundle logger"), 35u);
    EXPECT_EQ(written.count("[Log] state=booting;"), booting + 1);
}

TEST_F(RegistryTest, DynamicDiscoveryLoadsBundlesSkipsDebugSymbolsAndRunsOnce) {
    JXDefaultsSetValueForKey(JXLoggerDiscovery, jx::Value("DYNAMIC"));
    jxtest::installBundle(root, "JXTestBundleLogger.bundle", "JXThermalLogger.bundle");
    fs::create_directories(root("/System/Library/JoulixPlugins/JXThermalLogger.bundle.dSYM"));
    controller->setupLoggers();
    EXPECT_EQ(registered(), std::vector<std::string>{"JXThermalLogger"});
    EXPECT_EQ(log.count("skipped JXThermalLogger.bundle.dSYM"), 1u);
    // The registry is filled once.
    auto before = log.messages().size();
    controller->setupLoggers();
    EXPECT_EQ(log.messages().size(), before);
    controller->addLoggerByName("JXThermalLogger");
    EXPECT_EQ(log.count("Logger JXThermalLogger already exists, skipping."), 1u);
}

}  // namespace
