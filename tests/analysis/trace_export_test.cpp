#include "analysis/TraceExport.h"

#include <gtest/gtest.h>

#include <numeric>
#include <sstream>

#include "tests/support/LogGenerator.h"
#include "tests/support/TestSupport.h"
#include "tests/support/TraceRules.h"

using namespace jx::analysis;

namespace {

struct Exported {
    std::string text;
    nlohmann::json doc;
    jxtest::TraceSummary summary;
    TraceStats stats;
};

class TraceExportTest : public ::testing::Test {
protected:
    LogLocations where() const {
        const std::string logs = root.path() + "/var/mobile/Library/Logs";
        return {logs + "/CurrentJoulix.joulix", logs + "/Faultkeeper", logs + "/JXArchive"};
    }
    Exported exportRoot(std::optional<TimeMs> since = std::nullopt, std::optional<TimeMs> until = std::nullopt) {
        Exported e;
        LogReader reader(findLogs(where()));
        std::ostringstream out;
        EXPECT_TRUE(exportTrace(reader, out, since, until, &e.stats));
        e.text = out.str();
        e.doc = nlohmann::json::parse(e.text);
        e.summary = jxtest::checkTrace(e.doc);
        for (const std::string& p : e.summary.problems) ADD_FAILURE() << p;
        return e;
    }
    jxtest::TestRoot root;
};

constexpr std::int64_t kT0 = 1795274400;  // 2026-11-21 15:20:00 UTC

std::string line(std::int64_t utcSeconds, const std::string& tag, const std::string& body) {
    return jxtest::logLine(utcSeconds * 1000, 0, tag, body) + "\n";
}

std::int64_t microsAt(std::int64_t utcSeconds) { return utcSeconds * 1000000; }

TEST_F(TraceExportTest, GeneratedDaysGiveTheirSuspendsWakesAndSeries) {
    jxtest::LogGeneratorOptions o;
    o.days = 3;
    o.periodSeconds = 120;
    o.zeroTailBytes = 100;
    const jxtest::LogTruth truth = jxtest::generateLogs(root.path(), o);
    const Exported e = exportRoot();
    const jxtest::TraceSummary& s = e.summary;

    EXPECT_EQ(s.slices.at("suspend").size(), truth.sleeps);
    EXPECT_EQ(s.wakeReasons, truth.wakesByReason);
    EXPECT_EQ(e.stats.suspends, truth.sleeps);
    // Every sample of a series is one counter event, at its own time.
    EXPECT_EQ(s.counters.at("battery BAT0 power").size(), truth.perTag.at("BatteryPower"));
    EXPECT_EQ(s.counters.at("battery BAT0 level").size(), truth.perTag.at("Battery"));
    EXPECT_EQ(s.counters.at("rapl package-0 power").size(), truth.perTag.at("Powercap"));
    EXPECT_EQ(s.minTs, truth.firstUtcMs * 1000);
    EXPECT_EQ(s.maxTs, truth.lastUtcMs * 1000);
    // Suspended time as the generator spent it.
    const double suspended = std::accumulate(s.slices.at("suspend").begin(), s.slices.at("suspend").end(), 0.0,
                                             [](double sum, auto& sl) { return sum + sl.second / 1e6; });
    EXPECT_NEAR(suspended, truth.suspendedSeconds, 0.001);
    // Charging periods run from sample to sample; a roll adds one period without one.
    const double charging = std::accumulate(s.slices.at("charging").begin(), s.slices.at("charging").end(), 0.0,
                                            [](double sum, auto& sl) { return sum + sl.second / 1e6; });
    EXPECT_NEAR(charging, truth.chargingSeconds, o.days * o.periodSeconds);
    EXPECT_FALSE(s.slices.at("screen on").empty());
    EXPECT_EQ(s.instants.at("log start").size(), truth.logs);
    EXPECT_EQ(s.threads, (std::set<std::string>{"log", "screen", "suspend", "charging"}));
}

// How the suspend track comes out of the sleep logger's lines, in and out of a range.
TEST_F(TraceExportTest, SuspendSlicesFollowTheEntriesAndTheRange) {
    const std::string clock = line(kT0, "Clock", "utc_s=1795274400.000; offset_s=0; zone=UTC; reason=new_log;");
    struct Case {
        const char* what;
        std::string log;
        std::optional<std::int64_t> since, until;                   // seconds after kT0
        std::vector<std::pair<std::int64_t, std::int64_t>> slices;  // (begin, end), seconds after kT0
        std::size_t wakes;
    };
    const Case cases[] = {
        {"the login manager's account gives the times",
         line(kT0 + 10, "Sleep", "event=did_sleep;") + line(kT0 + 610, "Wake", "reason=rtc_alarm;") +
             line(kT0 + 610, "Suspend",
                  "began_utc_s=1795274410.000; ended_utc_s=1795275010.000; duration_s=600.000; drain_mw=150.5; "
                  "woken_by=rtc_alarm; accounting=login_manager;"),
         {},
         {},
         {{10, 610}},
         1},
        {"a suspend counted after the fact began before its sleep line",
         line(kT0 + 900, "Sleep", "event=did_sleep;") + line(kT0 + 900, "Wake", "reason=wlan;") +
             line(kT0 + 900, "Suspend",
                  "began_utc_s=1795274700.000; ended_utc_s=1795275300.000; duration_s=600.000; suspended_s=600.000; "
                  "woken_by=wlan; accounting=suspend_stats;") +
             line(kT0 + 960, "Display", "active=NO; brightness=0;"),
         {},
         {},
         {{300, 900}},
         1},
        {"sleep and wake lines alone",
         line(kT0 + 10, "Sleep", "event=did_sleep;") + line(kT0 + 100, "Wake", "reason=modem;") +
             line(kT0 + 200, "Sleep", "event=did_sleep;") + line(kT0 + 300, "Wake", "reason=modem;"),
         {},
         {},
         {{10, 100}, {200, 300}},
         2},
        {"begun before since: cut at since, its wake kept",
         line(kT0 + 10, "Sleep", "event=did_sleep;") + line(kT0 + 600, "Wake", "reason=rtc_alarm;"),
         50,
         {},
         {{50, 600}},
         1},
        {"a wake before since is left out with its suspend",
         line(kT0 + 10, "Sleep", "event=did_sleep;") + line(kT0 + 20, "Wake", "reason=rtc_alarm;") +
             line(kT0 + 900, "Display", "active=NO; brightness=0;"),
         50,
         {},
         {},
         0},
        {"still suspended at the end of the logs: cut at their last entry",
         line(kT0 + 10, "Display", "active=NO; brightness=0;") + line(kT0 + 20, "Sleep", "event=did_sleep;") +
             line(kT0 + 30, "Display", "active=NO; brightness=0;"),
         {},
         {},
         {{20, 30}},
         0},
        {"across the whole range: cut at both edges",
         line(kT0 + 10, "Sleep", "event=did_sleep;") + line(kT0 + 5000, "Wake", "reason=power_key;"),
         100,
         200,
         {{100, 200}},
         0},
        {"a new start ends a suspend whose wake was never written",
         line(kT0 + 10, "Sleep", "event=did_sleep;") + line(kT0 + 400, "Log", "state=booting;") +
             line(kT0 + 500, "Wake", "reason=rtc_alarm;"),
         {},
         {},
         {{10, 400}},
         1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        root.writeFile("/var/mobile/Library/Logs/CurrentJoulix.joulix", clock + c.log);
        auto at = [](std::optional<std::int64_t> s) {
            return s ? std::optional<TimeMs>((kT0 + *s) * 1000) : std::nullopt;
        };
        const Exported e = exportRoot(at(c.since), at(c.until));
        std::vector<std::pair<std::int64_t, std::int64_t>> got;
        if (e.summary.slices.contains("suspend"))
            for (auto [ts, dur] : e.summary.slices.at("suspend"))
                got.emplace_back(ts - microsAt(kT0), ts + dur - microsAt(kT0));
        std::vector<std::pair<std::int64_t, std::int64_t>> want;
        for (auto [b, end] : c.slices) want.emplace_back(b * 1000000, end * 1000000);
        EXPECT_EQ(got, want);
        EXPECT_EQ(e.summary.instants.contains("wake") ? e.summary.instants.at("wake").size() : 0u, c.wakes);
    }
}

TEST_F(TraceExportTest, SuspendEntryCarriesItsDrainAndIsNotCountedTwice) {
    root.writeFile(
        "/var/mobile/Library/Logs/CurrentJoulix.joulix",
        line(kT0, "Clock", "utc_s=1795274400.000; offset_s=0; zone=UTC; reason=new_log;") +
            line(kT0 + 10, "Sleep", "event=did_sleep;") + line(kT0 + 610, "Wake", "reason=rtc_alarm;") +
            line(kT0 + 611, "Clock", "utc_s=1795275011.000; offset_s=0; zone=UTC; reason=resume;") +
            line(kT0 + 611, "Suspend",
                 "began_utc_s=1795274410.000; ended_utc_s=1795275010.000; energy_before_mwh=30000; "
                 "energy_after_mwh=29975; drain_mw=150; woken_by=rtc_alarm; wakeup_irq=9; "
                 "accounting=login_manager;") +
            // Written again by a daemon restarted just after: the same suspend.
            line(kT0 + 630, "Suspend",
                 "began_utc_s=1795274410.000; ended_utc_s=1795275010.000; drain_mw=150; woken_by=rtc_alarm;"));
    const Exported e = exportRoot();
    ASSERT_EQ(e.summary.slices.at("suspend").size(), 1u);
    const nlohmann::json* slice = nullptr;
    for (const auto& ev : e.doc["traceEvents"])
        if (ev["name"] == "suspend") slice = &ev;
    ASSERT_NE(slice, nullptr);
    EXPECT_EQ((*slice)["args"]["drain_mw"], 150);
    EXPECT_EQ((*slice)["args"]["woken_by"], "rtc_alarm");
    EXPECT_EQ((*slice)["args"]["accounting"], "login_manager");
}

// A log from before the measuring loggers, and values that read as no number: still a
// valid trace, with only the tracks the log has.
TEST_F(TraceExportTest, OlderLogsAndOddValuesGiveFewerTracks) {
    root.writeFile(
        "/var/mobile/Library/Logs/CurrentJoulix.joulix",
        "11/21/2026 15:20:00.000 [Joulix] Version=6.01; Build=12 (6.1.0-27); File_GUID=A-B; pid=7;\n"
        "11/21/2026 15:20:00.001 [Log] state=new;\n"
        "11/21/2026 15:20:00.002 [Battery] name=BAT0; level=57; status=Discharging;\n"
        "11/21/2026 15:20:00.003 [Display] active=YES; brightness=(null);\n"
        "11/21/2026 15:21:00.000 [BatteryPower] name=BAT0; power_mw=nan; energy_mwh=inf; status=Discharging;\n"
        "11/21/2026 15:21:00.001 [Thermal] zone=x86_pkg_temp; temperature=(null);\n"
        "11/21/2026 15:22:00.000 [Display] active=NO; brightness=0;\n");
    const Exported e = exportRoot();
    EXPECT_EQ(e.summary.threads, (std::set<std::string>{"log", "screen"}));
    std::set<std::string> counters;
    for (const auto& [name, samples] : e.summary.counters) counters.insert(name);
    EXPECT_EQ(counters, (std::set<std::string>{"battery BAT0 level", "display brightness"}));
    EXPECT_EQ(e.summary.slices.at("screen on").size(), 1u);
    EXPECT_EQ(e.summary.slices.at("screen on")[0].second, 120'000'000 - 3'000);
    EXPECT_EQ(e.summary.instants.at("log new").size(), 1u);
}

// Before since, each series' last value is drawn from the range's start.
TEST_F(TraceExportTest, SeriesStartAtSinceWithTheirValueThen) {
    root.writeFile(
        "/var/mobile/Library/Logs/CurrentJoulix.joulix",
        line(kT0, "Clock", "utc_s=1795274400.000; offset_s=0; zone=UTC; reason=new_log;") +
            line(kT0 + 60, "BatteryPower", "name=BAT0; power_mw=-900; energy_mwh=30000; status=Discharging;") +
            line(kT0 + 120, "BatteryPower", "name=BAT0; power_mw=-800; energy_mwh=29985; status=Discharging;") +
            line(kT0 + 180, "BatteryPower", "name=BAT0; power_mw=-700; energy_mwh=29972; status=Discharging;"));
    const Exported e = exportRoot((kT0 + 150) * 1000, (kT0 + 170) * 1000);
    EXPECT_EQ(e.summary.counters.at("battery BAT0 power"),
              (std::vector<std::pair<std::int64_t, double>>{{microsAt(kT0 + 150), -800}}));
}

}  // namespace
