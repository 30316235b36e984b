#include "analysis/TraceExport.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace jx::analysis {

namespace {

using Json = nlohmann::ordered_json;

// One process holds every track: the device the logs came from.
constexpr int kPid = 1;
// Counters belong to the process; they are given its main thread, which also carries
// the log's own events.
constexpr int kTids[TraceExporter::kTrackCount] = {1, 2, 3, 4};
constexpr const char* kTrackNames[TraceExporter::kTrackCount] = {"log", "screen", "suspend", "charging"};

// The [Suspend] entry follows its [Wake] within milliseconds (one logger writes both);
// a wake older than this has no such entry coming.
constexpr TimeMs kSuspendEntryWindowMs = 10000;

std::int64_t micros(TimeMs t) { return t * 1000; }

std::optional<double> finite(std::optional<double> v) {
    if (v && !std::isfinite(*v)) return std::nullopt;
    return v;
}

// A field as an argument: a number when it reads as one (an integer as an integer),
// else its text.
Json fieldValue(std::string_view text) {
    const char* first = text.data();
    const char* last = first + text.size();
    if (!text.empty() && *first == '+') ++first;
    if (!text.empty()) {
        std::int64_t n = 0;
        if (auto [end, ec] = std::from_chars(first, last, n); ec == std::errc() && end == last) return n;
        double v = 0;
        if (auto [end, ec] = std::from_chars(first, last, v); ec == std::errc() && end == last && std::isfinite(v))
            return v;
    }
    return std::string(text);
}

std::optional<TimeMs> utcSecondsField(const LogRecord& r, std::string_view name) {
    std::optional<double> s = finite(r.number(name));
    if (!s) return std::nullopt;
    return static_cast<TimeMs>(std::llround(*s * 1000));
}

}  // namespace

TraceExporter::TraceExporter(std::ostream& out, std::optional<TimeMs> since, std::optional<TimeMs> until)
    : out_(out), since_(since), until_(until) {
    Json head;
    head["displayTimeUnit"] = "ms";
    head["otherData"] = {{"source", "joulix power logs"},
                         {"clock", "ts in microseconds since 1970-01-01 00:00 UTC"},
                         {"since", since ? isoUtc(*since) : ""},
                         {"until", until ? isoUtc(*until) : ""}};
    // The object is streamed: its fixed members first, then the array, filled one
    // event at a time.
    std::string text = head.dump();
    text.pop_back();
    out_ << text << ",\"traceEvents\":[";
    write({{"ph", "M"},
           {"name", "process_name"},
           {"pid", kPid},
           {"tid", kTids[kLog]},
           {"ts", 0},
           {"args", {{"name", "joulix"}}}});
}

void TraceExporter::write(const Json& event) {
    // A log's bytes need not be UTF-8 (a process or zone name may hold anything).
    out_ << (first_ ? "\n" : ",\n") << event.dump(-1, ' ', false, Json::error_handler_t::replace);
    first_ = false;
    ++stats_.events;
}

bool TraceExporter::inRange(TimeMs t) const { return (!since_ || t >= *since_) && (!until_ || t <= *until_); }

void TraceExporter::name(Track track) {
    if (named_[track]) return;
    named_[track] = true;
    write({{"ph", "M"},
           {"name", "thread_name"},
           {"pid", kPid},
           {"tid", kTids[track]},
           {"ts", 0},
           {"args", {{"name", kTrackNames[track]}}}});
    write({{"ph", "M"},
           {"name", "thread_sort_index"},
           {"pid", kPid},
           {"tid", kTids[track]},
           {"ts", 0},
           {"args", {{"sort_index", static_cast<int>(track)}}}});
}

// One series is one counter event name with one argument, its unit: trace viewers
// draw the arguments of one name stacked, which would add up unrelated quantities.
void TraceExporter::counter(TimeMs t, const std::string& series, const char* unit, std::optional<double> value) {
    value = finite(value);
    if (!value) return;
    if (since_ && t < *since_) {
        // The value in force when the range begins is drawn from its start.
        carried_[series] = {unit, *value};
        return;
    }
    auto last = seriesLast_.find(series);
    if (last != seriesLast_.end() && t < last->second) {
        ++stats_.outOfOrder;
        return;
    }
    seriesLast_.insert_or_assign(last, series, t);
    write({{"ph", "C"},
           {"name", series},
           {"pid", kPid},
           {"tid", kTids[kLog]},
           {"ts", micros(t)},
           {"args", {{unit, *value}}}});
    ++stats_.counters;
}

void TraceExporter::flushCarried() {
    if (carriedOut_) return;
    carriedOut_ = true;
    for (const auto& [series, value] : carried_) counter(*since_, series, value.first, value.second);
    carried_.clear();
}

void TraceExporter::slice(Track track, const char* what, TimeMs began, TimeMs ended, Json args) {
    if (since_) began = std::max(began, *since_);
    if (until_) ended = std::min(ended, *until_);
    // A track's events stay in time order and its slices never overlap.
    if (trackLast_[track]) began = std::max(began, *trackLast_[track]);
    if (ended < began) return;
    name(track);
    Json e = {{"ph", "X"},           {"name", what},        {"cat", kTrackNames[track]},   {"pid", kPid},
              {"tid", kTids[track]}, {"ts", micros(began)}, {"dur", micros(ended - began)}};
    if (!args.empty()) e["args"] = std::move(args);
    write(e);
    trackLast_[track] = ended;
    ++stats_.slices;
}

void TraceExporter::instant(Track track, const std::string& what, TimeMs t, Json args, bool processWide) {
    if (!inRange(t)) return;
    if (trackLast_[track]) t = std::max(t, *trackLast_[track]);
    name(track);
    Json e = {{"ph", "i"},           {"name", what},    {"cat", kTrackNames[track]},   {"pid", kPid},
              {"tid", kTids[track]}, {"ts", micros(t)}, {"s", processWide ? "p" : "t"}};
    if (!args.empty()) e["args"] = std::move(args);
    write(e);
    trackLast_[track] = t;
    ++stats_.instants;
}

void TraceExporter::sleep(TimeMs t) {
    if (suspend_ && suspend_->woken) flushSuspend(t);
    if (!suspend_) {
        suspend_.emplace();
        suspend_->began = t;
    }
}

void TraceExporter::wake(TimeMs t, std::string_view reason) {
    if (suspend_ && suspend_->woken) flushSuspend(t);
    if (!suspend_) suspend_.emplace();  // the sleep lies before the logs we have
    suspend_->woken = true;
    suspend_->wokeAt = t;
    suspend_->reason = reason;
}

// The sleep logger's account of the suspend it has just seen end: its own begin and
// end (the sleep line of a suspend counted after the fact is written at the wake), the
// drain and what woke the device.
void TraceExporter::suspendEntry(const LogRecord& r) {
    std::optional<TimeMs> began = utcSecondsField(r, "began_utc_s"), ended = utcSecondsField(r, "ended_utc_s");
    if (!suspend_) {
        // Already written from its sleep and wake lines, which came long before.
        if (lastSuspendEnd_ && ended && *ended <= *lastSuspendEnd_ + kSuspendEntryWindowMs) return;
        suspend_.emplace();
    }
    if (began) suspend_->began = began;
    if (ended) suspend_->ended = ended;
    for (const LogField& f : *r.fields)
        if (f.name != "began_utc_s" && f.name != "ended_utc_s")
            suspend_->args[std::string(f.name)] = fieldValue(f.value);
    flushSuspend(r.time);
}

void TraceExporter::flushSuspend(TimeMs edge) {
    Suspend s = std::move(*suspend_);
    suspend_.reset();
    if (s.began) {
        const TimeMs ended = s.ended ? *s.ended : s.woken ? s.wokeAt : edge;
        if (s.woken && !s.args.contains("woken_by")) s.args["woken_by"] = s.reason;
        const std::uint64_t before = stats_.slices;
        slice(kSuspend, "suspend", *s.began, std::max(ended, *s.began), std::move(s.args));
        stats_.suspends += stats_.slices - before;
        lastSuspendEnd_ = ended;
    }
    if (s.woken) {
        const std::uint64_t before = stats_.instants;
        instant(kSuspend, "wake", s.wokeAt, {{"reason", s.reason}}, false);
        stats_.wakes += stats_.instants - before;
    }
}

void TraceExporter::batteryStatus(TimeMs t, std::string_view battery, std::string_view status) {
    batteryCharging_.insert_or_assign(std::string(battery), status == "Charging");
    const bool any = std::any_of(batteryCharging_.begin(), batteryCharging_.end(), [](auto& b) { return b.second; });
    if (any && !charging_) {
        charging_ = Period{t, {{"battery", std::string(battery)}}};
    } else if (!any && charging_) {
        const std::uint64_t before = stats_.slices;
        slice(kCharging, "charging", charging_->began, t, std::move(charging_->args));
        stats_.charging += stats_.slices - before;
        charging_.reset();
    }
}

void TraceExporter::screen(TimeMs t, bool on, std::optional<double> brightness) {
    if (on && !screen_) {
        screen_ = Period{t, Json::object()};
        if (brightness) screen_->args["brightness"] = *brightness;
    } else if (!on && screen_) {
        const std::uint64_t before = stats_.slices;
        slice(kScreen, "screen on", screen_->began, t, std::move(screen_->args));
        stats_.screenOn += stats_.slices - before;
        screen_.reset();
    }
}

void TraceExporter::add(const LogRecord& r) {
    if (until_ && r.time > *until_) return;
    lastSeen_ = std::max(lastSeen_.value_or(r.time), r.time);
    if (!since_ || r.time >= *since_) flushCarried();
    if (suspend_ && suspend_->woken && r.time > suspend_->wokeAt + kSuspendEntryWindowMs) flushSuspend(r.time);

    const std::string_view tag = r.tag;
    const std::string entity(r.field("name").value_or(""));
    if (tag == "BatteryPower") {
        counter(r.time, "battery " + entity + " power", "mW", r.number("power_mw"));
        counter(r.time, "battery " + entity + " energy", "mWh", r.number("energy_mwh"));
        if (auto status = r.field("status")) batteryStatus(r.time, entity, *status);
    } else if (tag == "Battery") {
        counter(r.time, "battery " + entity + " level", "%", r.number("level"));
        if (auto status = r.field("status")) batteryStatus(r.time, entity, *status);
    } else if (tag == "Powercap") {
        counter(r.time, "rapl " + entity + " power", "mW", r.number("power_mw"));
    } else if (tag == "CpuIdle") {
        counter(r.time, "cpu " + std::string(r.field("state").value_or("?")) + " residency", "%",
                r.number("residency_pct"));
    } else if (tag == "CpuFrequency") {
        counter(r.time, "cpu frequency", "MHz", r.number("mean_mhz"));
    } else if (tag == "Thermal") {
        counter(r.time, "thermal " + std::string(r.field("zone").value_or("?")) + " temperature", "C",
                r.number("temperature"));
    } else if (tag == "Cooling") {
        counter(r.time, "cooling " + std::string(r.field("device").value_or("?")) + " state", "state",
                r.number("state"));
    } else if (tag == "WiFi") {
        const std::string interface(r.field("interface").value_or("?"));
        counter(r.time, "wifi " + interface + " signal", "dBm", r.number("signal"));
        counter(r.time, "wifi " + interface + " bitrate", "Mbit/s", r.number("bitrate"));
    } else if (tag == "Display") {
        const std::optional<double> brightness = finite(r.number("brightness"));
        counter(r.time, "display brightness", "fraction", brightness);
        if (auto active = r.field("active")) screen(r.time, *active == "YES", brightness);
    } else if (tag == "Sleep") {
        sleep(r.time);
    } else if (tag == "Wake") {
        wake(r.time, r.field("reason").value_or("unknown"));
    } else if (tag == "Suspend") {
        suspendEntry(r);
    } else if (tag == "Joulix" || tag == "Log") {
        // The log's own fields are names and versions ("6.01"), kept as written.
        Json args = Json::object();
        for (const LogField& f : *r.fields) args[std::string(f.name)] = std::string(f.value);
        const std::string state(r.field("state").value_or(""));
        // A new start of the daemon: a suspend still open ended without its wake being
        // written (the device went down or the daemon was stopped).
        if (state == "booting" && suspend_) flushSuspend(r.time);
        instant(kLog, tag == "Joulix" ? std::string("log start") : "log " + state, r.time, std::move(args), true);
    }
}

// Where periods still open at the end are cut: the range's end when one was asked
// for (a device still suspended when its log was taken has written nothing since), else
// the last entry of the logs.
TimeMs TraceExporter::edge() const {
    if (until_) return *until_;
    return lastSeen_.value_or(since_.value_or(0));
}

bool TraceExporter::finish() {
    const TimeMs end = edge();
    if (!since_ || end >= *since_) flushCarried();
    if (suspend_) flushSuspend(end);
    if (screen_) screen(end, false, std::nullopt);
    if (charging_) {
        const std::uint64_t before = stats_.slices;
        slice(kCharging, "charging", charging_->began, end, std::move(charging_->args));
        stats_.charging += stats_.slices - before;
        charging_.reset();
    }
    out_ << "\n]}\n";
    out_.flush();
    return static_cast<bool>(out_);
}

bool exportTrace(LogReader& reader, std::ostream& out, std::optional<TimeMs> since, std::optional<TimeMs> until,
                 TraceStats* stats) {
    TraceExporter exporter(out, since, until);
    reader.setRange(since, until);
    reader.read([&](const LogRecord& r) {
        exporter.add(r);
        return static_cast<bool>(out);
    });
    const bool ok = exporter.finish();
    if (stats) *stats = exporter.stats();
    return ok;
}

}  // namespace jx::analysis
