// The controller's observers and its trigger, with the system-wide centre's test
// double delivering on this thread's run loop.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "JoulixMain/JoulixMain.h"
#include "platform/JXUtilities.h"
#include "defaults/JXDefaults.h"
#include "platform/NotificationNames.h"
#include "tests/JoulixMain/TestLogger.h"
#include "tests/support/TestSupport.h"

namespace {

class NotificationsTest : public ::testing::Test {
protected:
    void SetUp() override {
        controller = JoulixMain::create();
        controller->setShouldKeepRunning(true);
        loop = jx::RunLoop::current();
        JXUtilities::setSharedJXRunLoop(loop);
        for (const char* name : {JXFlushRadiosNotification, JXCommitRadiosNotification})
            jx::NotificationCenter::defaultCenter().addObserver(this, name, [this](const jx::Notification& n) {
                radios.push_back(n.name);
                EXPECT_EQ(n.object, controller.get());
            });
    }
    void TearDown() override {
        // A log-file check may still hold the controller: let it end before the test does.
        JXUtilities::sharedDispatchQueue().sync([] {});
        jx::NotificationCenter::defaultCenter().removeObserver(this);
        JXUtilities::setSharedJXRunLoop(nullptr);
    }
    // Serves this thread's run loop until nothing is left to do now.
    void drain() {
        while (loop->runUntilSourceHandled(0) == jx::RunLoop::Result::HandledSource) {
        }
    }

    jxtest::TestRoot root;
    jxtest::LogCapture log;
    jxtest::RecordingSystemCenter center;
    std::shared_ptr<JoulixMain> controller;
    std::shared_ptr<jx::RunLoop> loop;
    std::vector<std::string> radios;
};

TEST_F(NotificationsTest, StatusRequestLogsTheStateAndEveryLoggerOnce) {
    WrittenLog written;
    auto a = registerLogger(*controller, "JXConfigLogger");
    auto b = registerLogger(*controller, "JXBatteryLogger");
    controller->loggerList()->setObject(JXValue::valueWithObject(JXNull::null()), "JXNullLogger");
    controller->setupNotifications();
    EXPECT_EQ(center.observed(), (std::vector<std::string>{JXExitRequest, JXLogStateRequest, JXFirstUnlockNotification}));

    center.post(JXLogStateRequest);
    drain();
    ASSERT_TRUE(jxtest::waitFor([&] { return a->samples() == 1 && b->samples() == 1; }));
    EXPECT_EQ(log.count("Received signal(statusRequested), calling log on all loggers"), 1u);
    EXPECT_EQ(radios, (std::vector<std::string>{JXFlushRadiosNotification, JXCommitRadiosNotification}));
    EXPECT_EQ(written.count("[Log] state=statusRequested;"), 1u);
    // Queued once each, not more.
    a->loggerSerialQueue().sync([] {});
    b->loggerSerialQueue().sync([] {});
    EXPECT_EQ(a->samples() + b->samples(), 2);
    controller->stopNotifications();
}

TEST_F(NotificationsTest, SignalTriggerNamesTheSignalAndAnEmptyRegistryStillPostsAndRecords) {
    WrittenLog written;
    signalTrigger(SIGUSR2);  // any other signal does nothing
    EXPECT_TRUE(log.messages().empty());
    controller->triggerAllLoggers("signal(10)");
    EXPECT_EQ(log.count("Received signal(signal(10)), calling log on all loggers"), 1u);
    EXPECT_EQ(radios.size(), 2u);
    EXPECT_EQ(written.count("[Log] state=signal(10);"), 1u);
}

TEST_F(NotificationsTest, ExitRequestStopsTheLoopAndFirstUnlockRecordsTheState) {
    WrittenLog written;
    std::filesystem::create_directories(root("/var/mobile/Library/Logs/Faultkeeper"));
    controller->setLogToFile(true);  // the unlock opens the log file
    controller->setupNotifications();
    center.post(JXFirstUnlockNotification);
    drain();
    EXPECT_EQ(log.count("lockvault unlocked!"), 1u);
    JXUtilities::sharedDispatchQueue().sync([] {});  // the start of logging it queued
    // The entry lands in the log opened by that start, or in the one before it:
    // the writer drains to its old file before it takes the new one.
    const std::string opened = root.readFile("/var/mobile/Library/Logs/CurrentJoulix.joulix");
    EXPECT_EQ(written.count("[Log] state=File Unlocked;") + (opened.find("[Log] state=File Unlocked;") != std::string::npos), 1u)
        << opened;
    JXUtilities::sharedDispatchQueue().sync([this] { controller->stopLoggingAndCloseFile(); });

    center.post(JXExitRequest);
    EXPECT_EQ(loop->runUntilSourceHandled(0), jx::RunLoop::Result::HandledSource);  // the callback
    EXPECT_TRUE(controller->exitRequested());
    EXPECT_FALSE(controller->shouldKeepRunning());
    EXPECT_EQ(loop->runUntilSourceHandled(0), jx::RunLoop::Result::Stopped);
    controller->stopNotifications();
}

TEST_F(NotificationsTest, AfterStopNothingReacts) {
    WrittenLog written;
    JXDefaultsSetValueForKey(JXRotateJoulixDebug, jx::Value(true));
    controller = nullptr;  // the debug flag is read at init
    controller = JoulixMain::create();
    controller->setShouldKeepRunning(true);
    auto a = registerLogger(*controller, "JXConfigLogger");
    int sender = 0;

    controller->setupNotifications();
    EXPECT_EQ(written.count("[Log-SetupNotifications] SetupNotifications=fired;"), 1u);
    JXUtilities::postNotificationName(JXConnectedStateNo, &sender);  // any sender
    EXPECT_EQ(written.count("[Log-logFileCheckFired] logFileCheckFired=fired;"), 1u);

    controller->stopNotifications();
    EXPECT_TRUE(center.observed().empty());
    for (const char* name : {JXExitRequest, JXLogStateRequest, JXFirstUnlockNotification}) center.post(name);
    JXUtilities::postNotificationName(JXConnectedStateNo, nullptr);
    drain();
    EXPECT_FALSE(controller->exitRequested());
    EXPECT_TRUE(controller->shouldKeepRunning());
    EXPECT_EQ(log.count("lockvault unlocked!"), 0u);
    EXPECT_EQ(a->samples(), 0);
    EXPECT_EQ(written.count("logFileCheckFired=fired;"), 1u);
}

}  // namespace
