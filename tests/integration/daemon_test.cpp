// The real daemon under a private root: the layout and log it leaves, its loggers,
// how it starts, goes on, rolls and archives, and the directory watch.
#include <ctime>
#include <regex>
#include <set>

#include "platform/PropertyList.h"
#include "tests/integration/Process.h"

namespace {

using namespace jxtest;

struct Header {
    std::string build, timestamp, guid;
};

std::optional<Header> parseHeader(const std::string& text) {
    static const std::regex re(
        R"(^\d\d/\d\d/\d{4} \d\d:\d\d:\d\d\.\d{3} \[Joulix\] Version=6\.01; Build=([^;]*); Timestamp=(\d{4}-\d\d-\d\d-\d{6}); )"
        R"(File_GUID=([0-9A-F-]{36}); rotateJoulixKey=[^;]*; loggingMode=(Lite|Full); binary=joulix; pid=\d+;$)");
    std::smatch m;
    const std::string first = text.substr(0, text.find('\n'));
    if (!std::regex_match(first, m, re)) return std::nullopt;
    return Header{m[1], m[2], m[3]};
}

class DaemonTest : public BinariesTest {
protected:
    void SetUp() override {
        setOSVersion("12");
        env["TZ"] = "UTC";
    }
    void setOSVersion(const std::string& v) {
        root.writeFile("/etc/os-release", "NAME=\"Test OS\"\nVERSION_ID=\"" + v + "\"\n");
    }
};

TEST_F(DaemonTest, OnceMakesTheLayoutAndALogOfEveryBuiltInLoggerAndTheThermalBundle) {
    installBundle(root, "JXThermalLogger.bundle", "JXThermalLogger.bundle");
    write({{"JXRunLoopDebug", "-bool", "true"}, {"JXStartDelay", "-bool", "YES"}});
    std::string err;
    ASSERT_EQ(once(&err), 0) << err;
    // Settings written by the tool steer the daemon; but it is named joulix: no start
    // delay, whatever the setting says.
    EXPECT_TRUE(has(err, "***  Joulix runloop stopped!!!  ***")) << err;
    EXPECT_FALSE(has(err, "ready..."));
    for (const char* dir : {"/var/mobile/Library/Logs/Faultkeeper", "/var/mobile/Library/Logs/JXArchive",
                            "/var/mobile/Library/Preferences", "/System/Library/JoulixPlugins",
                            "/Library/Managed Preferences/mobile", "/var/tmp"})
        EXPECT_TRUE(fs::is_directory(root(dir))) << dir;
    // Without a bus the daemon says so once and runs on.
    EXPECT_EQ(occurrences(err, "no system bus"), 1u);
    const std::string log = logText();
    ASSERT_TRUE(parseHeader(log)) << log.substr(0, log.find('\n'));
    EXPECT_HAS(log, "[Config] ",
               "[Locale] locale=", "[Settings] loggingMode=", "[Process] pid=", "[Network] interface=lo;");
    // Every built-in logger set up; a device this machine lacks gives at most one line of the system log.
    for (const char* logger : {"JXConfigLogger", "JXLocaleLogger", "JXSettingsLogger", "JXProcessMonitorLogger",
                               "JXNetworkLogger", "JXBatteryLogger", "JXDisplayLogger", "JXWiFiLogger",
                               "JXSleepWakeLogger", "JXTelephonyLogger", "JXBasebandLogger"}) {
        EXPECT_TRUE(has(err, std::string("setting up core logger ") + logger)) << logger;
        EXPECT_FALSE(has(err, std::string("Could not find ") + logger)) << logger;
        EXPECT_LE(occurrences(err, std::string(logger) + ": "), 1u) << logger;
    }
    // The shipped thermal bundle, by its name on the static list: entries where the
    // machine has thermal zones, else one line.
    EXPECT_HAS(err, "setting up bundle logger JXThermalLogger");
    EXPECT_FALSE(has(err, "Could not find JXThermalLogger")) << err;
    std::error_code ec;
    if (fs::is_empty("/sys/class/thermal", ec) || ec) {
        EXPECT_FALSE(has(log, "[Thermal]"));
        EXPECT_HAS(err, "JXThermalLogger: no thermal zone");
    }
    // joulixctl reads the daemon's log whole: nothing skipped, a [Clock] entry found.
    ASSERT_EQ(ctl({"log"}, nullptr, &err), 0);
    EXPECT_EQ(err, "");

    // --stdout writes the log to standard output only.
    fs::remove(root(kLog));
    Process p({binary("joulix"), "--root", root.path(), "--stdout"}, out("stdout"), env);
    ASSERT_EQ(p.wait(), 0);
    EXPECT_FALSE(fs::exists(root(kLog)));
}

TEST_F(DaemonTest, OnceCreatesContinuesAndRollsAfterASystemUpdateOrAHeaderOutOfReach) {
    write({{"JXLinkFaultkeeper", "-bool", "YES"}, {"JXRotateJoulixDebug", "-bool", "YES"}});
    ASSERT_EQ(once(), 0) << lastErr;
    const std::string firstText = logText();
    auto first = parseHeader(firstText);
    ASSERT_TRUE(first) << firstText;
    EXPECT_EQ(first->build.substr(0, 4), "12 (");
    // Linked under its rolled name from the start.
    const std::string rolledName = "JX_" + first->timestamp + "_" + first->guid + ".joulix";
    EXPECT_EQ(names(kFaultkeeper), std::vector<std::string>{rolledName});

    // Same period, same build: the same file goes on, and says so, after ending the half
    // line a killed daemon left, so that its first entry is not glued onto it. A daemon,
    // this time: set up, and staying until SIGINT, which is an exit request as SIGTERM is.
    std::ofstream(root(kLog), std::ios::app) << "11/23/2026 10:00:00.000 [Network] inte";
    auto d = joulix();
    ASSERT_TRUE(waitFor([&] { return has(d->err(), "unblocking after initial startLoggingToFile"); })) << d->err();
    EXPECT_FALSE(d->wait(0.2));
    d->signal(SIGINT);
    EXPECT_EQ(d->wait(), 0);
    const std::string secondText = logText();
    EXPECT_TRUE(has(secondText.substr(firstText.size()), "[Log] state=continue; existingLogdate=")) << secondText;
    EXPECT_EQ(secondText.substr(0, firstText.size()), firstText);
    EXPECT_EQ(secondText.substr(firstText.size(), 39), "11/23/2026 10:00:00.000 [Network] inte\n");
    EXPECT_TRUE(has(d->err(), "ended in an unfinished line"));
    EXPECT_EQ(names(kFaultkeeper), std::vector<std::string>{rolledName});

    // A system update: the next start rolls the log under its own name and begins a new one.
    setOSVersion("13");
    ASSERT_EQ(once(), 0) << lastErr;
    auto fresh = parseHeader(logText());
    ASSERT_TRUE(fresh);
    EXPECT_NE(fresh->guid, first->guid);
    EXPECT_EQ(fresh->build.substr(0, 4), "13 (");
    EXPECT_EQ(root.readFile(kFaultkeeper + "/" + rolledName).substr(0, secondText.size()), secondText);
    EXPECT_EQ(names(kFaultkeeper).size(), 2u);

    // A header pushed past the first 512 bytes counts as missing.
    setOSVersion(std::string(600, '9'));
    ASSERT_EQ(once(), 0) << lastErr;
    const std::string before = logText();
    ASSERT_GT(before.find("File_GUID="), 512u);
    ASSERT_LT(before.find("File_GUID="), before.find('\n'));
    ASSERT_EQ(once(), 0) << lastErr;
    // Not continued: a new log replaced it, with a GUID of its own.
    EXPECT_NE(logText().substr(0, before.find('\n')), before.substr(0, before.find('\n')));
}

TEST_F(DaemonTest, DaemonRollsAtEachMinuteByItselfAndArchivesAndAnalysesEachClosedLog) {
    if (!haveFakeTime() || access("/bin/gzip", X_OK) != 0) GTEST_SKIP() << "libfaketime or gzip missing";
    write({{"JXRotateJoulix", "1 minute"},
           {"JXLinkFaultkeeper", "-bool", "YES"},
           {"JXBasebandPostProcessing", "-bool", "YES"},
           {"JXBasebandPostProcessingNotify", "-bool", "YES"},
           {"JXLoggingMode", "-int", "1"}});
    // A logger that writes the modem's statistics with every sample; pairs only on the
    // command line, so the lines go in through the preferences file.
    installBundle(root, "JXTestBundleLogger.bundle", "JXThermalLogger.bundle");
    ASSERT_EQ(ctl({"defaults", "write", "JXTestBundleLogger", "-dict"}), 2);
    jx::Array lines{
        jx::Value("[BB HW Log] LogCode=0x1; Duration=300;"),
        jx::Value("[BB HW RPM] XO_Shutdown=[0%,1200]; VDD_Min=[0%,0];"),
        jx::Value("[BB HW APPS] Sleep=4; CXO_Shutdown=[90%,55];"),
        jx::Value("[BB HW Peripherals] USB=[1,2,10%]; SPI=[3,1%]; UART=[3,0%]; GPS=[0,0%]; GPS_DPO=[0,0%];")};
    jx::Dictionary prefs = *jx::readPropertyListFile(root(kPrefs))->asDictionary();
    prefs["JXTestBundleLogger"] = jx::Value(jx::Dictionary{{"Lines", jx::Value(lines)}});
    ASSERT_TRUE(jx::writePropertyListFileAtomically(root(kPrefs), jx::Value(prefs)));
    installComposer();

    // The daemon's clock starts just before midnight and runs ten times as fast: a minute
    // boundary passes about every six seconds. A steady stream of samples until three
    // logs have rolled, two been archived and two analysed. (The first roll comes a moment
    // after the start: on a slow run the log it closes may hold no sample yet, and its
    // analysis finds no log of interest.)
    auto d = joulix({}, "@2026-11-21 23:59:57 x10");
    ASSERT_TRUE(logShows("[TestBundle] sample=1;"));
    const std::string interest = "BBPowerTool -- Power Log of Interest: ";
    ASSERT_TRUE(waitFor(
        [&] {
            d->signal(SIGUSR1);
            return occurrences(d->err(), interest) >= 2 && names(kFaultkeeper, ".joulix").size() >= 3 &&
                   names(kArchive, ".gz").size() >= 2 && names(kArchive, ".archive").empty();
        },
        90))
        << d->err().substr(0, 4000);
    d->signal(SIGTERM);
    ASSERT_EQ(d->wait(), 0);

    // Every rolled file is named after its own header.
    const auto rolled = names(kFaultkeeper, ".joulix");
    for (const std::string& name : rolled) {
        auto h = parseHeader(root.readFile(kFaultkeeper + "/" + name));
        ASSERT_TRUE(h) << name;
        EXPECT_EQ(name, "JX_" + h->timestamp + "_" + h->guid + ".joulix");
    }
    const std::string firstLog = root.readFile(kFaultkeeper + "/" + rolled[0]);
    EXPECT_TRUE(has(firstLog, "Timestamp=2026-11-21-235957"));
    // A first start finds no log to read: "Missing File"; the timer's start finds it in the past: "roll".
    EXPECT_TRUE(
        has(firstLog, "[Log] state=Missing File; existingLogdate=(null); periodStart=(null); rolloverDate=(null);"))
        << firstLog;
    EXPECT_TRUE(has(firstLog,
                    "[Log] state=roll; existingLogdate=2026-11-21 23:59:57 +0000; "
                    "periodStart=2026-11-22 00:00:00 +0000; rolloverDate=2026-11-22 00:01:00 +0000;"))
        << firstLog;
    EXPECT_TRUE(has(rolled[1], "JX_2026-11-22-0000"));

    // Each closed log is archived beside its rolled name, verified by gzip itself.
    for (const std::string& gz : names(kArchive, ".gz")) {
        const std::string log = root(kFaultkeeper + "/" + gz.substr(0, gz.size() - 3)),
                          archive = root(kArchive + "/" + gz);
        ASSERT_TRUE(fs::exists(log)) << gz;
        EXPECT_EQ(
            std::system(("gzip -t '" + archive + "' && gzip -dc '" + archive + "' | cmp -s - '" + log + "'").c_str()),
            0)
            << gz;
    }

    // Each analysis took a log that a roll had closed, never the current one. (A slow
    // run may start after a later roll than its own.)
    const std::string err = d->err();
    for (auto at = err.find(interest); at != std::string::npos; at = err.find(interest, at + 1)) {
        const fs::path path = err.substr(at + interest.size(), err.find('\n', at) - at - interest.size());
        std::error_code ec;
        EXPECT_FALSE(fs::equivalent(path, root(kLog), ec)) << "the current log is never the one analysed";
        EXPECT_NE(std::find(rolled.begin(), rolled.end(), path.filename().string()), rolled.end()) << path;
    }
    EXPECT_TRUE(has(err, "BBPowerTool -- Calcualte ARM Utility Values"));
    const std::size_t runs = occurrences(err, "BBPowerTool -- Execution Complete");
    const std::string metrics = root.readFile(kLogs + "/Metrics/metrics.jsonl");
    EXPECT_EQ(occurrences(metrics, "\"component\":31,\"metric\":2031617"), runs) << metrics;
    EXPECT_EQ(names(kLogs + "/Larkin").size(), runs);
}

TEST_F(DaemonTest, ADeletedLinkIsRestoredOnlyWhileLinkingIsAllowedAndADeletedLogEveryTime) {
    write({{"JXLinkFaultkeeper", "-bool", "YES"}, {"JXRotateJoulixDebug", "-bool", "YES"}});
    auto d = joulix();
    // Set up: the watch is armed before the notifications, and the first log-file
    // check (which would itself restore a missing link) has looked at the link count.
    ASSERT_TRUE(logShows("[Log-SetupNotifications]") && logShows("[Log-IsFileMultiLinked]"));
    ASSERT_EQ(names(kFaultkeeper, ".joulix").size(), 1u);
    const std::string link = root(kFaultkeeper + "/" + names(kFaultkeeper, ".joulix")[0]);
    fs::remove(link);
    ASSERT_TRUE(logShows("[Log] state=LogDirectoryEvent logPath=" + link + " exists=FAIL"))
        << logText() << tail(d->err());
    ASSERT_TRUE(waitFor([&] { return fs::exists(link); }));
    EXPECT_TRUE(fs::equivalent(link, root(kLog)));

    // Linking off: an event in the crash-report directory is looked at and let be. (One
    // that comes while the watch is being built again goes unseen: then once more.)
    write({{"JXLinkFaultkeeper", "-bool", "NO"}});
    const std::size_t fired = occurrences(logText(), "[Log-LogDirectoryEvent] fired=YES");
    fs::remove(link);
    ASSERT_TRUE(waitFor(
        [&] {
            if (logShows("[Log-LogDirectoryEvent] fired=YES", fired + 1, 1)) return true;
            fs::create_hard_link(root(kLog), link);
            fs::remove(link);
            return false;
        },
        20));
    // Later events, until one arrives after the watch is built again: by then the
    // deletion has been handled.
    ASSERT_TRUE(waitFor([&] {
        root.writeFile(kFaultkeeper + "/probe", "x");
        fs::remove(root(kFaultkeeper + "/probe"));
        return occurrences(logText(), "[Log-LogDirectoryEvent] fired=YES") >= fired + 2;
    }));
    EXPECT_FALSE(fs::exists(link));
    EXPECT_EQ(occurrences(logText(), "state=LogDirectoryEvent logPath=" + link), 1u);
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(waitFor([&] { return has(logText(), "[Joulix]"); }));
        fs::remove(root(kLog));
        // The watch is armed again after each event, so every deletion is seen.
        ASSERT_TRUE(logShows("[Log] state=LogDirectoryEvent logPath=" + root(kLog) + " exists=FAIL"))
            << round << d->err();
    }
}

}  // namespace
