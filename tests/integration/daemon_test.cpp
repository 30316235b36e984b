// The real joulix and joulixctl under a private root.
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/PropertyList.h"
#include "tests/integration/Process.h"
#include "tests/support/TestSupport.h"

namespace {

using jxtest::Process;
using jxtest::binary;
using jxtest::waitFor;

const std::string kPrefs = "/var/mobile/Library/Preferences/com.brindle.joulix.plist";

using DaemonTest = jxtest::BinariesTest;

TEST_F(DaemonTest, OnceMakesTheLayoutAndEnds) {
    auto p = joulix({"--once"});
    ASSERT_EQ(p->wait(), 0) << p->err();
    for (const char* dir : {"/var/mobile/Library/Logs/Faultkeeper", "/var/mobile/Library/Logs/JXArchive",
                            "/var/mobile/Library/Preferences", "/System/Library/JoulixPlugins",
                            "/Library/Managed Preferences/mobile", "/var/tmp"})
        EXPECT_TRUE(std::filesystem::is_directory(root(dir))) << dir;
    // Without a bus the daemon says so once and runs on.
    EXPECT_NE(p->err().find("no system bus"), std::string::npos);
    EXPECT_EQ(p->err().find("no system bus"), p->err().rfind("no system bus"));
}

TEST_F(DaemonTest, DynamicDiscoveryLoadsTheExamplePlugIn) {
    jxtest::installBundle(root, "JXLoadAverageLogger.bundle", "JXLoadAverageLogger.bundle");
    ASSERT_EQ(ctl({"defaults", "write", "JXLoggerDiscovery", "dynamic"}), 0);
    auto p = joulix({"--once"});
    ASSERT_EQ(p->wait(), 0) << p->err();
    EXPECT_NE(p->err().find("setting up bundle logger JXLoadAverageLogger"), std::string::npos) << p->err();
    // One-shot: every logger has logged once before the run ends.
    std::string log = root.readFile("/var/mobile/Library/Logs/CurrentJoulix.joulix");
    EXPECT_NE(log.find("[LoadAverage] load1="), std::string::npos) << log;
}

TEST_F(DaemonTest, TerminationSignalsAreExitRequests) {
    ASSERT_EQ(ctl({"defaults", "write", "JXRotateJoulixDebug", "-bool", "YES"}), 0);
    for (int signo : {SIGTERM, SIGINT}) {
        auto p = joulix({});
        ASSERT_TRUE(waitFor([&] { return p->err().find("unblocking after initial startLoggingToFile") != std::string::npos; }))
            << p->err();
        // Set up, and staying: it serves its run loop until asked to go.
        EXPECT_FALSE(p->wait(0.2));
        p->signal(signo);
        EXPECT_EQ(p->wait(), 0) << strsignal(signo);
    }
}

TEST_F(DaemonTest, SettingsWrittenByTheToolSteerTheDaemon) {
    ASSERT_EQ(ctl({"defaults", "write", "JXRunLoopDebug", "-bool", "true"}), 0);
    ASSERT_EQ(ctl({"defaults", "write", "JXStartDelay", "-bool", "YES"}), 0);
    auto p = joulix({"--once"});
    ASSERT_EQ(p->wait(), 0);
    EXPECT_NE(p->err().find("***  Joulix runloop stopped!!!  ***"), std::string::npos) << p->err();
    // The daemon is named joulix: no start delay, whatever the setting says.
    EXPECT_EQ(p->err().find("ready..."), std::string::npos);
}

TEST_F(DaemonTest, StateChangedIsPostedOnTheSystemBus) {
    if (access("/usr/bin/dbus-daemon", X_OK) != 0 || access("/usr/bin/dbus-monitor", X_OK) != 0)
        GTEST_SKIP() << "dbus-daemon or dbus-monitor missing";
    std::string address = "unix:path=" + root.path() + "/bus";
    Process bus({"/usr/bin/dbus-daemon", "--session", "--nofork", "--nopidfile", "--address=" + address},
                out("bus"));
    ASSERT_TRUE(waitFor([&] { return std::filesystem::exists(root.path() + "/bus"); }));
    Process monitor({"/usr/bin/dbus-monitor", "--address", address, "type='signal',interface='com.brindle.Notify'"},
                    out("monitor"));
    ASSERT_TRUE(waitFor([&] { return monitor.out().find("NameAcquired") != std::string::npos; }));

    env["DBUS_SYSTEM_BUS_ADDRESS"] = address;
    auto p = joulix({"--once"});
    ASSERT_EQ(p->wait(), 0) << p->err();
    EXPECT_TRUE(waitFor([&] { return monitor.out().find("com.brindle.joulix.StateChanged") != std::string::npos; }))
        << monitor.out();
    EXPECT_NE(monitor.out().find("member=Post"), std::string::npos);
    EXPECT_EQ(p->err().find("no system bus"), std::string::npos);
}

TEST_F(DaemonTest, ToolWritesReadsAndDeletesTypedSettings) {
    struct {
        std::vector<std::string> write;
        jx::Value stored;
        const char* printed;
    } cases[] = {
        {{"JXRotateJoulix", "1 minute"}, jx::Value("1 minute"), "1 minute"},
        {{"JXRotateJoulix", "-string", "-3 hour"}, jx::Value("-3 hour"), "-3 hour"},
        {{"JXLoggingMode", "-int", "65543"}, jx::Value(65543), "65543"},
        {{"JXLoggingMode", "-int", "-1"}, jx::Value(-1), "-1"},
        {{"JXJoulixArchiveDays", "-float", "2.5"}, jx::Value(2.5), "2.5"},
        {{"JXLinkFaultkeeper", "-bool", "NO"}, jx::Value(false), "0"},
        {{"JXFullModeBlackList", "-array", "2026-11-20", "2026-11-21"},
         jx::Value(jx::Array{jx::Value("2026-11-20"), jx::Value("2026-11-21")}), "(\n    \"2026-11-20\",\n    \"2026-11-21\"\n)"},
    };
    for (auto& c : cases) {
        std::vector<std::string> args{"defaults", "write"};
        args.insert(args.end(), c.write.begin(), c.write.end());
        ASSERT_EQ(ctl(args), 0) << c.write[0];
        std::string printed;
        ASSERT_EQ(ctl({"defaults", "read", c.write[0]}, &printed), 0);
        EXPECT_EQ(printed, std::string(c.printed) + "\n");
        auto file = jx::readPropertyListFile(root(kPrefs));
        ASSERT_TRUE(file);
        EXPECT_EQ(file->objectForKey(c.write[0]), c.stored) << c.write[0];
    }
    ASSERT_EQ(ctl({"defaults", "delete", "JXLoggingMode"}), 0);
    std::string err;
    EXPECT_EQ(ctl({"defaults", "read", "JXLoggingMode"}, nullptr, &err), 1);
    EXPECT_NE(err.find("does not exist"), std::string::npos);
    EXPECT_EQ(ctl({"defaults", "delete", "JXLoggingMode"}), 1);

    // Written, but warned of: an archive age that reads as no time deletes every archive at the next roll.
    std::string warned, quiet;
    EXPECT_EQ(ctl({"defaults", "write", "JXJoulixArchiveDays", "two weeks"}, nullptr, &warned), 0);
    EXPECT_NE(warned.find("every archive will be deleted"), std::string::npos) << warned;
    EXPECT_EQ(ctl({"defaults", "write", "JXJoulixArchiveDays", "3 hour"}, nullptr, &quiet), 0);
    EXPECT_EQ(quiet, "");
}

TEST_F(DaemonTest, ToolRefusesMalformedValuesAndWritesNothing) {
    ASSERT_EQ(ctl({"defaults", "write", "JXLoggingMode", "-int", "3"}), 0);
    std::string before = root.readFile(kPrefs);
    struct {
        std::vector<std::string> args;
        int status;
    } cases[] = {
        {{"defaults", "write", "JXLoggingMode", "-int", "12abc"}, 1},
        {{"defaults", "write", "JXLoggingMode", "-int", "99999999999999999999"}, 1},
        {{"defaults", "write", "JXJoulixArchiveDays", "-float", "nan"}, 1},
        {{"defaults", "write", "JXLinkFaultkeeper", "-bool", "maybe"}, 1},
        {{"defaults", "write", "JXLinkFaultkeeper", "-date", "x"}, 2},
        {{"defaults", "write", "JXLinkFaultkeeper"}, 2},
        {{"defaults", "write", "JXRotateJoulix", "1", "minute"}, 2},
        {{"defaults", "frobnicate"}, 2},
        {{"launch"}, 2},
    };
    for (auto& c : cases) {
        std::string err;
        EXPECT_EQ(ctl(c.args, nullptr, &err), c.status) << c.args.back();
        EXPECT_FALSE(err.empty());
    }
    EXPECT_EQ(root.readFile(kPrefs), before);
}

TEST_F(DaemonTest, ToolReachesOtherDomainsAndTheManagedFallBack) {
    ASSERT_EQ(ctl({"--domain", "com.brindle.launchdeck", "defaults", "write", "SBAutoLockTime", "-int", "60"}), 0);
    EXPECT_TRUE(std::filesystem::exists(root("/var/mobile/Library/Preferences/com.brindle.launchdeck.plist")));
    std::string printed;
    EXPECT_EQ(ctl({"defaults", "read", "SBAutoLockTime"}, &printed), 1);

    std::filesystem::create_directories(root("/Library/Managed Preferences/mobile"));
    ASSERT_TRUE(jx::writePropertyListFileAtomically(root("/Library/Managed Preferences/mobile/com.brindle.joulix.plist"),
                                                    jx::Value(jx::Dictionary{{"JXLinkFaultkeeper", jx::Value(true)}})));
    ASSERT_EQ(ctl({"defaults", "read", "JXLinkFaultkeeper"}, &printed), 0);
    EXPECT_EQ(printed, "1\n");
    ASSERT_EQ(ctl({"defaults", "read"}, &printed), 0);
    EXPECT_NE(printed.find("JXLinkFaultkeeper = 1;"), std::string::npos) << printed;
}

}  // namespace
