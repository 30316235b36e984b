// The running daemon steered from outside: system-wide notifications posted by
// joulixctl over a private bus, and signals. Who may steer it: root, its own user
// and the group joulix; another local user is kept out by the shipped bus policy
// and, should the bus let it through, by the daemon itself.
#include <chrono>

#include "platform/NotificationCenter.h"
#include "platform/NotificationNames.h"
#include "tests/integration/Process.h"

namespace {

using namespace jxtest;

class ControlTest : public BinariesTest {
protected:
    void SetUp() override {
        if (!useBus()) GTEST_SKIP() << "dbus-daemon is not installed";
        // A bundle logger under a name of the static list, so the daemon loads it.
        installBundle(root, "JXTestBundleLogger.bundle", "JXThermalLogger.bundle");
    }
};

TEST_F(ControlTest, StatusSignalsAndHangupsSteerTheLoggersAndExitComesAtOnce) {
    // The directory watch's events are logged: the daemon's own writing must wake none.
    write({{"JXRotateJoulixDebug", "-bool", "YES"}, {"JXLinkFaultkeeper", "-bool", "YES"}});
    auto daemon = startOnBus();
    ASSERT_TRUE(logShows("[TestBundle] sample=1;")) << logText();
    // The header, then the booting state ahead of everything else.
    ASSERT_GT(lines(logText()).size(), 1u);
    EXPECT_TRUE(has(lines(logText())[1], "[Log] state=booting;")) << logText();

    ASSERT_EQ(ctl({"trigger"}), 0);
    ASSERT_TRUE(logShows("[Log] state=statusRequested;"));
    ASSERT_TRUE(logShows("[TestBundle] sample=2;"));
    daemon->signal(SIGUSR1);
    ASSERT_TRUE(logShows("[Log] state=signal(10);"));
    ASSERT_TRUE(logShows("[TestBundle] sample=3;"));
    // The logger's queue is serial: a second sample for either trigger would be here by now.
    EXPECT_EQ(occurrences(logText(), "[TestBundle]"), 3u) << logText();
    EXPECT_HAS(daemon->err(), "Received signal(statusRequested), calling log on all loggers",
               "Received signal(signal(10)), calling log on all loggers");

    // SIGHUP reads the settings again: a logger switched off stops, one switched on
    // starts (the test bundle is installed under the thermal logger's name).
    write({{"JXThermalLogger", "-dict", "Enabled", "NO"}});
    daemon->signal(SIGHUP);
    ASSERT_TRUE(logShows("[Log] state=signal(1);")) << tail(daemon->err());
    EXPECT_HAS(daemon->err(), "loggers switched off: JXThermalLogger; switched on: none");
    EXPECT_EQ(occurrences(logText(), "[TestBundle]"), 3u);
    write({{"JXThermalLogger", "-dict", "Enabled", "YES"}});
    daemon->signal(SIGHUP);
    ASSERT_TRUE(logShows("[Log] state=signal(1);", 2));
    ASSERT_TRUE(logShows("[TestBundle]", 4)) << logText();
    EXPECT_HAS(daemon->err(), "switched off: none; switched on: JXThermalLogger");

    // Signals sent faster than they are taken fold into one (the kernel keeps one
    // pending): a hundred hangups, then a flood of ten thousand, end nothing.
    for (int i = 0; i < 100; ++i) daemon->signal(SIGHUP);
    ASSERT_TRUE(logShows("[Log] state=signal(1);", 3)) << tail(daemon->err());
    for (int i = 0; i < 10000; ++i) daemon->signal(SIGUSR1);
    ASSERT_TRUE(logShows("[Log] state=signal(10);", 2));
    ASSERT_EQ(ctl({"trigger"}), 0);
    ASSERT_TRUE(logShows("[Log] state=statusRequested;", 2)) << tail(daemon->err());

    EXPECT_EQ(occurrences(logText(), "[Log-LogDirectoryEvent]"), 0u) << "the daemon's own writing woke the watch";

    // Exit waits neither for a busy logger (from now on each sample takes a minute) nor
    // behind a flood of status requests, which is folded: one trigger a second at most.
    write({{"JXTestBundleLogger", "-dict", "SampleDelay", "60"}});
    ASSERT_EQ(ctl({"trigger"}), 0);
    ASSERT_TRUE(logShows("[Log] state=statusRequested;", 3));
    const std::string requested = "[Log] state=statusRequested;";
    const std::size_t before = logText().size(), asked = occurrences(logText(), requested);
    auto& center = jx::SystemNotificationCenter::shared();
    const auto began = std::chrono::steady_clock::now();
    for (int i = 0; i < 10000; ++i) ASSERT_TRUE(center.post(JXLogStateRequest));
    ASSERT_TRUE(center.post(JXExitRequest));
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    auto status = daemon->wait(1.0);
    ASSERT_TRUE(status) << "the exit request waited: " << tail(daemon->err());
    EXPECT_EQ(*status, 0);
    const std::size_t triggers = occurrences(logText(), requested) - asked;
    EXPECT_LE(triggers, static_cast<std::size_t>(seconds) + 2) << seconds << " s of posting";
    EXPECT_LT(logText().size() - before, (triggers + 1) * 64 * 1024) << "the log grew with the flood";
}

// Locked since boot, a log already there cannot be secured and is left alone until
// the first unlock; then logging goes on in it and says why. No logger is asked to
// log meanwhile: a one-shot run says so and ends rather than waiting for ever.
TEST_F(ControlTest, ALogLockedSinceBootWaitsForTheUnlock) {
    ASSERT_EQ(once(), 0);
    const std::string before = logText();
    ASSERT_TRUE(has(before, "[Joulix]"));
    root.writeFile("/run/joulix/lock-state", "1\n");
    std::string err;
    ASSERT_EQ(once(&err, 10), 0) << tail(err);
    EXPECT_TRUE(has(err, "the log is locked until the first unlock after boot: nothing was logged"));
    EXPECT_EQ(logText(), before);

    auto daemon = startOnBus();
    ASSERT_TRUE(waitFor([&] { return has(daemon->err(), "logFileCheck: failed to check logFile"); }))
        << tail(daemon->err());
    EXPECT_EQ(logText(), before);
    ASSERT_EQ(ctl({"unlock"}), 0);
    EXPECT_EQ(root.readFile("/run/joulix/lock-state"), "0\n");
    ASSERT_TRUE(logShows("[Log] state=File Unlocked;")) << logText();
    // Nothing was lost meanwhile: the first sample and the booting state come now.
    ASSERT_TRUE(logShows("[TestBundle] sample=1;")) << logText();
    EXPECT_EQ(logText().substr(0, before.size()), before);
    EXPECT_EQ(occurrences(logText().substr(before.size()), "[Log] state=booting;"), 1u);
    EXPECT_TRUE(waitFor([&] { return has(daemon->err(), "lockvault unlocked!"); }));
}

TEST_F(ControlTest, WaitAndPostBetweenTwoTools) {
    auto waiter = startCtl({"wait", "com.example.Ping"});
    ASSERT_TRUE(waitFor([&] { return has(waiter->out(), "waiting for com.example.Ping"); }));
    ASSERT_EQ(ctl({"post", "com.example.Ping"}), 0);
    EXPECT_EQ(waiter->wait(), 0);
    EXPECT_TRUE(has(waiter->out(), "received com.example.Ping"));
    EXPECT_EQ(ctl({"wait", "com.example.Never", "--timeout", "0.2"}), 1);
}

class TrustTest : public BinariesTest {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "posting as another user needs root";
        if (access("/usr/bin/setpriv", X_OK) != 0 || access("/usr/bin/dbus-send", X_OK) != 0)
            GTEST_SKIP() << "setpriv or dbus-send is not installed";
    }
    // Runs a command as the user nobody.
    int asNobody(std::vector<std::string> argv) {
        argv.insert(argv.begin(), {"/usr/bin/setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"});
        Process p(argv, out("nobody"), env);
        return p.wait().value_or(-1);
    }
};

TEST_F(TrustTest, OtherUsersCannotSteerTheDaemonThroughTheBusOrPastIt) {
    for (bool withPolicy : {true, false}) {
        SCOPED_TRACE(withPolicy ? "with the shipped policy" : "with a bus that lets every user post");
        if (!useBus(openBusConfiguration(withPolicy))) GTEST_SKIP() << "dbus-daemon did not start";
        auto daemon = startOnBus();
        ASSERT_FALSE(HasFailure());
        // The bus's own sender leaves at once; joulixctl stays until the daemon has named
        // it (user 65534), so that the daemon's own refusal is what is tried.
        for (const char* name : {JXLogStateRequest, JXFirstUnlockNotification, JXExitRequest})
            ASSERT_EQ(asNobody({"/usr/bin/dbus-send", "--bus=" + bus->address(), "--type=signal", "/com/brindle/Notify",
                                "com.brindle.Notify.Post", std::string("string:") + name}),
                      0);
        if (!withPolicy) {
            for (const char* command : {"trigger", "unlock", "exit"})
                EXPECT_EQ(asNobody({binary("joulixctl"), command}), 0) << command;
            ASSERT_TRUE(waitFor([&] { return has(daemon->err(), "refused com.brindle.joulix.LogStateRequest from "); }))
                << tail(daemon->err());
        }
        // Root still steers it; nothing of nobody's was acted on.
        ASSERT_EQ(ctl({"trigger"}), 0);
        ASSERT_TRUE(logShows("[Log] state=statusRequested;"));
        EXPECT_FALSE(daemon->wait(0.2)) << "nobody's exit request stopped the daemon";
        EXPECT_EQ(occurrences(logText(), "[Log] state=statusRequested;"), 1u);
        EXPECT_EQ(occurrences(logText(), "File Unlocked"), 0u);
        // Said at growing intervals, not once per post.
        EXPECT_LE(occurrences(daemon->err(), "refused "), withPolicy ? 0u : 2u) << tail(daemon->err());
        ASSERT_EQ(ctl({"exit"}), 0);
        EXPECT_EQ(daemon->wait(10), 0) << tail(daemon->err());
        fs::remove(root(kLog));
    }
}

}  // namespace
