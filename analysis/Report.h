// Where the power went: the figures of `joulixctl report`, computed from the logs in one
// streaming pass. Nothing kept grows with the span read: time series are folded into a
// fixed number of buckets (a bucket doubles its width when the span outgrows them),
// rankings are sums per name, and only the most draining suspends and the longest wake
// loops are kept one by one.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "analysis/LogReader.h"

namespace jx::analysis {

struct ReportOptions {
    std::optional<TimeMs> since, until;
    // Two wakes closer than this are one wake loop.
    double wakeLoopSeconds = 60;
    // An awake gap between two entries longer than this is time the logger did not see.
    double maxGapSeconds = 900;
    // Points of a timeline; between half this and this many are kept.
    std::size_t buckets = 720;
    // Rows of each ranking.
    std::size_t top = 10;
    // The metric spool of the baseband post-processor; empty: none read.
    std::string metricsSpool;
};

// Where the device spent its time and its battery's energy.
enum class PowerState { ScreenOn, ScreenOffAwake, Suspended, Charging };
inline constexpr int kPowerStates = 4;
const char* powerStateName(PowerState s);

struct StateFigures {
    double seconds = 0;
    double energyMwh = 0;  // drained (charged, for Charging)
    // mean power over the time in the state, mW; none without time in it
    std::optional<double> meanPowerMw() const;
};

struct DayFigures {
    double drainedMwh = 0, chargedMwh = 0;
    double seconds[kPowerStates] = {};
    std::uint64_t wakes = 0;
};

struct SuspendFigures {
    TimeMs began = 0;
    double seconds = 0;
    std::optional<double> drainMw;
    std::string wokenBy;
};

struct WakeLoop {
    TimeMs first = 0, last = 0;
    std::uint64_t wakes = 0;
    std::map<std::string, std::uint64_t> reasons;
};

// Sums per name for a ranking.
struct Usage {
    double primary = 0;    // the ranking's measure: active ms, CPU ms, energy µJ
    double secondary = 0;  // context switches, wake-ups, covered ms
    std::uint64_t samples = 0;
};

using UsageMap = std::map<std::string, Usage, std::less<>>;

struct Extremes {
    double min = 0, max = 0, sum = 0;
    std::uint64_t count = 0;
    TimeMs maxAt = 0;
    void add(double v, TimeMs t);
    double mean() const { return count ? sum / static_cast<double>(count) : 0; }
};

struct BasebandVerdict {
    TimeMs time = 0;
    std::optional<std::int64_t> priority;  // 0: no issue; 1: a potential issue
    std::optional<std::int64_t> thresholdPoint;
};

// The buckets of every timeline of a report: one origin, one width. When a time lies
// beyond the last bucket, the width doubles and every series folds pairs of buckets
// into one (onWiden), so the count stays between half the capacity and the capacity.
class Timeline {
public:
    explicit Timeline(std::size_t capacity = 720) : max_(capacity < 2 ? 2 : capacity) {}
    void setOrigin(TimeMs origin, TimeMs width);
    bool started() const { return width_ > 0; }
    TimeMs origin() const { return origin_; }
    TimeMs width() const { return width_; }
    // The bucket of t, widening the buckets until t fits; none before the origin.
    std::optional<std::size_t> slot(TimeMs t);
    std::size_t size() const { return used_; }
    std::size_t capacity() const { return max_; }
    std::function<void()> onWiden;

private:
    std::size_t max_;
    TimeMs origin_ = 0, width_ = 0;
    std::size_t used_ = 0;
};

struct Bucket {
    double min = 0, max = 0, sum = 0;
    std::uint32_t count = 0;
};

// One value series on a shared timeline.
struct ValueSeries {
    std::vector<Bucket> buckets;
    void add(std::size_t slot, double v);
    void merge();  // pairs of buckets into one, as the timeline widens
    bool empty() const;
};

// Milliseconds spent in a state per bucket.
struct StateSeries {
    std::vector<double> ms;
    void merge();
};

// The wakes in each bucket, by reason (the first few reasons; the rest as "other").
struct WakeSeries {
    std::vector<std::vector<std::pair<std::string, std::uint32_t>>> reasons;
    void add(std::size_t slot, const std::string& reason);
    void merge();
};

struct ReportSeries {
    ValueSeries levelPct, powerMw, cpuPct, packageMw, temperatureC, wifiSignalDbm;
    StateSeries screenOn, charging, suspended;
    WakeSeries wakes;
};

struct Report {
    TimeMs first = 0, last = 0;  // the span read
    std::int32_t offset = 0;     // the local zone's offset at the end, for showing times
    bool guessedTimes = false;
    ReadStats stats;
    std::uint64_t logs = 0;
    std::map<std::string, std::uint64_t, std::less<>> tags;  // entries per tag

    // Battery
    std::optional<double> fullMwh;  // the battery's full energy
    std::optional<double> lastLevelPct, lastEnergyMwh;
    std::optional<std::string> lastStatus;
    StateFigures states[kPowerStates];
    double unseenSeconds = 0;                // gaps in the log
    std::map<std::string, DayFigures> days;  // by local date "YYYY-MM-DD"

    // Suspend
    std::uint64_t suspends = 0;
    std::uint64_t suspendRecords = 0;  // [Suspend] entries: their drains are measured
    Extremes suspendDrainMw;
    std::vector<SuspendFigures> topSuspends;  // by drain, the most first
    std::map<std::string, std::uint64_t> wakesByReason;
    std::uint64_t wakes = 0;
    std::uint64_t wakeLoopCount = 0;  // loops found
    std::uint64_t wakesInLoops = 0;
    std::vector<WakeLoop> wakeLoops;  // the longest, by wakes

    // Who kept it awake
    UsageMap wakeupSources;  // active ms, wake-ups
    UsageMap processes;      // CPU ms, context switches
    UsageMap devices;        // runtime-PM active ms ("bus:device")
    UsageMap raplZones;      // energy µJ, covered ms ("zone name")

    std::map<std::string, Extremes> thermal;  // by zone (type)
    std::map<std::string, Extremes> wifi;     // signal dBm by interface
    std::vector<BasebandVerdict> baseband;
    std::uint64_t basebandIssues = 0;

    ReportSeries series;
    TimeMs seriesOrigin = 0, bucketMs = 0;
    std::size_t bucketCount = 0;

    double awakeSeconds() const;
    double loggedSeconds() const;
};

// Reads every record of the reader once.
Report computeReport(LogReader& reader, const ReportOptions& options);

// A ranking of a usage map: the first n by the primary measure, then by name.
std::vector<std::pair<std::string, Usage>> ranked(const UsageMap& usage, std::size_t n);
// Wake reasons by count, the most first, then by name.
std::vector<std::pair<std::string, std::uint64_t>> rankedWakes(const Report& report);

nlohmann::ordered_json reportJson(const Report& report, const ReportOptions& options);
std::string reportText(const Report& report, const ReportOptions& options);
std::string reportHtml(const Report& report, const ReportOptions& options);

}  // namespace jx::analysis
