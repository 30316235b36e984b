// Retention of the real daemon's archives by age, the directory watch that
// re-creates a deleted log, and the analysis at each roll.
#include <gtest/gtest.h>

#include <algorithm>
#include <sys/stat.h>

#include <ctime>
#include <filesystem>

#include "platform/PropertyList.h"
#include "tests/integration/Process.h"
#include "tests/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using jxtest::kFakeTime;
using jxtest::Process;
using jxtest::occurrences;
using jxtest::tail;
using jxtest::waitFor;

const std::string kLog = "/var/mobile/Library/Logs/CurrentJoulix.joulix";
const std::string kFaultkeeper = "/var/mobile/Library/Logs/Faultkeeper";
const std::string kArchive = "/var/mobile/Library/Logs/JXArchive";

// A local time a whole number of days from now, three seconds before a minute ends.
std::string fakeStart(int days) {
    std::time_t t = std::time(nullptr) + days * 86400;
    std::tm local{};
    localtime_r(&t, &local);
    local.tm_sec = 57;
    char text[64];
    std::strftime(text, sizeof text, "@%Y-%m-%d %H:%M:%S x10", &local);
    return text;
}

class ArchiveIntegrationTest : public jxtest::BinariesTest {
protected:
    void SetUp() override { root.writeFile("/etc/os-release", "VERSION_ID=\"12\"\n"); }
    std::unique_ptr<Process> daemon(const std::string& faketime = "") { return joulix({}, faketime); }
    std::vector<std::string> names(const std::string& dir, const std::string& suffix) {
        std::vector<std::string> found;
        std::error_code ec;
        for (fs::directory_iterator it(root(dir), ec), end; !ec && it != end; it.increment(ec)) {
            std::string n = it->path().filename();
            if (n.size() >= suffix.size() && n.compare(n.size() - suffix.size(), suffix.size(), suffix) == 0) found.push_back(n);
        }
        std::sort(found.begin(), found.end());
        return found;
    }
    // Set up: the watch is armed before the notifications, and the first log-file
    // check (which would itself restore a missing link) has looked at the link count.
    bool setUp() {
        return waitFor([&] {
            const std::string text = root.readFile(kLog);
            return text.find("[Log-SetupNotifications]") != std::string::npos &&
                   text.find("[Log-IsFileMultiLinked]") != std::string::npos;
        });
    }
    bool logShows(const std::string& what, std::size_t times = 1) {
        return waitFor([&] { return occurrences(root.readFile(kLog), what) >= times; });
    }
};

TEST_F(ArchiveIntegrationTest, ArchivesOlderThanFourteenDaysGoAtARoll) {
    if (access(kFakeTime.c_str(), R_OK) != 0) GTEST_SKIP() << "libfaketime missing";
    ASSERT_EQ(ctl({"defaults", "write", "JXRotateJoulix", "1 minute"}), 0);
    root.writeFile(kArchive + "/JX_old.joulix.gz", "made now");
    // The daemon's clock runs thirteen days ahead: the archive made now is thirteen days old.
    {
        auto d = daemon(fakeStart(13));
        ASSERT_TRUE(waitFor([&] { return names(kArchive, ".gz").size() >= 2 && names(kArchive, ".archive").empty(); }, 60))
            << d->err();
        d->signal(SIGTERM);
        ASSERT_EQ(d->wait(), 0);
    }
    EXPECT_TRUE(fs::exists(root(kArchive + "/JX_old.joulix.gz")));
    // Fifteen days ahead, the next roll's retention pass removes it.
    auto d = daemon(fakeStart(15));
    EXPECT_TRUE(waitFor([&] { return !fs::exists(root(kArchive + "/JX_old.joulix.gz")); }, 60)) << d->err();
    d->signal(SIGTERM);
    ASSERT_EQ(d->wait(), 0);
}

TEST_F(ArchiveIntegrationTest, ADeletedLogIsMadeAgainEveryTime) {
    ASSERT_EQ(ctl({"defaults", "write", "JXRotateJoulixDebug", "-bool", "YES"}), 0);
    auto d = daemon();
    ASSERT_TRUE(setUp());
    const std::string entry = "[Log] state=LogDirectoryEvent logPath=" + root(kLog) + " exists=FAIL";
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(waitFor([&] { return root.readFile(kLog).find("[Joulix]") != std::string::npos; }));
        fs::remove(root(kLog));
        // The watch is armed again after each event, so every deletion is seen.
        ASSERT_TRUE(logShows(entry)) << "round " << round << "\n" << d->err();
    }
    d->signal(SIGTERM);
    EXPECT_EQ(d->wait(), 0);
}

TEST_F(ArchiveIntegrationTest, ADeletedCrashReportLinkIsRestoredOnlyWhileLinkingIsAllowed) {
    ASSERT_EQ(ctl({"defaults", "write", "JXLinkFaultkeeper", "-bool", "YES"}), 0);
    ASSERT_EQ(ctl({"defaults", "write", "JXRotateJoulixDebug", "-bool", "YES"}), 0);
    auto d = daemon();
    ASSERT_TRUE(setUp());
    ASSERT_EQ(names(kFaultkeeper, ".joulix").size(), 1u);
    const std::string link = root(kFaultkeeper + "/" + names(kFaultkeeper, ".joulix")[0]);
    fs::remove(link);
    ASSERT_TRUE(logShows("[Log] state=LogDirectoryEvent logPath=" + link + " exists=FAIL"))
        << root.readFile(kLog) << tail(d->err());
    ASSERT_TRUE(waitFor([&] { return fs::exists(link); }));
    EXPECT_TRUE(fs::equivalent(link, root(kLog)));

    // Linking off: an event in the crash-report directory is looked at and let be.
    ASSERT_EQ(ctl({"defaults", "write", "JXLinkFaultkeeper", "-bool", "NO"}), 0);
    std::size_t fired = occurrences(root.readFile(kLog), "[Log-LogDirectoryEvent] fired=YES");
    fs::remove(link);
    ASSERT_TRUE(logShows("[Log-LogDirectoryEvent] fired=YES", fired + 1));
    // Later events, until one arrives after the watch is built again: by then the
    // deletion has been handled.
    ASSERT_TRUE(waitFor([&] {
        root.writeFile(kFaultkeeper + "/probe", "x");
        fs::remove(root(kFaultkeeper + "/probe"));
        return occurrences(root.readFile(kLog), "[Log-LogDirectoryEvent] fired=YES") >= fired + 2;
    }));
    EXPECT_FALSE(fs::exists(link));
    EXPECT_EQ(occurrences(root.readFile(kLog), "state=LogDirectoryEvent logPath=" + link), 1u);
    d->signal(SIGTERM);
    EXPECT_EQ(d->wait(), 0);
}

TEST_F(ArchiveIntegrationTest, AMinuteOfSteadyLoggingWakesNoWatch) {
    if (access(kFakeTime.c_str(), R_OK) != 0) GTEST_SKIP() << "libfaketime missing";
    ASSERT_EQ(ctl({"defaults", "write", "JXRotateJoulixDebug", "-bool", "YES"}), 0);
    ASSERT_EQ(ctl({"defaults", "write", "JXLinkFaultkeeper", "-bool", "YES"}), 0);
    jxtest::installBundle(root, "JXTestBundleLogger.bundle", "JXThermalLogger.bundle");

    // A minute of the daemon's time, ten times as fast: a sample every 100 ms of it.
    auto d = daemon("@2026-11-21 10:00:00 x10");
    ASSERT_TRUE(logShows("[TestBundle] sample=1;"));
    const std::string startText = root.readFile(kLog);
    const std::size_t before = occurrences(startText, "[Log-LogDirectoryEvent]");
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(6);
    while (std::chrono::steady_clock::now() < until) {
        d->signal(SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    d->signal(SIGTERM);
    ASSERT_EQ(d->wait(), 0);
    const std::string text = root.readFile(kLog);
    EXPECT_GT(occurrences(text, "[TestBundle]"), 100u);
    EXPECT_EQ(occurrences(text, "[Log-LogDirectoryEvent]"), before) << "the daemon's own writing woke the watch";
    EXPECT_EQ(before, 0u);
}

TEST_F(ArchiveIntegrationTest, EachRollRunsTheBasebandAnalysisOnTheLogJustRolled) {
    if (access(kFakeTime.c_str(), R_OK) != 0) GTEST_SKIP() << "libfaketime missing";
    for (std::vector<std::string> setting : {std::vector<std::string>{"JXBasebandPostProcessing", "-bool", "YES"},
                                             {"JXBasebandPostProcessingNotify", "-bool", "YES"},
                                             {"JXLoggingMode", "-int", "1"},
                                             {"JXRotateJoulix", "1 minute"},
                                             {"JXLinkFaultkeeper", "-bool", "YES"}}) {
        setting.insert(setting.begin(), {"defaults", "write"});
        ASSERT_EQ(ctl(setting), 0);
    }
    // A logger that writes the modem's statistics with every sample.
    jxtest::installBundle(root, "JXTestBundleLogger.bundle", "JXThermalLogger.bundle");
    jx::Array lines{jx::Value("[BB HW Log] LogCode=0x1; Duration=300;"),
                    jx::Value("[BB HW RPM] XO_Shutdown=[0%,1200]; VDD_Min=[0%,0];"),
                    jx::Value("[BB HW APPS] Sleep=4; CXO_Shutdown=[90%,55];"),
                    jx::Value("[BB HW Peripherals] USB=[1,2,10%]; SPI=[3,1%]; UART=[3,0%]; GPS=[0,0%]; GPS_DPO=[0,0%];")};
    std::vector<std::string> args{"defaults", "write", "JXTestBundleLogger", "-dict"};
    ASSERT_EQ(ctl(args), 2);  // pairs only: the lines go in through the preferences file below
    ASSERT_TRUE(jx::writePropertyListFileAtomically(
        root("/var/mobile/Library/Preferences/com.brindle.joulix.plist"),
        [&] {
            auto prefs = *jx::readPropertyListFile(root("/var/mobile/Library/Preferences/com.brindle.joulix.plist"));
            jx::Dictionary d = *prefs.asDictionary();
            d["JXTestBundleLogger"] = jx::Value(jx::Dictionary{{"Lines", jx::Value(lines)}});
            return jx::Value(d);
        }()));
    fs::create_directories(root("/usr/lib/joulix/Frameworks"));
    fs::copy_file(JOULIX_LARKIN_COMPOSE, root("/usr/lib/joulix/Frameworks/LarkinCompose.so"));

    auto d = daemon("@2026-11-21 10:00:57 x10");
    ASSERT_TRUE(logShows("[TestBundle] sample=1;"));
    const std::string metrics = "/var/mobile/Library/Logs/Metrics/metrics.jsonl";
    // A steady stream of samples until two rolls have been analysed. (The first roll
    // comes a moment after the start: on a slow run the log it closes may hold no
    // sample yet, and its analysis finds no log of interest.)
    const std::string interest = "BBPowerTool -- Power Log of Interest: ";
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(90);
    while (occurrences(d->err(), interest) < 2 && std::chrono::steady_clock::now() < deadline) {
        d->signal(SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ASSERT_GE(occurrences(d->err(), interest), 2u) << d->err().substr(0, 4000);
    d->signal(SIGTERM);
    ASSERT_EQ(d->wait(), 0);

    // Each run took a log that a roll had closed, never the current one. (A slow run
    // may start after a later roll than its own.)
    const auto rolled = names(kFaultkeeper, ".joulix");
    ASSERT_GE(rolled.size(), 3u);
    const std::string err = d->err();
    for (auto at = err.find(interest); at != std::string::npos; at = err.find(interest, at + 1)) {
        const std::string path = err.substr(at + interest.size(), err.find('\n', at) - at - interest.size());
        std::error_code ec;
        EXPECT_FALSE(fs::equivalent(path, root(kLog), ec)) << "the current log is never the one analysed";
        EXPECT_NE(std::find(rolled.begin(), rolled.end(), fs::path(path).filename().string()), rolled.end()) << path;
        EXPECT_EQ(fs::path(path).parent_path(), fs::path(root(kFaultkeeper))) << path;
    }
    EXPECT_NE(err.find("BBPowerTool -- Calcualte ARM Utility Values"), std::string::npos);
    const std::size_t runs = occurrences(err, "BBPowerTool -- Execution Complete");
    EXPECT_EQ(occurrences(root.readFile(metrics), "\"component\":31,\"metric\":2031617"), runs) << root.readFile(metrics);
    std::size_t reports = 0;
    for ([[maybe_unused]] auto& e : fs::directory_iterator(root("/var/mobile/Library/Logs/Larkin"))) ++reports;
    EXPECT_EQ(reports, runs);
}

}  // namespace
