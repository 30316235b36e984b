// The running daemon steered from outside: system-wide notifications posted by
// joulixctl over a private bus, and SIGUSR1.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/integration/Process.h"
#include "tests/support/TestSupport.h"

namespace {

using jxtest::Process;
using jxtest::binary;
using jxtest::occurrences;
using jxtest::tail;
using jxtest::waitFor;

const std::string kLog = "/var/mobile/Library/Logs/CurrentJoulix.joulix";

class ControlTest : public jxtest::BinariesTest {
protected:
    void SetUp() override {
        if (!bus.available()) GTEST_SKIP() << "dbus-daemon is not installed";
        env["DBUS_SYSTEM_BUS_ADDRESS"] = bus.address();
        // A bundle logger under a name of the static list, so the daemon loads it.
        jxtest::installBundle(root, "JXTestBundleLogger.bundle", "JXThermalLogger.bundle");
    }
    std::unique_ptr<Process> startCtl(std::vector<std::string> args) {
        args.insert(args.begin(), {binary("joulixctl"), "--root", root.path()});
        return std::make_unique<Process>(args, out("ctl"), env);
    }

    // Starts the daemon and returns once it has said, on the bus, that it is set up.
    std::unique_ptr<Process> startDaemon() {
        auto waiter = startCtl({"wait", "com.brindle.joulix.StateChanged", "--timeout", "30"});
        EXPECT_TRUE(waitFor([&] { return waiter->out().find("waiting for") != std::string::npos; })) << waiter->err();
        auto daemon = joulix();
        EXPECT_EQ(waiter->wait(), 0) << waiter->err() << daemon->err();
        return daemon;
    }
    std::string logText() { return root.readFile(kLog); }
    bool logShows(const std::string& what, std::size_t times = 1) {
        return waitFor([&] { return occurrences(logText(), what) >= times; });
    }

    jxtest::PrivateBus bus;
};

TEST_F(ControlTest, StatusAndSignalEachMakeEveryLoggerLogOnceMore) {
    auto daemon = startDaemon();
    ASSERT_TRUE(logShows("[TestBundle] sample=1;")) << logText();
    std::string text = logText();
    // The header, then the booting state ahead of everything else.
    auto second = text.substr(text.find('\n') + 1);
    EXPECT_NE(second.substr(0, second.find('\n')).find("[Log] state=booting;"), std::string::npos) << text;

    ASSERT_EQ(ctl({"trigger"}), 0);
    ASSERT_TRUE(logShows("[Log] state=statusRequested;"));
    ASSERT_TRUE(logShows("[TestBundle] sample=2;"));
    daemon->signal(SIGUSR1);
    ASSERT_TRUE(logShows("[Log] state=signal(10);"));
    ASSERT_TRUE(logShows("[TestBundle] sample=3;"));
    // The logger's queue is serial: a second sample for either trigger would be here by now.
    EXPECT_EQ(occurrences(logText(), "[TestBundle]"), 3u) << logText();
    EXPECT_NE(daemon->err().find("Received signal(statusRequested), calling log on all loggers"), std::string::npos);
    EXPECT_NE(daemon->err().find("Received signal(signal(10)), calling log on all loggers"), std::string::npos);

    ASSERT_EQ(ctl({"exit"}), 0);
    EXPECT_EQ(daemon->wait(), 0) << daemon->err();
}

TEST_F(ControlTest, ExitStopsTheDaemonWithoutWaitingForABusyLogger) {
    auto daemon = startDaemon();
    ASSERT_TRUE(logShows("[TestBundle] sample=1;"));
    // From now on each sample of the test logger takes a minute.
    ASSERT_EQ(ctl({"defaults", "write", "JXTestBundleLogger", "-dict", "SampleDelay", "60"}), 0);
    ASSERT_EQ(ctl({"trigger"}), 0);
    ASSERT_TRUE(logShows("[Log] state=statusRequested;"));
    ASSERT_EQ(ctl({"exit"}), 0);
    EXPECT_EQ(daemon->wait(10), 0) << daemon->err();
}

// Locked since boot, a log already there cannot be secured and is left alone until
// the first unlock; then logging goes on in it and says why.
TEST_F(ControlTest, ALogLockedSinceBootWaitsForTheUnlock) {
    ASSERT_EQ(joulix({"--once"})->wait(), 0);
    const std::string before = logText();
    ASSERT_NE(before.find("[Joulix]"), std::string::npos);
    root.writeFile("/run/joulix/lock-state", "1\n");

    auto daemon = startDaemon();
    ASSERT_TRUE(waitFor([&] { return daemon->err().find("logFileCheck: failed to check logFile") != std::string::npos; }))
        << tail(daemon->err());
    EXPECT_EQ(logText(), before);

    ASSERT_EQ(ctl({"unlock"}), 0);
    EXPECT_EQ(root.readFile("/run/joulix/lock-state"), "0\n");
    ASSERT_TRUE(logShows("[Log] state=File Unlocked;")) << logText();
    // Nothing was lost meanwhile: the first sample and the booting state come now.
    ASSERT_TRUE(logShows("[TestBundle] sample=1;")) << logText();
    EXPECT_EQ(logText().substr(0, before.size()), before);
    EXPECT_EQ(occurrences(logText().substr(before.size()), "[Log] state=booting;"), 1u);
    EXPECT_TRUE(waitFor([&] { return daemon->err().find("lockvault unlocked!") != std::string::npos; }));
    ASSERT_EQ(ctl({"exit"}), 0);
    EXPECT_EQ(daemon->wait(), 0);
}

// SIGHUP reads the settings again: a logger switched off stops, one switched on
// starts, and a hundred of them in a row end nothing.
TEST_F(ControlTest, HangupReadsTheSettingsAgain) {
    auto daemon = startDaemon();
    ASSERT_TRUE(logShows("[TestBundle] sample=1;"));
    // The test bundle is installed under the thermal logger's name.
    ASSERT_EQ(ctl({"defaults", "write", "JXThermalLogger", "-dict", "Enabled", "NO"}), 0);
    daemon->signal(SIGHUP);
    ASSERT_TRUE(logShows("[Log] state=signal(1);")) << tail(daemon->err());
    EXPECT_NE(daemon->err().find("loggers switched off: JXThermalLogger; switched on: none"), std::string::npos)
        << tail(daemon->err());
    EXPECT_EQ(occurrences(logText(), "[TestBundle]"), 1u);

    ASSERT_EQ(ctl({"defaults", "write", "JXThermalLogger", "-dict", "Enabled", "YES"}), 0);
    daemon->signal(SIGHUP);
    ASSERT_TRUE(logShows("[Log] state=signal(1);", 2));
    ASSERT_TRUE(logShows("[TestBundle]", 2)) << logText();
    EXPECT_NE(daemon->err().find("switched off: none; switched on: JXThermalLogger"), std::string::npos);

    // Signals sent faster than they are taken fold into one (the kernel keeps one pending).
    for (int i = 0; i < 100; ++i) daemon->signal(SIGHUP);
    ASSERT_TRUE(logShows("[Log] state=signal(1);", 3)) << tail(daemon->err());
    ASSERT_EQ(ctl({"exit"}), 0);
    EXPECT_EQ(daemon->wait(), 0) << tail(daemon->err());
}

TEST_F(ControlTest, AFloodOfSignalsLeavesTheDaemonAnswering) {
    auto daemon = startDaemon();
    for (int i = 0; i < 10000; ++i) daemon->signal(SIGUSR1);
    ASSERT_TRUE(logShows("[Log] state=signal(10);"));
    ASSERT_EQ(ctl({"trigger"}), 0);
    ASSERT_TRUE(logShows("[Log] state=statusRequested;", 1)) << tail(daemon->err());
    ASSERT_EQ(ctl({"exit"}), 0);
    EXPECT_EQ(daemon->wait(60), 0) << tail(daemon->err());
}

TEST_F(ControlTest, WaitAndPostBetweenTwoTools) {
    auto waiter = startCtl({"wait", "com.example.Ping"});
    ASSERT_TRUE(waitFor([&] { return waiter->out().find("waiting for com.example.Ping") != std::string::npos; }));
    ASSERT_EQ(ctl({"post", "com.example.Ping"}), 0);
    EXPECT_EQ(waiter->wait(), 0);
    EXPECT_NE(waiter->out().find("received com.example.Ping"), std::string::npos);

    EXPECT_EQ(ctl({"wait", "com.example.Never", "--timeout", "0.2"}), 1);
    for (std::vector<std::string> bad : {std::vector<std::string>{"wait"}, {"wait", "a", "b"}, {"wait", "a", "--timeout", "x"},
                                         {"post"}, {"exit", "now"}})
        EXPECT_EQ(ctl(bad), 2) << bad[0];

    env["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=/nonexistent/joulix-bus";
    EXPECT_EQ(ctl({"post", "com.example.Ping"}), 1);
    EXPECT_EQ(ctl({"wait", "com.example.Ping", "--timeout", "1"}), 1);
}

}  // namespace
