#include "analysis/Report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>

namespace jx::analysis {

namespace {

constexpr std::size_t kTopSuspends = 50;
constexpr std::size_t kTopLoops = 20;
// Names beyond this many per ranking are summed as one, so that a log with a new
// process name in every sample cannot make the report grow.
constexpr std::size_t kMaxNames = 4096;
constexpr std::size_t kReasonsPerBucket = 4;

double hours(double seconds) { return seconds / 3600; }

std::string localDate(TimeMs utc, std::int32_t offset) {
    const TimeMs local = utc + offset * 1000LL;
    const std::int64_t days = local >= 0 ? local / 86400000 : (local - 86399999) / 86400000;
    int y;
    unsigned m, d;
    civilFromDays(days, &y, &m, &d);
    char out[16];
    std::snprintf(out, sizeof out, "%04d-%02u-%02u", y, m, d);
    return out;
}

Usage& usageOf(UsageMap& usage, std::string_view name) {
    auto it = usage.find(name);
    if (it != usage.end()) return it->second;
    if (usage.size() >= kMaxNames) return usage["(other)"];
    return usage[std::string(name)];
}

class Builder {
public:
    Builder(const ReportOptions& o) : o_(o), timeline_(o.buckets) {
        timeline_.onWiden = [this] {
            ReportSeries& s = r_.series;
            for (ValueSeries* v : {&s.levelPct, &s.powerMw, &s.cpuPct, &s.packageMw, &s.temperatureC, &s.wifiSignalDbm})
                v->merge();
            for (StateSeries* v : {&s.screenOn, &s.charging, &s.suspended}) v->merge();
            s.wakes.merge();
        };
    }

    bool record(const LogRecord& rec) {
        if (o_.until && rec.time > *o_.until) {
            // The state in force runs on to the range's end.
            advanceTo(*o_.until);
            return false;
        }
        offset_ = rec.offset;
        const bool inRange = !o_.since || rec.time >= *o_.since;
        if (inRange) {
            if (!timeline_.started()) {
                timeline_.setOrigin(o_.since.value_or(rec.time), 10000);
                r_.first = rec.time;
            }
            r_.last = std::max(r_.last, rec.time);
            if (auto it = r_.tags.find(rec.tag); it != r_.tags.end())
                ++it->second;
            else
                r_.tags.emplace(std::string(rec.tag), 1);
            if (rec.guessed) r_.guessedTimes = true;
            // The reader hands each file's records with that file's source.
            if (rec.source && rec.source->path != sourcePath_) {
                sourcePath_ = rec.source->path;
                ++r_.logs;
            }
        }
        advanceTo(rec.time);
        const std::string_view tag = rec.tag;
        if (tag == "BatteryPower")
            batteryPower(rec, inRange);
        else if (tag == "Battery")
            battery(rec, inRange);
        else if (tag == "BatteryHealth") {
            if (auto full = rec.number("energy_full_mwh")) fullMwh_ = *full;
        } else if (tag == "Charger") {
            if (auto online = rec.field("online")) chargerOnline_ = *online == "YES";
        } else if (tag == "Display") {
            if (auto active = rec.field("active")) screenOn_ = *active == "YES";
        } else if (tag == "Sleep")
            sleep(rec, inRange);
        else if (tag == "Wake")
            wake(rec, inRange);
        else if (tag == "Suspend")
            suspendRecord(rec, inRange);
        else if (tag == "Log") {
            // A daemon start: its first process sample counts since each process began.
            if (rec.field("state") == "booting") skipProcessSample_ = true;
        } else if (!inRange) {
            return true;
        } else if (tag == "Process")
            process(rec);
        else if (tag == "CpuIdle") {
            if (rec.field("state") == "active")
                if (auto pct = rec.number("residency_pct")) {
                    cpuIdleSeen_ = true;
                    add(r_.series.cpuPct, rec.time, *pct);
                }
        } else if (tag == "WakeupSource") {
            if (rec.field("scope") != "interval") return true;
            if (auto name = rec.field("name")) {
                Usage& u = usageOf(r_.wakeupSources, *name);
                u.primary += rec.number("active_ms").value_or(0);
                u.secondary += rec.number("wakeups").value_or(0);
                ++u.samples;
            }
        } else if (tag == "RuntimePM") {
            auto device = rec.field("device");
            if (!device) return true;
            Usage& u = usageOf(r_.devices, std::string(rec.field("bus").value_or("?")) + ":" + std::string(*device));
            u.primary += rec.number("active_ms").value_or(0);
            ++u.samples;
        } else if (tag == "Powercap")
            powercap(rec);
        else if (tag == "Thermal") {
            auto t = rec.number("temperature");
            if (!t) return true;
            std::string zone(rec.field("zone").value_or("?"));
            if (auto type = rec.field("type")) zone += " (" + std::string(*type) + ")";
            if (r_.thermal.size() < kMaxNames || r_.thermal.contains(zone)) r_.thermal[zone].add(*t, rec.time);
            add(r_.series.temperatureC, rec.time, *t);
        } else if (tag == "WiFi") {
            auto signal = rec.number("signal");
            if (!signal) return true;
            const std::string name(rec.field("interface").value_or("?"));
            if (r_.wifi.size() < kMaxNames || r_.wifi.contains(name)) r_.wifi[name].add(*signal, rec.time);
            add(r_.series.wifiSignalDbm, rec.time, *signal);
        }
        return true;
    }

    Report finish() {
        flushProcessBatch();
        closeLoop();
        std::sort(topSuspends_.begin(), topSuspends_.end(), byDrain);
        r_.topSuspends = std::move(topSuspends_);
        std::sort(loops_.begin(), loops_.end(), byWakes);
        r_.wakeLoops = std::move(loops_);
        r_.fullMwh = fullMwh_;
        r_.lastStatus = status_;
        r_.offset = offset_;
        r_.seriesOrigin = timeline_.origin();
        r_.bucketMs = timeline_.width();
        r_.bucketCount = timeline_.size();
        ReportSeries& s = r_.series;
        for (ValueSeries* v : {&s.levelPct, &s.powerMw, &s.cpuPct, &s.packageMw, &s.temperatureC, &s.wifiSignalDbm})
            v->buckets.resize(r_.bucketCount);
        for (StateSeries* v : {&s.screenOn, &s.charging, &s.suspended}) v->ms.resize(r_.bucketCount);
        s.wakes.reasons.resize(r_.bucketCount);
        if (!o_.metricsSpool.empty()) readVerdicts();
        return std::move(r_);
    }

private:
    static bool byDrain(const SuspendFigures& a, const SuspendFigures& b) {
        return a.drainMw.value_or(-1) > b.drainMw.value_or(-1);
    }
    static bool byWakes(const WakeLoop& a, const WakeLoop& b) { return a.wakes > b.wakes; }

    PowerState state() const {
        if (suspended_) return PowerState::Suspended;
        if (charging()) return PowerState::Charging;
        return screenOn_ ? PowerState::ScreenOn : PowerState::ScreenOffAwake;
    }
    bool charging() const { return status_ ? *status_ == "Charging" : chargerOnline_; }

    void add(ValueSeries& series, TimeMs t, double v) {
        if (auto slot = timeline_.slot(t)) series.add(*slot, v);
    }

    // Milliseconds of [from, to) into a state series, bucket by bucket.
    void addState(StateSeries& series, TimeMs from, TimeMs to) {
        if (!timeline_.slot(to - 1)) return;  // widens first, so the slots below stay put
        while (from < to) {
            auto slot = timeline_.slot(from);
            if (!slot) return;
            const TimeMs end = std::min(to, timeline_.origin() + static_cast<TimeMs>(*slot + 1) * timeline_.width());
            if (series.ms.size() <= *slot) series.ms.resize(*slot + 1);
            series.ms[*slot] += static_cast<double>(end - from);
            from = end;
        }
    }

    // The time since the last entry, in the state in force, at the power last read.
    void advanceTo(TimeMs t) {
        TimeMs from = cursor_.value_or(t);
        cursor_ = std::max(from, t);
        if (o_.since) from = std::max(from, *o_.since);
        if (o_.until) t = std::min(t, *o_.until);
        if (t <= from) return;
        const PowerState s = state();
        const double seconds = static_cast<double>(t - from) / 1000;
        if (s != PowerState::Suspended && seconds > o_.maxGapSeconds) {
            r_.unseenSeconds += seconds;
            return;
        }
        StateFigures& f = r_.states[static_cast<int>(s)];
        f.seconds += seconds;
        // While suspended the energy comes from the [Suspend] entry or the readings either side.
        const bool powerKnown = power_ && s != PowerState::Suspended && t - powerAt_ <= o_.maxGapSeconds * 2000;
        const double p = powerKnown ? *power_ : 0;
        if (powerKnown) f.energyMwh += (s == PowerState::Charging ? p : -p) * seconds / 3600;
        spreadOverDays(from, t, s, powerKnown ? -p * seconds / 3600 : 0);
        switch (s) {
            case PowerState::Suspended:
                addState(r_.series.suspended, from, t);
                break;
            case PowerState::Charging:
                addState(r_.series.charging, from, t);
                break;
            case PowerState::ScreenOn:
                addState(r_.series.screenOn, from, t);
                break;
            case PowerState::ScreenOffAwake:
                break;
        }
        if (s == PowerState::Charging && screenOn_) addState(r_.series.screenOn, from, t);
    }

    // The local day of t; the last one looked up is kept, as most spans fall in it.
    DayFigures& dayOf(TimeMs t) {
        const TimeMs local = t + offset_ * 1000LL;
        const std::int64_t day = local >= 0 ? local / 86400000 : (local - 86399999) / 86400000;
        if (!day_ || day != dayIndex_) {
            dayIndex_ = day;
            day_ = &r_.days[localDate(t, offset_)];
        }
        return *day_;
    }

    // A span's time and energy (positive: drained) over the local days it touches.
    void spreadOverDays(TimeMs from, TimeMs to, std::optional<PowerState> s, double drainedMwh) {
        const double total = static_cast<double>(to - from);
        if (total <= 0) return;
        for (TimeMs at = from; at < to;) {
            const TimeMs local = at + offset_ * 1000LL;
            const TimeMs midnight = (local / 86400000 + 1) * 86400000 - offset_ * 1000LL;
            const TimeMs end = std::min(to, midnight);
            DayFigures& d = dayOf(at);
            const double share = static_cast<double>(end - at) / total;
            if (s) d.seconds[static_cast<int>(*s)] += static_cast<double>(end - at) / 1000;
            if (drainedMwh > 0)
                d.drainedMwh += drainedMwh * share;
            else
                d.chargedMwh -= drainedMwh * share;
            at = end;
        }
    }

    void batteryPower(const LogRecord& rec, bool inRange) {
        powerSeen_ = true;
        if (auto p = rec.number("power_mw")) {
            power_ = *p;
            powerAt_ = rec.time;
            if (inRange) add(r_.series.powerMw, rec.time, *p);
        }
        if (auto status = rec.field("status")) status_ = std::string(*status);
        if (auto e = rec.number("energy_mwh")) energyReading(rec, *e, inRange);
    }

    void battery(const LogRecord& rec, bool inRange) {
        if (auto full = rec.number("energy_full"); full && !fullMwh_) fullMwh_ = *full;
        if (auto status = rec.field("status")) status_ = std::string(*status);
        if (auto level = rec.number("level")) {
            levelSeen_ = true;
            r_.lastLevelPct = *level;
            if (inRange) add(r_.series.levelPct, rec.time, *level);
        }
        // An older log without [BatteryPower]: the power from the change of energy,
        // taken as the power of the interval that follows.
        if (auto e = rec.number("energy"); e && !powerSeen_) {
            if (energy_ && rec.time > energyAt_) {
                power_ = (*e - *energy_) * 3600000 / static_cast<double>(rec.time - energyAt_);
                powerAt_ = rec.time;
                if (inRange) add(r_.series.powerMw, rec.time, *power_);
            }
            energyReading(rec, *e, inRange);
        }
    }

    void energyReading(const LogRecord& rec, double energy, bool inRange) {
        if (pendingSleep_ && energyAtSleep_) {
            // No [Suspend] said what the suspend cost: the readings either side do.
            const double mwh = std::max(0.0, *energyAtSleep_ - energy);
            suspendEnergy(*pendingSleep_, pendingWake_, mwh, pendingReason_, inRange);
        }
        pendingSleep_.reset();
        energy_ = energy;
        energyAt_ = rec.time;
        r_.lastEnergyMwh = energy;
        if (!levelSeen_ && fullMwh_ && *fullMwh_ > 0 && inRange)
            add(r_.series.levelPct, rec.time, energy * 100 / *fullMwh_);
    }

    void suspendEnergy(TimeMs began, TimeMs ended, double mwh, const std::string& reason, bool inRange) {
        if (!inRange) return;
        r_.states[static_cast<int>(PowerState::Suspended)].energyMwh += mwh;
        spreadOverDays(began, std::max(ended, began + 1), std::nullopt, mwh);
        const double seconds = static_cast<double>(ended - began) / 1000;
        SuspendFigures f{began, seconds, seconds > 0 ? std::optional(mwh * 3600 / seconds) : std::nullopt, reason};
        if (f.drainMw) r_.suspendDrainMw.add(*f.drainMw, began);
        keepSuspend(std::move(f));
    }

    void keepSuspend(SuspendFigures f) {
        auto cmp = [](const SuspendFigures& a, const SuspendFigures& b) { return byDrain(a, b); };
        topSuspends_.push_back(std::move(f));
        std::push_heap(topSuspends_.begin(), topSuspends_.end(), cmp);
        if (topSuspends_.size() > kTopSuspends) {
            std::pop_heap(topSuspends_.begin(), topSuspends_.end(), cmp);
            topSuspends_.pop_back();
        }
    }

    void sleep(const LogRecord& rec, bool inRange) {
        suspended_ = true;
        sleepAt_ = rec.time;
        energyAtSleep_.reset();
        if (energy_ && power_ && rec.time - energyAt_ <= o_.maxGapSeconds * 1000)
            energyAtSleep_ = *energy_ + *power_ * static_cast<double>(rec.time - powerAt_) / 3600000;
        else if (energy_)
            energyAtSleep_ = energy_;
        if (inRange) ++r_.suspends;
    }

    void wake(const LogRecord& rec, bool inRange) {
        const bool wasAsleep = suspended_;
        suspended_ = false;
        const std::string reason(rec.field("reason").value_or("unknown"));
        if (wasAsleep) {
            pendingSleep_ = sleepAt_;
            pendingWake_ = rec.time;
            pendingReason_ = reason;
        }
        if (!inRange) return;
        ++r_.wakes;
        if (r_.wakesByReason.size() < kMaxNames || r_.wakesByReason.contains(reason)) ++r_.wakesByReason[reason];
        ++dayOf(rec.time).wakes;
        if (auto slot = timeline_.slot(rec.time)) r_.series.wakes.add(*slot, reason);
        // A wake soon after the one before continues a loop.
        if (lastWake_ && rec.time - *lastWake_ < o_.wakeLoopSeconds * 1000) {
            if (loop_.wakes == 0) {
                loop_.first = *lastWake_;
                loop_.wakes = 1;
                ++loop_.reasons[lastReason_];
            }
            loop_.last = rec.time;
            ++loop_.wakes;
            if (loop_.reasons.size() < kReasonsPerBucket * 4 || loop_.reasons.contains(reason)) ++loop_.reasons[reason];
        } else {
            closeLoop();
        }
        lastWake_ = rec.time;
        lastReason_ = reason;
    }

    void closeLoop() {
        if (loop_.wakes >= 2) {
            ++r_.wakeLoopCount;
            r_.wakesInLoops += loop_.wakes;
            loops_.push_back(std::move(loop_));
            std::push_heap(loops_.begin(), loops_.end(), byWakes);
            if (loops_.size() > kTopLoops) {
                std::pop_heap(loops_.begin(), loops_.end(), byWakes);
                loops_.pop_back();
            }
        }
        loop_ = WakeLoop{};
    }

    void suspendRecord(const LogRecord& rec, bool inRange) {
        // The suspend it accounts for is now measured: no estimate from the readings.
        pendingSleep_.reset();
        if (!inRange) return;
        ++r_.suspendRecords;
        if (auto n = rec.number("suspends"); n && *n > 1) r_.suspends += static_cast<std::uint64_t>(*n) - 1;
        const double suspended = rec.number("suspended_s").value_or(0);
        const std::optional<double> drain = rec.number("drain_mw"), span = rec.number("span_s");
        const std::optional<double> began = rec.number("began_utc_s");
        const TimeMs beganMs = began ? static_cast<TimeMs>(std::llround(*began * 1000)) : sleepAt_;
        const std::string wokenBy(rec.field("woken_by").value_or("unknown"));
        const bool loginManager = rec.field("accounting") != "suspend_stats";
        double mwh = 0;
        if (drain && span) {
            // The login manager's drain spans the suspend; the kernel count's spans the
            // time since the last look, awake time included, so only its suspended part counts.
            mwh = *drain * (loginManager ? *span : suspended) / 3600;
        }
        if (!loginManager && suspended > 0) {
            // The sleep and wake were written after the fact: the suspended time was
            // taken as awake, and is moved back.
            StateFigures& awake = r_.states[static_cast<int>(PowerState::ScreenOffAwake)];
            const double moved = std::min(awake.seconds, suspended);
            awake.seconds -= moved;
            if (power_) awake.energyMwh = std::max(0.0, awake.energyMwh + *power_ * moved / 3600);
            r_.states[static_cast<int>(PowerState::Suspended)].seconds += moved;
        }
        r_.states[static_cast<int>(PowerState::Suspended)].energyMwh += mwh;
        if (mwh > 0) spreadOverDays(beganMs, std::max(rec.time, beganMs + 1), std::nullopt, mwh);
        SuspendFigures f{beganMs, rec.number("duration_s").value_or(suspended), drain, wokenBy};
        if (drain) r_.suspendDrainMw.add(*drain, beganMs);
        keepSuspend(std::move(f));
    }

    void process(const LogRecord& rec) {
        if (skipProcessSample_) {
            inSkippedSample_ = true;
            return;
        }
        if (rec.time - batchAt_ > 1000) {
            flushProcessBatch();
            batchAt_ = rec.time;
        }
        const double cpu = rec.number("cpu_ms").value_or(0);
        batchCpuMs_ += cpu;
        auto name = rec.field("name");
        if (!name) return;
        Usage& u = usageOf(r_.processes, *name);
        u.primary += cpu;
        u.secondary += rec.number("ctx_switches").value_or(0);
        ++u.samples;
    }

    // One sample's CPU time of the top processes over the time since the sample before.
    void flushProcessBatch() {
        if (batchAt_ == INT64_MIN / 2) return;
        if (prevBatchAt_ && !cpuIdleSeen_) {
            const double ms = static_cast<double>(batchAt_ - *prevBatchAt_);
            if (ms > 0 && ms <= o_.maxGapSeconds * 1000) add(r_.series.cpuPct, batchAt_, batchCpuMs_ * 100 / ms);
        }
        prevBatchAt_ = batchAt_;
        batchCpuMs_ = 0;
    }

    void powercap(const LogRecord& rec) {
        std::string zone(rec.field("zone").value_or("?"));
        const std::string_view name = rec.field("name").value_or("");
        if (!name.empty()) zone += " " + std::string(name);
        Usage& u = usageOf(r_.raplZones, zone);
        u.primary += rec.number("energy_uj").value_or(0);
        u.secondary += rec.number("interval_ms").value_or(0);
        ++u.samples;
        if (name.starts_with("package"))
            if (auto p = rec.number("power_mw")) add(r_.series.packageMw, rec.time, *p);
    }

    void readVerdicts() {
        std::ifstream in(o_.metricsSpool);
        for (std::string line; std::getline(in, line);) {
            const nlohmann::json j = nlohmann::json::parse(line, nullptr, false);
            if (!j.is_object() || !j.contains("metric") || !j["metric"].is_number() ||
                j["metric"].get<std::int64_t>() != 0x1F0001 || !j.contains("timestamp") || !j["timestamp"].is_number())
                continue;
            BasebandVerdict v;
            v.time = j["timestamp"].get<TimeMs>();
            if (o_.since && v.time < *o_.since) continue;
            if (o_.until && v.time > *o_.until) continue;
            if (!o_.since && !o_.until && r_.first && (v.time < r_.first || v.time > r_.last + 86400000)) continue;
            if (j.contains("larkinPriority") && j["larkinPriority"].is_number())
                v.priority = j["larkinPriority"].get<std::int64_t>();
            if (j.contains("armUtilityThresholdPoint") && j["armUtilityThresholdPoint"].is_number())
                v.thresholdPoint = j["armUtilityThresholdPoint"].get<std::int64_t>();
            if (v.priority.value_or(0) > 0) ++r_.basebandIssues;
            r_.baseband.push_back(v);
            if (r_.baseband.size() > 1000) r_.baseband.erase(r_.baseband.begin());
        }
    }

    const ReportOptions& o_;
    Timeline timeline_;
    Report r_;
    std::string sourcePath_;
    DayFigures* day_ = nullptr;
    std::int64_t dayIndex_ = 0;
    std::int32_t offset_ = 0;
    std::optional<TimeMs> cursor_;
    bool screenOn_ = false, chargerOnline_ = false, suspended_ = false;
    std::optional<std::string> status_;
    std::optional<double> fullMwh_;
    std::optional<double> power_, energy_;
    TimeMs powerAt_ = 0, energyAt_ = 0;
    bool powerSeen_ = false, levelSeen_ = false, cpuIdleSeen_ = false;
    TimeMs sleepAt_ = 0;
    std::optional<double> energyAtSleep_;
    std::optional<TimeMs> pendingSleep_;
    TimeMs pendingWake_ = 0;
    std::string pendingReason_;
    std::optional<TimeMs> lastWake_;
    std::string lastReason_;
    WakeLoop loop_;
    std::vector<WakeLoop> loops_;
    std::vector<SuspendFigures> topSuspends_;
    bool skipProcessSample_ = false, inSkippedSample_ = false;
    TimeMs batchAt_ = INT64_MIN / 2;
    std::optional<TimeMs> prevBatchAt_;
    double batchCpuMs_ = 0;

public:
    // Any entry other than a process ends the skipped first sample.
    void endSkippedSample(const LogRecord& rec) {
        if (inSkippedSample_ && rec.tag != "Process") skipProcessSample_ = inSkippedSample_ = false;
    }
};

}  // namespace

const char* powerStateName(PowerState s) {
    switch (s) {
        case PowerState::ScreenOn:
            return "screen_on";
        case PowerState::ScreenOffAwake:
            return "screen_off_awake";
        case PowerState::Suspended:
            return "suspended";
        case PowerState::Charging:
            return "charging";
    }
    return "?";
}

std::optional<double> StateFigures::meanPowerMw() const {
    if (seconds <= 0) return std::nullopt;
    return energyMwh * 3600 / seconds;
}

void Extremes::add(double v, TimeMs t) {
    if (!count || v < min) min = v;
    if (!count || v > max) {
        max = v;
        maxAt = t;
    }
    sum += v;
    ++count;
}

void Timeline::setOrigin(TimeMs origin, TimeMs width) {
    origin_ = origin;
    width_ = std::max<TimeMs>(1, width);
    used_ = 0;
}

std::optional<std::size_t> Timeline::slot(TimeMs t) {
    if (!started() || t < origin_) return std::nullopt;
    while (static_cast<std::uint64_t>((t - origin_) / width_) >= max_) {
        width_ *= 2;
        used_ = (used_ + 1) / 2;
        if (onWiden) onWiden();
    }
    const auto s = static_cast<std::size_t>((t - origin_) / width_);
    used_ = std::max(used_, s + 1);
    return s;
}

void ValueSeries::add(std::size_t slot, double v) {
    if (buckets.size() <= slot) buckets.resize(slot + 1);
    Bucket& b = buckets[slot];
    if (!b.count || v < b.min) b.min = v;
    if (!b.count || v > b.max) b.max = v;
    b.sum += v;
    ++b.count;
}

void ValueSeries::merge() {
    std::vector<Bucket> out((buckets.size() + 1) / 2);
    for (std::size_t i = 0; i < buckets.size(); ++i) {
        const Bucket& b = buckets[i];
        if (!b.count) continue;
        Bucket& o = out[i / 2];
        o.min = o.count ? std::min(o.min, b.min) : b.min;
        o.max = o.count ? std::max(o.max, b.max) : b.max;
        o.sum += b.sum;
        o.count += b.count;
    }
    buckets = std::move(out);
}

bool ValueSeries::empty() const {
    return std::none_of(buckets.begin(), buckets.end(), [](const Bucket& b) { return b.count > 0; });
}

void StateSeries::merge() {
    std::vector<double> out((ms.size() + 1) / 2);
    for (std::size_t i = 0; i < ms.size(); ++i) out[i / 2] += ms[i];
    ms = std::move(out);
}

void WakeSeries::add(std::size_t slot, const std::string& reason) {
    if (reasons.size() <= slot) reasons.resize(slot + 1);
    auto& list = reasons[slot];
    for (auto& [name, n] : list)
        if (name == reason) {
            ++n;
            return;
        }
    if (list.size() < kReasonsPerBucket) {
        list.emplace_back(reason, 1);
        return;
    }
    list.back().first = "other";
    ++list.back().second;
}

void WakeSeries::merge() {
    std::vector<std::vector<std::pair<std::string, std::uint32_t>>> out((reasons.size() + 1) / 2);
    for (std::size_t i = 0; i < reasons.size(); ++i)
        for (auto& [name, n] : reasons[i]) {
            auto& list = out[i / 2];
            auto it = std::find_if(list.begin(), list.end(), [&](const auto& p) { return p.first == name; });
            if (it != list.end())
                it->second += n;
            else if (list.size() < kReasonsPerBucket)
                list.emplace_back(name, n);
            else {
                list.back().first = "other";
                list.back().second += n;
            }
        }
    reasons = std::move(out);
}

double Report::loggedSeconds() const {
    double s = 0;
    for (const StateFigures& f : states) s += f.seconds;
    return s;
}

double Report::awakeSeconds() const {
    return loggedSeconds() - states[static_cast<int>(PowerState::Suspended)].seconds;
}

Report computeReport(LogReader& reader, const ReportOptions& options) {
    Builder b(options);
    reader.read([&](const LogRecord& rec) {
        b.endSkippedSample(rec);
        return b.record(rec);
    });
    Report r = b.finish();
    r.stats = reader.stats();
    return r;
}

std::vector<std::pair<std::string, Usage>> ranked(const UsageMap& usage, std::size_t n) {
    std::vector<std::pair<std::string, Usage>> out(usage.begin(), usage.end());
    std::stable_sort(out.begin(), out.end(),
                     [](const auto& a, const auto& b) { return a.second.primary > b.second.primary; });
    if (out.size() > n) out.resize(n);
    return out;
}

std::vector<std::pair<std::string, std::uint64_t>> rankedWakes(const Report& report) {
    std::vector<std::pair<std::string, std::uint64_t>> out(report.wakesByReason.begin(), report.wakesByReason.end());
    std::stable_sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
    return out;
}

// ---- JSON ----

namespace {

using Json = nlohmann::ordered_json;

Json optionalNumber(const std::optional<double>& v, double scale = 1) {
    return v ? Json(std::round(*v * scale * 1000) / 1000) : Json(nullptr);
}

double round3(double v) { return std::round(v * 1000) / 1000; }

// Hours the battery lasts (or takes to fill) at a power, from an energy.
std::optional<double> hoursAt(std::optional<double> energyMwh, std::optional<double> powerMw) {
    if (!energyMwh || !powerMw || *powerMw <= 0) return std::nullopt;
    return *energyMwh / *powerMw;
}

}  // namespace

nlohmann::ordered_json reportJson(const Report& r, const ReportOptions& o) {
    Json j;
    j["first"] = r.first ? Json(isoUtc(r.first)) : Json(nullptr);
    j["last"] = r.last ? Json(isoUtc(r.last)) : Json(nullptr);
    j["hours"] = round3(hours(static_cast<double>(r.last - r.first) / 1000));
    j["logs"] = r.logs;
    j["times_guessed"] = r.guessedTimes;
    j["malformed_lines"] = r.stats.malformed;
    j["unreadable_files"] = r.stats.unreadable;
    Json entries = Json::object();
    for (const auto& [tag, n] : r.tags) entries[tag] = n;
    j["entries_per_tag"] = std::move(entries);

    Json battery;
    battery["full_mwh"] = optionalNumber(r.fullMwh);
    battery["level_pct"] = optionalNumber(r.lastLevelPct);
    battery["energy_mwh"] = optionalNumber(r.lastEnergyMwh);
    double drained = 0, charged = 0;
    Json states = Json::object();
    for (int i = 0; i < kPowerStates; ++i) {
        const StateFigures& f = r.states[i];
        const auto s = static_cast<PowerState>(i);
        (s == PowerState::Charging ? charged : drained) += f.energyMwh;
        Json st;
        st["hours"] = round3(hours(f.seconds));
        st[s == PowerState::Charging ? "charged_mwh" : "drained_mwh"] = round3(f.energyMwh);
        const std::optional<double> mw = f.meanPowerMw();
        st[s == PowerState::Charging ? "charge_mw" : "drain_mw"] = optionalNumber(mw);
        st[s == PowerState::Charging ? "charge_pct_per_hour" : "drain_pct_per_hour"] =
            mw && r.fullMwh && *r.fullMwh > 0 ? Json(round3(*mw * 100 / *r.fullMwh)) : Json(nullptr);
        // From full to empty (or empty to full) at this state's mean power.
        st[s == PowerState::Charging ? "hours_to_full" : "hours_to_empty"] = optionalNumber(hoursAt(r.fullMwh, mw));
        states[powerStateName(s)] = std::move(st);
    }
    battery["drained_mwh"] = round3(drained);
    battery["charged_mwh"] = round3(charged);
    const double dischargingSeconds = r.loggedSeconds() - r.states[static_cast<int>(PowerState::Charging)].seconds;
    const std::optional<double> meanDrain =
        dischargingSeconds > 0 ? std::optional(drained * 3600 / dischargingSeconds) : std::nullopt;
    battery["drain_mw"] = optionalNumber(meanDrain);
    battery["drain_pct_per_hour"] =
        meanDrain && r.fullMwh && *r.fullMwh > 0 ? Json(round3(*meanDrain * 100 / *r.fullMwh)) : Json(nullptr);
    // From the last reading, at the mean drain (or charge) of the period.
    const bool chargingNow = r.lastStatus == "Charging";
    battery["hours_to_empty"] = chargingNow ? Json(nullptr) : optionalNumber(hoursAt(r.lastEnergyMwh, meanDrain));
    battery["hours_to_full"] =
        chargingNow && r.fullMwh && r.lastEnergyMwh
            ? optionalNumber(hoursAt(*r.fullMwh - *r.lastEnergyMwh,
                                     r.states[static_cast<int>(PowerState::Charging)].meanPowerMw()))
            : Json(nullptr);
    battery["unseen_hours"] = round3(hours(r.unseenSeconds));
    battery["states"] = std::move(states);
    Json days = Json::array();
    for (const auto& [day, d] : r.days) {
        Json dj;
        dj["date"] = day;
        dj["drained_mwh"] = round3(d.drainedMwh);
        dj["charged_mwh"] = round3(d.chargedMwh);
        for (int i = 0; i < kPowerStates; ++i)
            dj[std::string(powerStateName(static_cast<PowerState>(i))) + "_hours"] = round3(hours(d.seconds[i]));
        dj["wakes"] = d.wakes;
        days.push_back(std::move(dj));
    }
    battery["days"] = std::move(days);
    j["battery"] = std::move(battery);

    Json suspend;
    const double logged = r.loggedSeconds();
    suspend["count"] = r.suspends;
    suspend["measured"] = r.suspendRecords;
    suspend["suspended_share"] =
        logged > 0 ? round3(r.states[static_cast<int>(PowerState::Suspended)].seconds / logged) : 0.0;
    suspend["drain_mw"] = r.suspendDrainMw.count ? Json({{"min", round3(r.suspendDrainMw.min)},
                                                         {"mean", round3(r.suspendDrainMw.mean())},
                                                         {"max", round3(r.suspendDrainMw.max)}})
                                                 : Json(nullptr);
    Json tops = Json::array();
    for (const SuspendFigures& f : r.topSuspends)
        tops.push_back({{"began", isoUtc(f.began)},
                        {"seconds", round3(f.seconds)},
                        {"drain_mw", optionalNumber(f.drainMw)},
                        {"woken_by", f.wokenBy}});
    suspend["top_drains"] = std::move(tops);
    const double spanHours = hours(static_cast<double>(r.last - r.first) / 1000);
    suspend["wakes"] = r.wakes;
    suspend["wakes_per_hour"] = spanHours > 0 ? round3(static_cast<double>(r.wakes) / spanHours) : 0.0;
    Json reasons = Json::array();
    for (const auto& [reason, n] : rankedWakes(r))
        reasons.push_back({{"reason", reason},
                           {"wakes", n},
                           {"per_hour", spanHours > 0 ? round3(static_cast<double>(n) / spanHours) : 0.0}});
    suspend["wake_reasons"] = std::move(reasons);
    Json loops = Json::array();
    for (const WakeLoop& l : r.wakeLoops) {
        Json lr = Json::object();
        for (const auto& [reason, n] : l.reasons) lr[reason] = n;
        loops.push_back({{"first", isoUtc(l.first)}, {"last", isoUtc(l.last)}, {"wakes", l.wakes}, {"reasons", lr}});
    }
    suspend["wake_loop_seconds"] = o.wakeLoopSeconds;
    suspend["wake_loops"] = r.wakeLoopCount;
    suspend["wakes_in_loops"] = r.wakesInLoops;
    suspend["longest_wake_loops"] = std::move(loops);
    j["suspend"] = std::move(suspend);

    const double awakeMs = r.awakeSeconds() * 1000;
    auto table = [&](const UsageMap& usage, const char* primary, const char* secondary, bool share) {
        Json t = Json::array();
        for (const auto& [name, u] : ranked(usage, o.top)) {
            Json row;
            row["name"] = name;
            row[primary] = round3(u.primary);
            if (secondary) row[secondary] = round3(u.secondary);
            if (share) row["awake_share"] = awakeMs > 0 ? Json(round3(u.primary / awakeMs)) : Json(nullptr);
            t.push_back(std::move(row));
        }
        return t;
    };
    Json awake;
    awake["awake_hours"] = round3(hours(r.awakeSeconds()));
    awake["wakeup_sources"] = table(r.wakeupSources, "active_ms", "wakeups", true);
    awake["processes"] = table(r.processes, "cpu_ms", "ctx_switches", true);
    awake["devices"] = table(r.devices, "active_ms", nullptr, true);
    Json rapl = Json::array();
    for (const auto& [name, u] : ranked(r.raplZones, o.top))
        rapl.push_back({{"zone", name},
                        {"energy_j", round3(u.primary / 1e6)},
                        {"mean_mw", u.secondary > 0 ? Json(round3(u.primary / u.secondary)) : Json(nullptr)}});
    awake["rapl"] = std::move(rapl);
    j["awake"] = std::move(awake);

    auto extremes = [](const std::map<std::string, Extremes>& m, const char* key) {
        Json t = Json::array();
        for (const auto& [name, e] : m)
            t.push_back({{key, name},
                         {"min", round3(e.min)},
                         {"mean", round3(e.mean())},
                         {"max", round3(e.max)},
                         {"max_at", isoUtc(e.maxAt)}});
        return t;
    };
    j["thermal"] = extremes(r.thermal, "zone");
    j["wifi_signal_dbm"] = extremes(r.wifi, "interface");
    Json bb = Json::array();
    for (const BasebandVerdict& v : r.baseband)
        bb.push_back({{"time", isoUtc(v.time)},
                      {"verdict", !v.priority       ? "unknown"
                                  : *v.priority > 0 ? "potential issue"
                                                    : "no issue"},
                      {"priority", v.priority ? Json(*v.priority) : Json(nullptr)},
                      {"threshold_point", v.thresholdPoint ? Json(*v.thresholdPoint) : Json(nullptr)}});
    j["baseband"] = std::move(bb);
    return j;
}

// ---- Text ----

namespace {

std::string fmt(const char* format, auto... args) {
    char buffer[512];
    std::snprintf(buffer, sizeof buffer, format, args...);
    return buffer;
}

std::string hoursText(double h) {
    if (h < 1) return fmt("%.0f min", h * 60);
    return fmt("%.1f h", h);
}

std::string numberOr(const Json& v, const char* format, const char* none = "-") {
    return v.is_number() ? fmt(format, v.get<double>()) : none;
}

}  // namespace

std::string reportText(const Report& r, const ReportOptions& o) {
    const Json j = reportJson(r, o);
    std::string out;
    if (!r.first) return "no log entries in the period\n";
    out += fmt("joulix report: %s to %s (%.1f h, %llu log(s))%s\n", j["first"].get<std::string>().c_str(),
               j["last"].get<std::string>().c_str(), j["hours"].get<double>(), static_cast<unsigned long long>(r.logs),
               r.guessedTimes ? ", times partly guessed" : "");

    const Json& b = j["battery"];
    out += "\nBattery\n";
    out += fmt("  drained %.0f mWh, charged %.0f mWh; mean drain %s (%s)\n", b["drained_mwh"].get<double>(),
               b["charged_mwh"].get<double>(), numberOr(b["drain_mw"], "%.0f mW").c_str(),
               numberOr(b["drain_pct_per_hour"], "%.2f %%/h").c_str());
    if (b["hours_to_empty"].is_number())
        out += "  time to empty from the last reading: " + hoursText(b["hours_to_empty"].get<double>()) + "\n";
    if (b["hours_to_full"].is_number())
        out += "  time to full from the last reading: " + hoursText(b["hours_to_full"].get<double>()) + "\n";
    out += fmt("  %-18s %9s %11s %10s %9s %14s\n", "state", "time", "energy", "power", "%/h", "empty/full in");
    for (int i = 0; i < kPowerStates; ++i) {
        const auto s = static_cast<PowerState>(i);
        const Json& st = b["states"][powerStateName(s)];
        const bool c = s == PowerState::Charging;
        const Json& h = st[c ? "hours_to_full" : "hours_to_empty"];
        out += fmt("  %-18s %9s %7.0f mWh %10s %9s %14s\n", powerStateName(s),
                   hoursText(st["hours"].get<double>()).c_str(), st[c ? "charged_mwh" : "drained_mwh"].get<double>(),
                   numberOr(st[c ? "charge_mw" : "drain_mw"], "%.0f mW").c_str(),
                   numberOr(st[c ? "charge_pct_per_hour" : "drain_pct_per_hour"], "%.2f").c_str(),
                   h.is_number() ? hoursText(h.get<double>()).c_str() : "-");
    }
    if (!b["days"].empty()) {
        out += fmt("  %-12s %10s %10s %9s %9s %7s\n", "day", "drained", "charged", "screen", "suspend", "wakes");
        for (const Json& d : b["days"])
            out += fmt("  %-12s %6.0f mWh %6.0f mWh %9s %9s %7llu\n", d["date"].get<std::string>().c_str(),
                       d["drained_mwh"].get<double>(), d["charged_mwh"].get<double>(),
                       hoursText(d["screen_on_hours"].get<double>()).c_str(),
                       hoursText(d["suspended_hours"].get<double>()).c_str(),
                       static_cast<unsigned long long>(d["wakes"].get<std::uint64_t>()));
    }

    const Json& s = j["suspend"];
    out += "\nSuspend\n";
    out += fmt("  %llu suspend(s), %.1f %% of the time suspended, %llu wake(s), %.2f per hour\n",
               static_cast<unsigned long long>(r.suspends), s["suspended_share"].get<double>() * 100,
               static_cast<unsigned long long>(r.wakes), s["wakes_per_hour"].get<double>());
    if (s["drain_mw"].is_object())
        out += fmt("  drain while suspended: min %.0f, mean %.0f, max %.0f mW (%llu measured)\n",
                   s["drain_mw"]["min"].get<double>(), s["drain_mw"]["mean"].get<double>(),
                   s["drain_mw"]["max"].get<double>(), static_cast<unsigned long long>(r.suspendDrainMw.count));
    for (const Json& w : s["wake_reasons"])
        out += fmt("  %-24s %6llu wakes %7.2f /h\n", w["reason"].get<std::string>().c_str(),
                   static_cast<unsigned long long>(w["wakes"].get<std::uint64_t>()), w["per_hour"].get<double>());
    out += fmt("  wake loops (wakes under %.0f s apart): %llu, %llu wakes\n", o.wakeLoopSeconds,
               static_cast<unsigned long long>(r.wakeLoopCount), static_cast<unsigned long long>(r.wakesInLoops));

    const Json& a = j["awake"];
    auto section = [&](const char* title, const Json& rows, const char* primary, const char* unit, double scale,
                       const char* secondary) {
        if (rows.empty()) return;
        out += fmt("  %s\n", title);
        for (const Json& row : rows) {
            std::string line = fmt("    %-32s %10.1f %s", row["name"].get<std::string>().substr(0, 32).c_str(),
                                   row[primary].get<double>() / scale, unit);
            if (row.contains("awake_share") && row["awake_share"].is_number())
                line += fmt(" %6.1f %% of awake", row["awake_share"].get<double>() * 100);
            if (secondary && row.contains(secondary))
                line += fmt(" %10.0f %s", row[secondary].get<double>(), secondary);
            out += line + "\n";
        }
    };
    out += fmt("\nWho kept it awake (%s awake)\n", hoursText(a["awake_hours"].get<double>()).c_str());
    section("wake-up sources by active time", a["wakeup_sources"], "active_ms", "s", 1000, "wakeups");
    section("processes by CPU time", a["processes"], "cpu_ms", "s", 1000, "ctx_switches");
    section("devices by runtime-PM active time", a["devices"], "active_ms", "s", 1000, nullptr);
    if (!a["rapl"].empty()) {
        out += "  RAPL energy per zone\n";
        for (const Json& z : a["rapl"])
            out += fmt("    %-32s %10.1f J %s\n", z["zone"].get<std::string>().c_str(), z["energy_j"].get<double>(),
                       numberOr(z["mean_mw"], "%.0f mW mean").c_str());
    }
    if (!j["thermal"].empty()) {
        out += "\nThermal peaks\n";
        for (const Json& t : j["thermal"])
            out += fmt("  %-32s max %.1f °C at %s, mean %.1f °C\n", t["zone"].get<std::string>().c_str(),
                       t["max"].get<double>(), t["max_at"].get<std::string>().c_str(), t["mean"].get<double>());
    }
    if (!j["wifi_signal_dbm"].empty()) {
        out += "\nWi-Fi signal\n";
        for (const Json& w : j["wifi_signal_dbm"])
            out += fmt("  %-12s min %.0f, mean %.1f, max %.0f dBm\n", w["interface"].get<std::string>().c_str(),
                       w["min"].get<double>(), w["mean"].get<double>(), w["max"].get<double>());
    }
    if (!j["baseband"].empty()) {
        out += fmt("\nBaseband verdicts: %zu, %llu potential issue(s)\n", j["baseband"].size(),
                   static_cast<unsigned long long>(r.basebandIssues));
        for (const Json& v : j["baseband"])
            out += fmt("  %s  %s\n", v["time"].get<std::string>().c_str(), v["verdict"].get<std::string>().c_str());
    }
    if (r.stats.malformed)
        out += fmt("\n%llu malformed line(s) skipped\n", static_cast<unsigned long long>(r.stats.malformed));
    return out;
}

}  // namespace jx::analysis
