// The log reader, and generated days read, reported and exported against their truth;
// hand-written logs for the trace export, the wake loops and damaged lines.
#include "analysis/LogReader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <numeric>
#include <sstream>

#include "analysis/Report.h"
#include "analysis/TimeText.h"
#include "analysis/TraceExport.h"
#include "tests/support/LogGenerator.h"
#include "tests/support/TestSupport.h"
#include "tests/support/TraceRules.h"

using namespace jx::analysis;

namespace {

struct Read {
    std::vector<TimeMs> times, local;
    std::map<std::string, std::uint64_t> perTag;
    std::uint64_t guessed = 0;
    ReadStats stats;
};

Read readAll(std::vector<LogSource> sources) {
    Read out;
    LogReader reader(std::move(sources));
    reader.read([&](const LogRecord& r) {
        out.times.push_back(r.time);
        out.local.push_back(r.localTime);
        ++out.perTag[std::string(r.tag)];
        out.guessed += r.guessed;
        return true;
    });
    out.stats = reader.stats();
    return out;
}

const StateFigures& in(const Report& r, PowerState s) { return r.states[static_cast<int>(s)]; }

struct GeneratedCase {
    const char* name;
    jxtest::LogGeneratorOptions o;
};

class GeneratedLogsTest : public ::testing::TestWithParam<GeneratedCase> {
protected:
    jxtest::TestRoot root;
};

// Drains within 1 %, counts exact. The three days at two minutes are also read by
// joulixctl log, report and export in the integration tests, where their trace is checked.
TEST_P(GeneratedLogsTest, ReadReportedAndExportedAsWritten) {
    const jxtest::LogGeneratorOptions& o = GetParam().o;
    jxtest::ZoneScope zone("XXX+5");  // not the logs' zone: only their [Clock] entries may count
    const jxtest::LogTruth truth = jxtest::generateLogs(root.path(), o);

    // Rolled logs have their archive copies too: each log is read once, in order.
    const std::vector<LogSource> logs = findLogs(LogLocations::underRoot());
    ASSERT_EQ(logs.size(), static_cast<std::size_t>(o.days));
    EXPECT_TRUE(logs[0].compressed);
    EXPECT_EQ(logs[1].kind, LogSource::Kind::Rolled);
    EXPECT_EQ(logs.back().kind, LogSource::Kind::Current);
    const Read all = readAll(logs);
    EXPECT_EQ(all.perTag, truth.perTag);
    EXPECT_EQ(all.guessed, o.clockEntries ? 0u : truth.records);
    EXPECT_TRUE(std::is_sorted(all.times.begin(), all.times.end()));
    bool stepsBack = false;
    for (std::size_t i = 1; i < all.local.size(); ++i) stepsBack |= all.local[i] < all.local[i - 1];
    EXPECT_EQ(stepsBack, o.offsetChangeUtc.has_value()) << "local time repeats an hour only when summer time ends";
    {
        // A range leaves out whole files but no record in it.
        const TimeMs since = truth.firstUtcMs + 2 * 86400000LL + 3600000;
        LogReader reader(logs);
        reader.setRange(since, std::nullopt);
        std::uint64_t inRange = 0;
        reader.read([&](const LogRecord& r) { return inRange += r.time >= since, true; });
        EXPECT_EQ(inRange, std::count_if(all.times.begin(), all.times.end(), [&](TimeMs t) { return t >= since; }));
        EXPECT_EQ(reader.stats().files, o.days - 2u);
    }

    // The report; with the baseband post-processor's records of the period only.
    const std::string at = std::to_string(truth.firstUtcMs + 3600000);
    const std::string record = "{\"component\":31,\"metric\":2031617,\"timestamp\":";
    root.writeFile("/var/mobile/Library/Logs/Metrics/metrics.jsonl",
                   record + at + ",\"larkinPriority\":1,\"armUtilityThresholdPoint\":100}\n" + record + at +
                       ",\"larkinPriority\":0,\"armUtilityThresholdPoint\":12}\n{\"component\":31,\"metric\":99}\n"
                       "not json\n" +
                       record + "1000,\"larkinPriority\":1}\n");
    ReportOptions ro;
    ro.buckets = 64;
    ro.metricsSpool = root("/var/mobile/Library/Logs/Metrics/metrics.jsonl");
    auto reportOf = [&](const ReportOptions& ro) {
        LogReader reader(findLogs(LogLocations::underRoot()));
        reader.setRange(ro.since, ro.until);
        return computeReport(reader, ro);
    };
    const Report r = reportOf(ro);
    EXPECT_EQ(r.first, truth.firstUtcMs);
    EXPECT_EQ(r.last, truth.lastUtcMs);
    EXPECT_EQ(r.guessedTimes, !o.clockEntries);
    ASSERT_TRUE(r.fullMwh);
    auto near = [](double got, double want, const char* what) {
        EXPECT_NEAR(got, want, std::fabs(want) * 0.01) << what;
    };
    near(in(r, PowerState::ScreenOn).energyMwh, truth.screenOnDrainedMwh, "screen on");
    near(in(r, PowerState::ScreenOffAwake).energyMwh, truth.screenOffDrainedMwh, "screen off");
    near(in(r, PowerState::Suspended).energyMwh, truth.suspendedDrainedMwh, "suspended");
    near(in(r, PowerState::Charging).energyMwh, truth.chargedMwh, "charged");
    near(in(r, PowerState::Suspended).seconds, truth.suspendedSeconds, "time suspended");
    near(in(r, PowerState::ScreenOn).seconds, truth.dischargingScreenOnSeconds, "time screen on");
    near(in(r, PowerState::ScreenOffAwake).seconds, truth.dischargingScreenOffSeconds, "time screen off");
    near(in(r, PowerState::Charging).seconds, truth.chargingSeconds, "time charging");
    EXPECT_EQ(r.unseenSeconds, 0);
    // Days by the log's local dates, drains split at midnight.
    ASSERT_EQ(r.days.size(), truth.drainedMwhByDay.size());
    for (const auto& [day, mwh] : truth.drainedMwhByDay) {
        ASSERT_TRUE(r.days.contains(day)) << day;
        EXPECT_NEAR(r.days.at(day).drainedMwh, mwh, std::max(mwh * 0.01, 1.0)) << day;
    }
    EXPECT_EQ(r.suspends, truth.sleeps);
    EXPECT_EQ(r.wakesByReason, truth.wakesByReason);
    EXPECT_EQ(r.wakeLoopCount, 0u);  // the generator's suspends lie minutes apart
    std::map<std::string, double> cpu, usage;
    for (const auto& [name, u] : r.processes) {
        cpu[name] = u.primary;
        usage["switches " + name] = u.secondary;
    }
    for (const auto& [name, u] : r.wakeupSources) usage["source " + name] = u.primary;
    for (const auto& [name, u] : r.devices) usage["device " + name] = u.primary;
    for (const auto& [name, u] : r.raplZones) usage["rapl " + name] = u.primary;
    for (const auto& [name, t] : r.thermal) usage["thermal " + name] = t.max;
    EXPECT_EQ(cpu, truth.cpuMsByProcess);
    EXPECT_EQ(usage, truth.usage);
    // Without the newer loggers, the suspends' drain comes from the readings either side.
    EXPECT_EQ(r.suspendRecords, o.newerTags ? truth.sleeps : 0u);
    EXPECT_EQ(r.wifi.size(), o.newerTags ? 1u : 0u);
    EXPECT_EQ(r.series.temperatureC.empty(), !o.newerTags);
    if (o.newerTags) {
        EXPECT_EQ(r.suspendDrainMw.count, truth.sleeps);
        EXPECT_NEAR(r.suspendDrainMw.mean(), 120, 0.5);
    }
    ASSERT_EQ(r.baseband.size(), 2u);
    EXPECT_EQ(r.basebandIssues, 1u);
    EXPECT_EQ(r.baseband[1].thresholdPoint, 12);
    const auto j = reportJson(r, ro);
    EXPECT_EQ(j["baseband"][0]["verdict"], "potential issue");
    EXPECT_EQ(j["baseband"][1]["verdict"], "no issue");
    // Folding buckets as the span grows keeps every millisecond and every reading.
    EXPECT_LE(r.bucketCount, 64u);
    EXPECT_GT(r.bucketCount, 32u);
    EXPECT_GE(r.seriesOrigin + r.bucketMs * static_cast<TimeMs>(r.bucketCount), r.last);
    const auto& s = r.series;
    EXPECT_NEAR(std::accumulate(s.suspended.ms.begin(), s.suspended.ms.end(), 0.0),
                in(r, PowerState::Suspended).seconds * 1000, 1);
    EXPECT_NEAR(std::accumulate(s.charging.ms.begin(), s.charging.ms.end(), 0.0),
                in(r, PowerState::Charging).seconds * 1000, 1);
    // A range cuts the time and the counts at its edges.
    ReportOptions dayOptions;
    dayOptions.since = truth.firstUtcMs + 86400000;
    dayOptions.until = *dayOptions.since + 86400000;
    const Report day = reportOf(dayOptions);
    EXPECT_GE(day.first, *dayOptions.since);
    EXPECT_LE(day.last, *dayOptions.until);
    EXPECT_NEAR(day.loggedSeconds() + day.unseenSeconds, 86400, 0.001);
    EXPECT_LT(day.suspends, r.suspends);
    EXPECT_GT(day.suspends, 0u);
}

// The zero-filled tail of a power loss is read by joulixctl in the integration tests.
INSTANTIATE_TEST_SUITE_P(
    Generated, GeneratedLogsTest,
    ::testing::Values(GeneratedCase{"ThreeDays", {}},
                      // Berlin's autumn night: 03:00 CEST becomes 02:00 CET.
                      GeneratedCase{"DaylightSavingNight",
                                    {.offsetSeconds = 7200,
                                     .offsetChangeUtc = 1792800000 + 86400 + 3600,
                                     .offsetAfterSeconds = 3600}},
                      GeneratedCase{"OlderTagsOnly", {.newerTags = false}},
                      GeneratedCase{"AWeekCoarse", {.days = 7, .periodSeconds = 300}},
                      // Written in the reader's zone.
                      GeneratedCase{"ClockLessInTheReadersZone",
                                    {.periodSeconds = 120, .offsetSeconds = -5 * 3600, .clockEntries = false}}),
    [](const auto& info) { return std::string(info.param.name); });

constexpr std::int64_t kT0 = 1795274400;  // 2026-11-21 15:20:00 UTC
using Spans = std::vector<std::pair<double, double>>;

class LogTest : public ::testing::Test {
protected:
    // Lines written as given (no newline added) into the current log and read.
    Read readText(const std::string& text, bool scanned = true) {
        root.writeFile("/var/mobile/Library/Logs/CurrentJoulix.joulix", text);
        LogSource source = LogSource::at(LogLocations::underRoot().current, LogSource::Kind::Current);
        if (scanned) scanLogHead(source);
        return readAll({source});
    }
    // Writes the current log: a [Clock] at kT0, then entries "seconds-after-kT0 Tag body"
    // split by '|', in UTC.
    void writeLog(const std::string& entries) {
        std::string text = jxtest::logLine(kT0 * 1000, 0, "Clock", "utc_s=1795274400.000; offset_s=0; zone=UTC;");
        std::istringstream in(entries);
        for (std::string entry; std::getline(in, entry, '|');) {
            std::istringstream e(entry);
            std::int64_t seconds;
            std::string tag, body;
            e >> seconds >> tag >> std::ws;
            std::getline(e, body);
            text += "\n" + jxtest::logLine((kT0 + seconds) * 1000, 0, tag, body);
        }
        root.writeFile("/var/mobile/Library/Logs/CurrentJoulix.joulix", text + "\n");
    }
    // Exported and checked against the trace rules; since and until in seconds after kT0.
    jxtest::TraceSummary exportLog(std::optional<std::int64_t> since = {}, std::optional<std::int64_t> until = {}) {
        auto at = [](std::optional<std::int64_t> s) {
            return s ? std::optional<TimeMs>((kT0 + *s) * 1000) : std::nullopt;
        };
        LogReader reader(findLogs(LogLocations::underRoot()));
        std::ostringstream out;
        EXPECT_TRUE(exportTrace(reader, out, at(since), at(until), nullptr));
        doc = nlohmann::json::parse(out.str());
        jxtest::TraceSummary s = jxtest::checkTrace(doc);
        EXPECT_EQ(s.problems, std::vector<std::string>{});
        return s;
    }
    // The slices of a name, (begin, end) in seconds after kT0.
    static Spans spans(const jxtest::TraceSummary& s, const char* name) {
        Spans out;
        if (s.slices.contains(name))
            for (auto [ts, dur] : s.slices.at(name)) out.emplace_back(ts / 1e6 - kT0, (ts + dur) / 1e6 - kT0);
        return out;
    }
    jxtest::TestRoot root;
    nlohmann::json doc;
};
using DamagedLogTest = LogTest;
using HandWrittenLogTest = LogTest;
const std::string ok = "11/21/2026 16:20:00.123 [Clock] utc_s=1795274400.123; offset_s=3600; zone=X; reason=new_log;\n";
const std::string line = "11/21/2026 16:20:01.000 [Display] active=YES; brightness=0.5;\n";

// How the suspend track comes out of the sleep logger's lines, in and out of a range.
TEST_F(HandWrittenLogTest, SuspendSlicesFollowTheEntriesAndTheRange) {
    struct Case {
        const char* what;
        std::string log;
        Spans slices;
        std::size_t wakes;
        std::optional<std::int64_t> since = {}, until = {};
    };
    const Case cases[] = {
        {"a suspend counted after the fact began before its sleep line",
         "900 Sleep|900 Wake reason=wlan;|900 Suspend began_utc_s=1795274700.000; ended_utc_s=1795275300.000; "
         "suspended_s=600.000; woken_by=wlan; accounting=suspend_stats;|960 Display active=NO;",
         {{300, 900}},
         1},
        {"begun before since: cut at since, its wake kept", "10 Sleep|600 Wake reason=rtc_alarm;", {{50, 600}}, 1, 50},
        {"a wake before since is left out", "10 Sleep|20 Wake reason=rtc_alarm;|900 Display active=NO;", {}, 0, 50},
        {"still suspended at the end", "10 Display active=NO;|20 Sleep|30 Display active=NO;", {{20, 30}}, 0},
        {"across the range: cut at both edges", "10 Sleep|5000 Wake reason=power_key;", {{100, 200}}, 0, 100, 200},
        {"a new start ends a suspend without its wake",
         "10 Sleep|400 Log state=booting;|500 Wake reason=x;",
         {{10, 400}},
         1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        writeLog(c.log);
        const jxtest::TraceSummary s = exportLog(c.since, c.until);
        EXPECT_EQ(spans(s, "suspend"), c.slices);
        EXPECT_EQ(s.instants.contains("wake") ? s.instants.at("wake").size() : 0u, c.wakes);
    }
}

TEST_F(HandWrittenLogTest, SuspendEntryCarriesItsDrainAndIsNotCountedTwice) {
    // Written again by a daemon restarted just after: the same suspend.
    writeLog(
        "10 Sleep event=did_sleep;|610 Wake reason=rtc_alarm;|611 Clock utc_s=1795275011.000; offset_s=0; zone=UTC; "
        "reason=resume;|611 Suspend began_utc_s=1795274410.000; ended_utc_s=1795275010.000; energy_before_mwh=30000; "
        "energy_after_mwh=29975; drain_mw=150; woken_by=rtc_alarm; wakeup_irq=9; accounting=login_manager;|630 "
        "Suspend began_utc_s=1795274410.000; ended_utc_s=1795275010.000; drain_mw=150; woken_by=rtc_alarm;");
    EXPECT_EQ(spans(exportLog(), "suspend"), (Spans{{10, 610}}));
    for (const auto& ev : doc["traceEvents"])
        if (ev["name"] == "suspend") {
            EXPECT_EQ(ev["args"]["drain_mw"], 150);
            EXPECT_EQ(ev["args"]["woken_by"], "rtc_alarm");
            EXPECT_EQ(ev["args"]["accounting"], "login_manager");
        }
}

// A log from before the measuring loggers, and values that read as no number: still a
// valid trace, with only the tracks the log has.
TEST_F(HandWrittenLogTest, OlderLogsAndOddValuesGiveFewerTracks) {
    root.writeFile(
        "/var/mobile/Library/Logs/CurrentJoulix.joulix",
        "11/21/2026 15:20:00.000 [Joulix] Version=6.01; Build=12 (6.1.0-27); File_GUID=A-B; pid=7;\n"
        "11/21/2026 15:20:00.001 [Log] state=new;\n"
        "11/21/2026 15:20:00.002 [Battery] name=BAT0; level=57; status=Discharging;\n"
        "11/21/2026 15:20:00.003 [Display] active=YES; brightness=(null);\n"
        "11/21/2026 15:21:00.000 [BatteryPower] name=BAT0; power_mw=nan; energy_mwh=inf; status=Discharging;\n"
        "11/21/2026 15:21:00.001 [Thermal] zone=x86_pkg_temp; temperature=(null);\n"
        "11/21/2026 15:22:00.000 [Display] active=NO; brightness=0;\n");
    const jxtest::TraceSummary s = exportLog();
    EXPECT_EQ(s.threads, (std::set<std::string>{"log", "screen"}));
    std::set<std::string> counters;
    for (const auto& [name, samples] : s.counters) counters.insert(name);
    EXPECT_EQ(counters, (std::set<std::string>{"battery BAT0 level", "display brightness"}));
    ASSERT_EQ(s.slices.at("screen on").size(), 1u);
    EXPECT_EQ(s.slices.at("screen on")[0].second, 120'000'000 - 3'000);
    EXPECT_EQ(s.instants.at("log new").size(), 1u);
}

// A night of wakes: which of them make loops.
TEST_F(HandWrittenLogTest, WakesCloserThanTheThresholdMakeOneLoop) {
    const struct {
        const char* name;
        std::vector<int> gapsSeconds;  // between one wake and the next
        std::uint64_t loops, wakesInLoops, longest;
    } cases[] = {
        {"one loop of four", {30, 30, 59}, 1, 4, 4},
        {"the threshold itself is no loop", {60, 60}, 0, 0, 0},
        {"two loops, the longest first", {10, 200, 10, 10, 400, 5}, 3, 7, 3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string entries = "1 Sleep|2 Wake reason=rtc_alarm;";
        std::int64_t t = 2;
        for (std::size_t i = 0; i < c.gapsSeconds.size(); ++i) {
            t += c.gapsSeconds[i];
            entries += "|" + std::to_string(t - 1) + " Sleep|" + std::to_string(t) +
                       (i % 2 ? " Wake reason=rtc_alarm;" : " Wake reason=wlan;");
        }
        writeLog(entries);
        LogReader reader(findLogs(LogLocations::underRoot()));
        const Report r = computeReport(reader, {});
        EXPECT_EQ(r.wakes, c.gapsSeconds.size() + 1);
        EXPECT_EQ(r.wakeLoopCount, c.loops);
        EXPECT_EQ(r.wakesInLoops, c.wakesInLoops);
        ASSERT_EQ(r.wakeLoops.size(), c.loops);
        EXPECT_EQ(c.loops ? r.wakeLoops.front().wakes : 0, c.longest);
    }
}

TEST_F(DamagedLogTest, MalformedLinesAreSkippedAndCounted) {
    struct Case {
        const char* what;
        std::string text;
        std::uint64_t malformed, zeroBytes;
    };
    const std::vector<Case> cases = {
        {"only a time (disk full)", ok + "11/21/2026 16:20:01.000\n" + line, 1, 0},
        {"no tag", ok + "11/21/2026 16:20:01.000 Display active=YES;\n" + line, 1, 0},
        {"bad date", ok + "13/21/2026 16:20:01.000 [Display] active=YES;\n" + line, 1, 0},
        {"text", ok + "garbage\n\n" + line, 2, 0},
        {"an empty value", ok + "11/21/2026 16:20:01.000 [Display] empty=;\n", 0, 0},
        {"a field without =", ok + "11/21/2026 16:20:01.000 [Display] active;\n" + line, 1, 0},
        {"cut at the end", ok + line + "11/21/2026 16:20:02.000 [Display] act", 1, 0},
        {"written on after zeros", ok + "11/21/2026 16:20:02.000 [Disp" + std::string(300, '\0') + line, 1, 300},
        {"zeros after a whole line", ok + std::string(10, '\0') + line, 0, 10},
        {"overlong line", ok + "11/21/2026 16:20:02.000 [X] a=" + std::string(300000, 'x') + ";\n" + line, 1, 0},
        {"debug line without its last ;", ok + "11/21/2026 16:20:02.000 [Log-LogDirectoryEvent] fired=YES\n", 0, 0},
    };
    for (const Case& c : cases) {
        const Read r = readText(c.text);
        EXPECT_EQ(r.stats.records, 2u) << c.what;
        EXPECT_EQ(r.stats.malformed, c.malformed) << c.what;
        EXPECT_EQ(r.stats.zeroBytes, c.zeroBytes) << c.what;
    }
}

// A log read while it grows, its head not scanned: lines before the first [Clock]
// wait for it and take its offset.
TEST_F(DamagedLogTest, LinesBeforeTheFirstClockOfAGrowingLogTakeItsOffset) {
    jxtest::ZoneScope zone("XXX+5");
    const Read r = readText("11/21/2026 16:19:59.000 [Joulix] Version=6.01; File_GUID=A;\n" + ok + line, false);
    ASSERT_EQ(r.times.size(), 3u);
    EXPECT_EQ(r.guessed, 0u);
    EXPECT_EQ(r.times[0], r.local[0] - 3600000);
    EXPECT_EQ(r.times[2], r.local[2] - 3600000);
}

// Line and ISO times are read and written by joulixctl log in the integration tests too.
TEST(TimeTextTest, EverySpellingOfATime) {
    EXPECT_EQ(isoUtc(951868800000 - 1), "2000-02-29T23:59:59.999Z");
    EXPECT_EQ(parseLineTime("02/29/2000 23:59:59.999"), 951868800000 - 1);
    EXPECT_EQ(parseLineTime("02/29/2000 23:59:59,999"), std::nullopt);
    // Central European time with its summer rule, spelled out: no zone files needed.
    jxtest::ZoneScope zone("CET-1CEST,M3.5.0,M10.5.0/3");
    const TimeMs now = 1795274400000;  // 2026-11-21T15:20:00Z, 16:20 local
    const std::pair<const char*, std::optional<TimeMs>> cases[] = {
        {"now", now},
        {"-1d", now - 86400000},
        {"-1w", now - 7 * 86400000LL},
        {"-1h30m", now - 5400000},
        {"2026-11-21 16:20:05", now + 5000},
        {"2026-11-21T16:20", now},
        {"2026-07-01 12:00", 1782900000000},  // summer: two hours east
        {"2026-11-21", 1795215600000},        // local midnight
        {"2026-11-21 15:20:00.250Z", now + 250},
        {"2026-11-21T16:20:00+01", now},
        {"2026-11-21T10:20:00-0500", now}};
    for (const auto& [text, expected] : cases) EXPECT_EQ(parseTimeText(text, now), expected) << "'" << text << "'";
    for (const char* bad : {"", "-", "-2", "-h", "2026-11-21 25:00", "2026-13-01", "2026-11-21 16", "21/11/2026",
                            "2026-11-21T16:20:00+1", "2026-11-21T16:20:00Zjunk", "2026-11-21T16:20:00.Z"})
        EXPECT_EQ(parseTimeText(bad, now), std::nullopt) << "'" << bad << "'";
}

}  // namespace
