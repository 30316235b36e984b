// The power logs as a trace in the trace-event JSON format (the object form,
// {"traceEvents":[…]}), which trace viewers and trace processors open: one counter
// track per numeric series, slices for the periods the screen was on, the system
// suspended and the battery charging, instants for wakes and the log's own events.
//
// The trace is written as the records stream past, one event object at a time: memory
// holds the open periods and one number per series, never the trace. Events of one
// track come out in time order; a period is written when it closes (as a complete
// event with its duration), so the file as a whole is not sorted, which the format
// allows. Times are microseconds since 1970 UTC.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>

#include <nlohmann/json.hpp>

#include "analysis/LogReader.h"

namespace jx::analysis {

struct TraceStats {
    std::uint64_t events = 0;  // metadata included
    std::uint64_t counters = 0, slices = 0, instants = 0;
    std::uint64_t suspends = 0, wakes = 0, screenOn = 0, charging = 0;
    std::uint64_t outOfOrder = 0;  // counter samples older than their series' last one, left out
};

class TraceExporter {
public:
    // The range limits what is written; periods open at an edge are cut there.
    TraceExporter(std::ostream& out, std::optional<TimeMs> since = std::nullopt,
                  std::optional<TimeMs> until = std::nullopt);
    // Each record of the logs, in their order.
    void add(const LogRecord& record);
    // Closes the periods still open and the JSON; false when the stream failed.
    bool finish();
    const TraceStats& stats() const { return stats_; }

    enum Track { kLog, kScreen, kSuspend, kCharging, kTrackCount };

private:
    struct Suspend {
        std::optional<TimeMs> began;
        std::optional<TimeMs> ended;
        bool woken = false;
        TimeMs wokeAt = 0;
        std::string reason;
        nlohmann::ordered_json args = nlohmann::ordered_json::object();  // the [Suspend] entry's fields
    };
    struct Period {
        TimeMs began = 0;
        nlohmann::ordered_json args = nlohmann::ordered_json::object();
    };

    bool inRange(TimeMs t) const;
    void write(const nlohmann::ordered_json& event);
    void name(Track track);
    void counter(TimeMs t, const std::string& series, const char* unit, std::optional<double> value);
    void flushCarried();
    void slice(Track track, const char* what, TimeMs began, TimeMs ended, nlohmann::ordered_json args);
    void instant(Track track, const std::string& what, TimeMs t, nlohmann::ordered_json args, bool processWide);
    void sleep(TimeMs t);
    void wake(TimeMs t, std::string_view reason);
    void suspendEntry(const LogRecord& r);
    void flushSuspend(TimeMs edge);
    void batteryStatus(TimeMs t, std::string_view battery, std::string_view status);
    void screen(TimeMs t, bool on, std::optional<double> brightness);
    TimeMs edge() const;

    std::ostream& out_;
    std::optional<TimeMs> since_, until_;
    bool first_ = true;
    bool carriedOut_ = false;
    std::optional<TimeMs> lastSeen_;
    std::array<bool, kTrackCount> named_{};
    std::array<std::optional<TimeMs>, kTrackCount> trackLast_{};
    // Per series: the last time written, and before since the last value seen.
    std::map<std::string, TimeMs, std::less<>> seriesLast_;
    std::map<std::string, std::pair<const char*, double>, std::less<>> carried_;
    std::optional<Suspend> suspend_;
    std::optional<TimeMs> lastSuspendEnd_;
    std::optional<Period> screen_, charging_;
    std::map<std::string, bool, std::less<>> batteryCharging_;
    TraceStats stats_;
};

// Reads the logs and writes their trace; false when the output failed.
bool exportTrace(LogReader& reader, std::ostream& out, std::optional<TimeMs> since, std::optional<TimeMs> until,
                 TraceStats* stats = nullptr);

}  // namespace jx::analysis
