#include "tests/support/LogGenerator.h"

#include <zlib.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>

namespace jxtest {

namespace {

// A double as the log writes it: its shortest exact form, rounded to a tenth.
std::string num(double v) {
    char out[32];
    return std::string(out, std::to_chars(out, out + sizeof out, std::round(v * 10) / 10).ptr);
}

constexpr double kSuspendedMw = 120;  // what a suspended device draws
constexpr double kFullMwh = 50000;
constexpr std::int64_t kDayMs = 86400000;

std::string localStamp(std::int64_t utcMs, std::int32_t offset, const char* format) {
    const std::time_t t = static_cast<std::time_t>(utcMs / 1000 + offset);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char out[40];
    std::strftime(out, sizeof out, format, &tm);
    return out;
}

struct Simulation {
    const LogGeneratorOptions& o;
    LogTruth& truth;
    std::string root;
    std::mt19937 rng{1};
    std::string text{}, name{};  // the log being written, its rolled name
    int index = -1;
    bool changed = false, screenOn = false, charging = false;
    double energy = kFullMwh * 0.8, lastPower = 0;
    std::optional<bool> shownDisplay{}, shownCharger{};

    unsigned pick(unsigned n) { return static_cast<unsigned>(rng() % n); }

    std::int32_t offsetAt(std::int64_t utcMs) const {
        return o.offsetChangeUtc && utcMs >= *o.offsetChangeUtc * 1000 ? o.offsetAfterSeconds : o.offsetSeconds;
    }

    void put(std::int64_t utcMs, const std::string& tag, const std::string& body) {
        if (o.clockEntries && o.offsetChangeUtc && !changed && utcMs >= *o.offsetChangeUtc * 1000) {
            changed = true;
            clock(utcMs, "offset_change");
        }
        text += logLine(utcMs, offsetAt(utcMs), tag, body) + '\n';
        ++truth.records;
        ++truth.perTag[tag];
        if (truth.records == 1) truth.firstUtcMs = utcMs;
        truth.lastUtcMs = std::max(truth.lastUtcMs, utcMs);
    }

    void clock(std::int64_t utcMs, const char* reason) {
        char body[160];
        std::snprintf(body, sizeof body, "utc_s=%lld.%03lld; offset_s=%d; zone=Europe/Berlin; reason=%s;",
                      static_cast<long long>(utcMs / 1000), static_cast<long long>(utcMs % 1000), offsetAt(utcMs),
                      reason);
        put(utcMs, "Clock", body);
    }

    void startLog(std::int64_t utcMs) {
        char id[48];
        std::snprintf(id, sizeof id, "5A1C%04X-77B2-4E0A-9D1F-3C6B2E8F%04X", ++index,
                      static_cast<unsigned>(rng() & 0xFFFF));
        const std::string stamp = localStamp(utcMs, offsetAt(utcMs), "%Y-%m-%d-%H%M%S");
        name = "JX_" + stamp + "_" + id + ".joulix";
        changed = o.offsetChangeUtc && utcMs >= *o.offsetChangeUtc * 1000;
        put(utcMs, "Joulix", "Version=6.01; Build=12 (6.1.0-27); Timestamp=" + stamp + "; File_GUID=" + id + ";");
        put(utcMs + 1, "Log", "state=new;");
        if (o.clockEntries) clock(utcMs + 2, "new_log");
        put(utcMs + 3, "BatteryHealth", "name=BAT0; energy_full_mwh=50000; health_pct=96.2;");
        shownDisplay.reset();
        shownCharger.reset();
    }

    void writeFile(const std::string& path, bool gzip) {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        bool ok = gzip || static_cast<bool>(std::ofstream(path, std::ios::binary) << text);
        if (gzip) {
            gzFile gz = gzopen(path.c_str(), "wb9");
            ok = gz && gzwrite(gz, text.data(), static_cast<unsigned>(text.size())) == static_cast<int>(text.size());
            ok = gz && gzclose(gz) == Z_OK && ok;
        }
        if (!ok) throw std::runtime_error("cannot write " + path);
        truth.files.push_back(path);
    }

    void finishLog(bool current) {
        const std::string logs = root + "/var/mobile/Library/Logs";
        ++truth.logs;
        truth.bytes += text.size();
        if (current) writeFile(logs + "/CurrentJoulix.joulix", false);
        if (!current && index >= o.archivedOnly) writeFile(logs + "/Faultkeeper/" + name, false);
        if (!current && (index < o.archivedOnly || o.archiveRolled))
            writeFile(logs + "/JXArchive/" + name + ".gz", true);
        text.clear();
    }

    // One awake sample at t: what the loggers write, and the interval after it.
    void sample(std::int64_t t, bool night) {
        if (!charging && energy < kFullMwh * 0.2) charging = true;
        if (charging && energy > kFullMwh * 0.9) charging = false;
        screenOn = !night && (pick(10) == 0 ? !screenOn : screenOn);
        const double power = charging ? 8000.0 + pick(400) : screenOn ? -(2400.0 + pick(300)) : -(850.0 + pick(100));
        const std::string status = charging ? "Charging" : "Discharging";
        std::int64_t at = t;
        put(at++, "Battery",
            "name=BAT0; level=" + std::to_string(std::lround(energy * 100 / kFullMwh)) +
                "; energy=" + std::to_string(std::llround(energy)) + "; energy_full=50000; status=" + status + ";");
        lastPower = power;
        put(at++, "BatteryPower",
            "name=BAT0; power_mw=" + num(power) + "; energy_mwh=" + num(energy) + "; status=" + status + ";");
        if (shownCharger != charging)
            put(at++, "Charger", std::string("name=AC; online=") + (charging ? "YES" : "NO") + ";");
        if (shownDisplay != screenOn)
            put(at++, "Display", screenOn ? "active=YES; brightness=0.6;" : "active=NO; brightness=0;");
        shownCharger = charging;
        shownDisplay = screenOn;
        static const char* const names[] = {"firefox", "Xorg", "pipewire", "NetworkManager", "joulix", "systemd"};
        for (int p = 0; p < o.processes; ++p) {
            const std::string n = names[p % 6];
            const unsigned cpu = pick(screenOn ? 4000 : 400), switches = pick(5000);
            truth.cpuMsByProcess[n] += cpu;
            truth.usage["switches " + n] += switches;
            put(at++, "Process",
                "pid=" + std::to_string(1000 + p) + "; name=" + n + "; cpu_ms=" + std::to_string(cpu) +
                    "; ctx_switches=" + std::to_string(switches) + "; command=/usr/bin/" + n + " --daemon;");
        }
        if (o.newerTags) newerSample(at);
        awake(t, power);
    }

    // One period awake from t at a power, as the last sample left the device.
    void awake(std::int64_t t, double power) {
        advance(power, o.periodSeconds, t,
                charging   ? nullptr
                : screenOn ? &truth.screenOnDrainedMwh
                           : &truth.screenOffDrainedMwh);
        (charging   ? truth.chargingSeconds
         : screenOn ? truth.dischargingScreenOnSeconds
                    : truth.dischargingScreenOffSeconds) += o.periodSeconds;
    }

    // What the measuring, thermal and Wi-Fi loggers add to an awake sample.
    void newerSample(std::int64_t& at) {
        const unsigned tickMs = o.periodSeconds * 1000;
        for (const char* source : {"wlan", "rtc_alarm"}) {
            const unsigned active = pick(2000);
            truth.usage[std::string("source ") + source] += active;
            put(at++, "WakeupSource",
                std::string("scope=interval; name=") + source + "; active_ms=" + std::to_string(active) +
                    "; wakeups=2;");
        }
        const long long uj = 1000LL * (screenOn ? 1500 + pick(500) : 300 + pick(100)) * o.periodSeconds;
        truth.usage["rapl intel-rapl:0 package-0"] += static_cast<double>(uj);
        put(at++, "Powercap",
            "zone=intel-rapl:0; name=package-0; energy_uj=" + std::to_string(uj) +
                "; interval_ms=" + std::to_string(tickMs) + "; power_mw=" + num(uj / 1000.0 / o.periodSeconds) + ";");
        for (const char* device : {"0000:00:14.0", "1-2"}) {
            const unsigned active = pick(tickMs);
            truth.usage[std::string("device pci:") + device] += active;
            put(at++, "RuntimePM",
                std::string("bus=pci; device=") + device + "; active_ms=" + std::to_string(active) + ";");
        }
        const double temperature = (screenOn ? 55 : 42) + pick(150) / 10.0;
        double& highest = truth.usage["thermal thermal_zone0 (x86_pkg_temp)"];
        highest = std::max(highest, temperature);
        put(at++, "Thermal", "zone=thermal_zone0; type=x86_pkg_temp; temperature=" + num(temperature) + ";");
        put(at++, "WiFi", "interface=wlan0; signal=-" + std::to_string(50 + pick(30)) + "; bitrate=144;");
    }

    // The battery's energy over an interval beginning at startMs, in the truth's sums;
    // a drain also in *drainedIn, and by local day, split at midnight in the offset of the start.
    void advance(double powerMw, double seconds, std::int64_t startMs, double* drainedIn) {
        const double mwh = powerMw * seconds / 3600;
        energy += mwh;
        (mwh < 0 ? truth.drainedMwh : truth.chargedMwh) += std::fabs(mwh);
        if (mwh >= 0) return;
        if (drainedIn) *drainedIn -= mwh;
        const std::int64_t endMs = startMs + static_cast<std::int64_t>(seconds * 1000),
                           offsetMs = offsetAt(startMs) * 1000LL;
        for (std::int64_t from = startMs, to; from < endMs; from = to) {
            to = std::min(endMs, ((from + offsetMs) / kDayMs + 1) * kDayMs - offsetMs);
            truth.drainedMwhByDay[localStamp(from, offsetAt(startMs), "%Y-%m-%d")] -= powerMw * (to - from) / 3600000.0;
        }
    }
};

}  // namespace

std::string logLine(std::int64_t utcMs, std::int32_t offsetSeconds, const std::string& tag, const std::string& body) {
    char ms[8];
    std::snprintf(ms, sizeof ms, ".%03lld", static_cast<long long>(utcMs % 1000));
    return localStamp(utcMs, offsetSeconds, "%m/%d/%Y %H:%M:%S") + ms + " [" + tag + "]" +
           (body.empty() ? "" : " " + body);
}

LogTruth generateLogs(const std::string& root, const LogGeneratorOptions& o) {
    LogTruth truth;
    Simulation sim{o, truth, root};
    const std::int64_t tick = o.periodSeconds * 1000LL, start = o.startUtc * 1000, end = start + o.days * kDayMs;
    sim.startLog(start);
    std::int64_t t = start + tick;
    bool justWoke = false;
    while (t < end) {
        if ((t - start) / kDayMs != sim.index) {
            // A log a day; the device stays awake through the roll, at the power read last.
            sim.put(t, "Log", "state=roll;");
            sim.finishLog(false);
            sim.startLog(t + 1);
            sim.awake(t, sim.lastPower);
            t += tick;
            continue;
        }
        const int hour = static_cast<int>((t / 1000 + sim.offsetAt(t)) % 86400 / 3600);
        const bool night = hour >= 23 || hour < 7;
        // Suspended at night for 5 to 30 periods, never across a roll; woken by one source.
        const std::int64_t logEnd = start + ((t - start) / kDayMs + 1) * kDayMs;
        const std::int64_t until =
            night && !sim.charging && !justWoke ? std::min({t + (5 + sim.pick(26)) * tick, logEnd, end}) : t;
        justWoke = until - t >= 2 * tick;
        if (!justWoke) {
            sim.sample(t, night);
            t += tick;
            continue;
        }
        sim.put(t, "Sleep", "event=did_sleep;");
        ++truth.sleeps;
        const double seconds = static_cast<double>(until - t) / 1000, before = sim.energy;
        sim.advance(-kSuspendedMw, seconds, t, &truth.suspendedDrainedMwh);
        truth.suspendedSeconds += seconds;
        static const char* const reasons[] = {"rtc_alarm", "rtc_alarm", "rtc_alarm", "wlan",
                                              "wlan",      "modem",     "power_key"};
        const std::string reason = reasons[sim.pick(7)];
        sim.put(until, "Wake", "reason=" + reason + ";");
        ++truth.wakesByReason[reason];
        if (o.newerTags) {
            // As the sleep logger writes it when the login manager said when the suspend began.
            char body[300];
            std::snprintf(
                body, sizeof body,
                "began_utc_s=%.3f; ended_utc_s=%.3f; duration_s=%.3f; suspended_s=%.3f; span_s=%.3f; drain_mw=%s; ",
                t / 1000.0, until / 1000.0, seconds, seconds, seconds,
                num((before - sim.energy) * 3600 / seconds).c_str());
            sim.put(until, "Suspend", body + ("woken_by=" + reason + "; accounting=login_manager;"));
        }
        t = until + 1;
    }
    // The daemon stops: its last reading closes the interval of the sample before.
    sim.put(t, "BatteryPower",
            "name=BAT0; power_mw=" + num(sim.lastPower) + "; energy_mwh=" + num(sim.energy) +
                "; status=" + (sim.charging ? "Charging" : "Discharging") + ";");
    sim.put(t + 1, "Log", "state=stopping; reason=SIGTERM;");
    if (o.zeroTailBytes) {
        // Cut short by a power loss: the file had grown, the data never reached it.
        sim.text += logLine(t + 2, sim.offsetAt(t), "Battery", "name=BAT0; lev") + std::string(o.zeroTailBytes, '\0');
    }
    sim.finishLog(true);
    return truth;
}

}  // namespace jxtest
