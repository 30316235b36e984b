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

using jxtest::waitFor;

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

    // Starts the singleton's run thread with the entry code's two flags.
    std::shared_ptr<JoulixMain> start(bool logToFile, bool keepRunning,
                                      const std::function<void(JoulixMain&)>& prepare = {}) {
        auto controller = JoulixMain::sharedJoulixMain();
        EXPECT_TRUE(controller);
        controller->setLogToFile(logToFile);
        controller->setShouldKeepRunning(keepRunning);
        if (prepare) prepare(*controller);
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
    jxtest::RecordingSystemCenter systemCenter;
    std::atomic<int> stoppedPosts{0};
};

TEST_F(RunThreadTest, OneShotRunWaitsForEveryLoggerThenEnds) {
    std::shared_ptr<CountingLogger> a, b;
    auto controller = start(false, false, [&](JoulixMain& c) {
        a = registerLogger(c, "JXConfigLogger");
        b = registerLogger(c, "JXBatteryLogger");
        a->hold();
        b->hold();
    });
    ASSERT_TRUE(waitFor([&] { return controller->setupComplete(); }));
    EXPECT_EQ(systemCenter.posted(), std::vector<std::string>{JXStateChanged});

    // The run thread is still waiting: nobody has logged.
    ASSERT_TRUE(waitFor([&] { return sleepsOf(50000) >= 3; }));
    EXPECT_TRUE(JoulixMain::haveSharedJoulixMain());
    EXPECT_EQ(stoppedPosts.load(), 0);

    // The new log asked each logger for its state; the run ends once both have given it.
    a->release();
    ASSERT_TRUE(waitFor([&] { return a->haveLogged(); }));
    std::size_t sleeps = sleepsOf(50000);
    ASSERT_TRUE(waitFor([&] { return sleepsOf(50000) >= sleeps + 3; }));
    EXPECT_TRUE(JoulixMain::haveSharedJoulixMain());
    b->release();

    JoulixMain::waitForRunThreads();
    EXPECT_FALSE(JoulixMain::haveSharedJoulixMain());
    EXPECT_EQ(stoppedPosts.load(), 1);
    EXPECT_FALSE(controller->exitRequested());
    EXPECT_EQ(systemCenter.posted().size(), 1u);
}

TEST_F(RunThreadTest, OneShotRunWithNoLoggersSleepsOnce) {
    start(false, false);
    JoulixMain::waitForRunThreads();
    EXPECT_EQ(sleepsOf(50000), 1u);
    EXPECT_EQ(stoppedPosts.load(), 1);
}

TEST_F(RunThreadTest, EarlyExitRequestSkipsTheWaitForLoggers) {
    std::shared_ptr<CountingLogger> idle;
    auto controller = start(false, false, [&](JoulixMain& c) {
        idle = registerLogger(c, "JXDisplayLogger");
        idle->hold();
        c.joulixExitRequested();
    });
    JoulixMain::waitForRunThreads();
    EXPECT_TRUE(controller->exitRequested());
    EXPECT_FALSE(idle->haveLogged());
    EXPECT_EQ(sleepsOf(50000), 0u);
    EXPECT_EQ(stoppedPosts.load(), 1);
}

TEST_F(RunThreadTest, DaemonRunServesItsRunLoopUntilAnExitRequest) {
    std::shared_ptr<CountingLogger> idle;
    auto controller = start(true, true, [&](JoulixMain& c) {
        idle = registerLogger(c, "JXWiFiLogger");
        idle->hold();
    });
    ASSERT_TRUE(waitFor([&] { return controller->setupComplete(); }));
    EXPECT_EQ(systemCenter.posted(), std::vector<std::string>{JXStateChanged});

    // Work handed to the shared run loop runs on the run thread.
    std::atomic<bool> ranOnRunThread{false};
    JXUtilities::sharedJXRunLoop()->perform(
        [&] { ranOnRunThread = std::this_thread::get_id() == JXUtilities::sharedJXThread(); });
    ASSERT_TRUE(waitFor([&] { return ranOnRunThread.load(); }));
    EXPECT_TRUE(JoulixMain::haveSharedJoulixMain());

    controller->joulixExitRequested();
    JoulixMain::waitForRunThreads();
    EXPECT_FALSE(controller->shouldKeepRunning());
    // A daemon run never waits for its loggers.
    EXPECT_FALSE(idle->haveLogged());
    EXPECT_EQ(sleepsOf(50000), 0u);
    EXPECT_EQ(stoppedPosts.load(), 1);
}

TEST_F(RunThreadTest, StartDelayOnlyForProcessesNotNamedJoulix) {
    JXDefaultsSetValueForKey(JXStartDelay, jx::Value(true));
    struct {
        const char* process;
        bool delayed;
    } cases[] = {{"powertool", true}, {"JOULIX", false}, {"joulix", false}, {"joulixd", true}};
    for (auto& c : cases) {
        JXUtilities::setProcessNameForTesting(c.process);
        std::size_t before = sleepsOf(5000000);
        std::size_t messagesBefore = log.count("ready...");
        start(false, false);
        JoulixMain::waitForRunThreads();
        EXPECT_EQ(sleepsOf(5000000) - before, c.delayed ? 2u : 0u) << c.process;
        EXPECT_EQ(log.count("ready...") - messagesBefore, c.delayed ? 1u : 0u) << c.process;
    }
    auto messages = log.messages();
    auto ready = std::find(messages.begin(), messages.end(), "ready...");
    ASSERT_NE(ready, messages.end());
    ASSERT_LT(ready + 2, messages.end());
    EXPECT_EQ(*(ready + 1), "set...");
    EXPECT_EQ(*(ready + 2), "Go!");
}

TEST_F(RunThreadTest, SignalIsIgnoredOnceTheControllerIsGone) {
    start(false, false);
    JoulixMain::waitForRunThreads();
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

TEST(FatalError, LogsOneLineAndExitsWithStatusOne) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    jxtest::TestRoot root;
    auto controller = JoulixMain::create();
    ASSERT_TRUE(controller);
    EXPECT_EXIT(
        {
            jx::setLogToStderr(true);
            controller->fatalError("Linking log", std::string("File exists"));
        },
        ::testing::ExitedWithCode(1), "Linking log: File exists");
    EXPECT_EXIT(
        {
            jx::setLogToStderr(true);
            controller->fatalError("joulix.DeleteFile", std::nullopt);
        },
        ::testing::ExitedWithCode(1), "joulix.DeleteFile\n");
}

}  // namespace
