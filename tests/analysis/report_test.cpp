#include "analysis/Report.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <numeric>

#include "tests/support/LogGenerator.h"
#include "tests/support/TestSupport.h"

using namespace jx::analysis;

namespace {

LogLocations under(const jxtest::TestRoot& root) {
    const std::string logs = root.path() + "/var/mobile/Library/Logs";
    return {logs + "/CurrentJoulix.joulix", logs + "/Faultkeeper", logs + "/JXArchive"};
}

Report reportOf(const jxtest::TestRoot& root, ReportOptions o = {}) {
    LogReader reader(findLogs(under(root)));
    reader.setRange(o.since, o.until);
    return computeReport(reader, o);
}

const StateFigures& in(const Report& r, PowerState s) { return r.states[static_cast<int>(s)]; }

void expectWithin1Percent(double got, double want, const std::string& what) {
    EXPECT_NEAR(got, want, std::fabs(want) * 0.01) << what;
}

struct GeneratedCase {
    const char* name;
    int days;
    int periodSeconds;
    bool newerTags;
    bool daylightSavingEnds;
};

class GeneratedLogsTest : public ::testing::TestWithParam<GeneratedCase> {
protected:
    jxtest::TestRoot root;
};

// The figures against what the generator wrote: drains within 1 %, counts and the ranking exact.
TEST_P(GeneratedLogsTest, FiguresMatchTheTruth) {
    const GeneratedCase& c = GetParam();
    jxtest::LogGeneratorOptions o;
    o.days = c.days;
    o.periodSeconds = c.periodSeconds;
    o.newerTags = c.newerTags;
    o.zeroTailBytes = 300;
    if (c.daylightSavingEnds) {
        // Berlin's autumn night: 03:00 CEST becomes 02:00 CET.
        o.offsetSeconds = 7200;
        o.offsetAfterSeconds = 3600;
        o.offsetChangeUtc = o.startUtc + 86400 + 3600;
    }
    const jxtest::LogTruth truth = jxtest::generateLogs(root.path(), o);
    const Report r = reportOf(root);

    EXPECT_EQ(r.stats.malformed, truth.malformed);
    EXPECT_EQ(r.first, truth.firstUtcMs);
    EXPECT_EQ(r.last, truth.lastUtcMs);
    EXPECT_FALSE(r.guessedTimes);
    ASSERT_TRUE(r.fullMwh);

    expectWithin1Percent(in(r, PowerState::ScreenOn).energyMwh, truth.screenOnDrainedMwh, "screen on");
    expectWithin1Percent(in(r, PowerState::ScreenOffAwake).energyMwh, truth.screenOffDrainedMwh, "screen off");
    expectWithin1Percent(in(r, PowerState::Suspended).energyMwh, truth.suspendedDrainedMwh, "suspended");
    expectWithin1Percent(in(r, PowerState::Charging).energyMwh, truth.chargedMwh, "charged");
    expectWithin1Percent(in(r, PowerState::Suspended).seconds, truth.suspendedSeconds, "time suspended");
    expectWithin1Percent(in(r, PowerState::ScreenOn).seconds, truth.dischargingScreenOnSeconds, "time screen on");
    expectWithin1Percent(in(r, PowerState::ScreenOffAwake).seconds, truth.dischargingScreenOffSeconds,
                         "time screen off");
    expectWithin1Percent(in(r, PowerState::Charging).seconds, truth.chargingSeconds, "time charging");
    EXPECT_EQ(r.unseenSeconds, 0);

    // Days by the log's local dates, drains split at midnight.
    ASSERT_EQ(r.days.size(), truth.drainedMwhByDay.size());
    for (const auto& [day, mwh] : truth.drainedMwhByDay) {
        ASSERT_TRUE(r.days.contains(day)) << day;
        EXPECT_NEAR(r.days.at(day).drainedMwh, mwh, std::max(mwh * 0.01, 1.0)) << day;
    }

    EXPECT_EQ(r.suspends, truth.sleeps);
    EXPECT_EQ(r.wakesByReason, truth.wakesByReason);
    std::vector<std::pair<std::string, std::uint64_t>> ranking(truth.wakesByReason.begin(), truth.wakesByReason.end());
    std::stable_sort(ranking.begin(), ranking.end(), [](auto& a, auto& b) { return a.second > b.second; });
    EXPECT_EQ(rankedWakes(r), ranking);
    // The generator's suspends lie minutes apart.
    EXPECT_EQ(r.wakeLoopCount, 0u);

    std::map<std::string, double> cpu, switches;
    for (const auto& [name, u] : r.processes) {
        cpu[name] = u.primary;
        switches[name] = u.secondary;
    }
    EXPECT_EQ(cpu, truth.cpuMsByProcess);
    EXPECT_EQ(switches, truth.ctxSwitchesByProcess);

    if (!c.newerTags) {
        // What an older daemon left: the suspends' drain from the readings either side.
        EXPECT_EQ(r.suspendRecords, 0u);
        EXPECT_TRUE(r.wakeupSources.empty());
        EXPECT_TRUE(r.devices.empty());
        EXPECT_TRUE(r.raplZones.empty());
        EXPECT_TRUE(r.thermal.empty());
        EXPECT_TRUE(r.wifi.empty());
        EXPECT_TRUE(r.series.temperatureC.empty());
        return;
    }
    EXPECT_EQ(r.suspendRecords, truth.sleeps);
    ASSERT_EQ(r.suspendDrainMw.count, truth.sleeps);
    EXPECT_NEAR(r.suspendDrainMw.mean(), 120, 0.5);
    std::map<std::string, double> sources, devices;
    for (const auto& [name, u] : r.wakeupSources) sources[name] = u.primary;
    for (const auto& [name, u] : r.devices) devices[name] = u.primary;
    EXPECT_EQ(sources, truth.wakeupActiveMsBySource);
    EXPECT_EQ(devices, truth.runtimeActiveMsByDevice);
    ASSERT_EQ(r.raplZones.size(), 1u);
    EXPECT_EQ(r.raplZones.begin()->second.primary, truth.packageEnergyUj);
    ASSERT_EQ(r.thermal.size(), 1u);
    EXPECT_EQ(r.thermal.begin()->second.max, truth.maxTemperature);
    EXPECT_EQ(r.wifi.size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Generated, GeneratedLogsTest,
                         ::testing::Values(GeneratedCase{"ThreeDays", 3, 60, true, false},
                                           GeneratedCase{"DaylightSavingNight", 3, 120, true, true},
                                           GeneratedCase{"OlderTagsOnly", 3, 60, false, false},
                                           GeneratedCase{"AWeekCoarse", 7, 300, true, false}),
                         [](const auto& info) { return std::string(info.param.name); });

// Folding buckets as the span grows keeps every millisecond and every reading.
TEST(ReportTimelineTest, FoldedSeriesKeepTheirTotals) {
    jxtest::TestRoot root;
    jxtest::LogGeneratorOptions o;
    o.days = 4;
    o.periodSeconds = 120;
    const jxtest::LogTruth truth = jxtest::generateLogs(root.path(), o);
    ReportOptions ro;
    ro.buckets = 64;
    const Report r = reportOf(root, ro);
    EXPECT_LE(r.bucketCount, 64u);
    EXPECT_GT(r.bucketCount, 32u);
    EXPECT_GE(r.seriesOrigin + r.bucketMs * static_cast<TimeMs>(r.bucketCount), r.last);
    const auto& s = r.series;
    EXPECT_NEAR(std::accumulate(s.suspended.ms.begin(), s.suspended.ms.end(), 0.0),
                in(r, PowerState::Suspended).seconds * 1000, 1);
    EXPECT_NEAR(std::accumulate(s.charging.ms.begin(), s.charging.ms.end(), 0.0),
                in(r, PowerState::Charging).seconds * 1000, 1);
    std::uint64_t readings = 0, wakes = 0;
    for (const Bucket& b : s.powerMw.buckets) readings += b.count;
    for (const auto& bucket : s.wakes.reasons)
        for (const auto& [reason, n] : bucket) wakes += n;
    EXPECT_EQ(readings, truth.perTag.at("BatteryPower"));
    EXPECT_EQ(wakes, truth.sleeps);
}

// A hand-written night of wakes: which of them make loops.
struct LoopCase {
    const char* name;
    std::vector<int> gapsSeconds;  // between one wake and the next
    std::uint64_t loops, wakesInLoops, longest;
};

class WakeLoopTest : public ::testing::TestWithParam<LoopCase> {};

TEST_P(WakeLoopTest, WakesCloserThanTheThresholdMakeOneLoop) {
    const LoopCase& c = GetParam();
    jxtest::TestRoot root;
    const std::int64_t start = 1792800000000;
    std::string text =
        jxtest::logLine(start, 0, "Joulix", "Version=6.01; File_GUID=00000000-0000-4000-8000-000000000001;") + "\n" +
        jxtest::logLine(start, 0, "Clock", "utc_s=1792800000; offset_s=0; zone=UTC;") + "\n";
    std::int64_t t = start + 1000;
    const char* const reasons[] = {"rtc_alarm", "wlan"};
    for (std::size_t i = 0; i <= c.gapsSeconds.size(); ++i) {
        text += jxtest::logLine(t - 500, 0, "Sleep", "event=did_sleep;") + "\n";
        text += jxtest::logLine(t, 0, "Wake", std::string("reason=") + reasons[i % 2] + ";") + "\n";
        if (i < c.gapsSeconds.size()) t += c.gapsSeconds[i] * 1000LL;
    }
    root.writeFile("/var/mobile/Library/Logs/CurrentJoulix.joulix", text);
    const Report r = reportOf(root);
    EXPECT_EQ(r.wakes, c.gapsSeconds.size() + 1);
    EXPECT_EQ(r.wakeLoopCount, c.loops);
    EXPECT_EQ(r.wakesInLoops, c.wakesInLoops);
    ASSERT_EQ(r.wakeLoops.size(), c.loops);
    if (c.loops) {
        EXPECT_EQ(r.wakeLoops.front().wakes, c.longest);
    }
}

INSTANTIATE_TEST_SUITE_P(Gaps, WakeLoopTest,
                         ::testing::Values(LoopCase{"NoneFarApart", {120, 300, 61}, 0, 0, 0},
                                           LoopCase{"OneLoopOfFour", {30, 30, 59}, 1, 4, 4},
                                           LoopCase{"TheThresholdItselfIsNoLoop", {60, 60}, 0, 0, 0},
                                           LoopCase{"TwoLoopsLongestFirst", {10, 200, 10, 10, 400, 5}, 3, 7, 3}),
                         [](const auto& info) { return std::string(info.param.name); });

// Only the baseband post-processor's records of the period count, and their verdicts.
TEST(ReportBasebandTest, VerdictsOfThePeriodFromTheMetricSpool) {
    jxtest::TestRoot root;
    jxtest::LogGeneratorOptions o;
    o.days = 1;
    o.periodSeconds = 300;
    const jxtest::LogTruth truth = jxtest::generateLogs(root.path(), o);
    const std::string in = std::to_string(truth.firstUtcMs + 3600000);
    root.writeFile("/var/mobile/Library/Logs/Metrics/metrics.jsonl",
                   "{\"component\":31,\"metric\":2031617,\"timestamp\":" + in +
                       ",\"larkinPriority\":1,\"armUtilityThresholdPoint\":100}\n"
                       "{\"component\":31,\"metric\":2031617,\"timestamp\":" +
                       in +
                       ",\"larkinPriority\":0,\"armUtilityThresholdPoint\":12}\n"
                       "{\"component\":31,\"metric\":99,\"timestamp\":" +
                       in +
                       "}\n"
                       "not json\n"
                       "{\"component\":31,\"metric\":2031617,\"timestamp\":1000,\"larkinPriority\":1}\n");
    ReportOptions ro;
    ro.metricsSpool = root("/var/mobile/Library/Logs/Metrics/metrics.jsonl");
    const Report r = reportOf(root, ro);
    ASSERT_EQ(r.baseband.size(), 2u);
    EXPECT_EQ(r.basebandIssues, 1u);
    EXPECT_EQ(r.baseband[1].thresholdPoint, 12);
    const auto j = reportJson(r, ro);
    EXPECT_EQ(j["baseband"][0]["verdict"], "potential issue");
    EXPECT_EQ(j["baseband"][1]["verdict"], "no issue");
}

// A range cuts the time and the counts at its edges.
TEST(ReportRangeTest, OnlyTheRangeIsCounted) {
    jxtest::TestRoot root;
    jxtest::LogGeneratorOptions o;
    o.days = 3;
    o.periodSeconds = 120;
    const jxtest::LogTruth truth = jxtest::generateLogs(root.path(), o);
    ReportOptions ro;
    ro.since = truth.firstUtcMs + 86400000;
    ro.until = *ro.since + 86400000;
    const Report day = reportOf(root, ro);
    EXPECT_GE(day.first, *ro.since);
    EXPECT_LE(day.last, *ro.until);
    EXPECT_NEAR(day.loggedSeconds() + day.unseenSeconds, 86400, 0.001);
    const Report all = reportOf(root);
    EXPECT_LT(day.suspends, all.suspends);
    EXPECT_GT(day.suspends, 0u);
}

}  // namespace
