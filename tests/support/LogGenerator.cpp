#include "tests/support/LogGenerator.h"

#include <sys/stat.h>
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

// A double as the log writes it: its shortest exact form.
std::string num(double v) {
    char out[32];
    auto [end, ec] = std::to_chars(out, out + sizeof out, v);
    return std::string(out, end);
}

double tenth(double v) { return std::round(v * 10) / 10; }

// What a suspended device draws.
constexpr double kSuspendedMw = 120;

std::string localStamp(std::int64_t utcMs, std::int32_t offset, const char* format) {
    const std::time_t t = static_cast<std::time_t>((utcMs >= 0 ? utcMs / 1000 : (utcMs - 999) / 1000) + offset);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char out[40];
    std::strftime(out, sizeof out, format, &tm);
    return out;
}

struct Simulation {
    const LogGeneratorOptions& o;
    LogTruth& truth;
    std::mt19937 rng;
    std::string root;

    std::string text;  // the log being written
    std::string name;  // its rolled name
    int index = -1;
    bool changed = false;

    static constexpr double kFullMwh = 50000;
    double energy = kFullMwh * 0.8;
    bool screenOn = false, charging = false;
    double lastPower = 0;
    std::optional<bool> shownDisplay, shownCharger;

    Simulation(const LogGeneratorOptions& options, LogTruth& t, std::string r)
        : o(options), truth(t), rng(options.seed), root(std::move(r)) {}

    unsigned pick(unsigned n) { return static_cast<unsigned>(rng() % n); }

    std::int32_t offsetAt(std::int64_t utcMs) const {
        return o.offsetChangeUtc && utcMs >= *o.offsetChangeUtc * 1000 ? o.offsetAfterSeconds : o.offsetSeconds;
    }

    void put(std::int64_t utcMs, const std::string& tag, const std::string& body) {
        if (o.clockEntries && o.offsetChangeUtc && !changed && utcMs >= *o.offsetChangeUtc * 1000) {
            changed = true;
            clock(utcMs, "offset_change");
        }
        raw(utcMs, tag, body);
    }

    void raw(std::int64_t utcMs, const std::string& tag, const std::string& body) {
        text += logLine(utcMs, offsetAt(utcMs), tag, body);
        text += '\n';
        ++truth.records;
        ++truth.perTag[tag];
        if (truth.records == 1) truth.firstUtcMs = utcMs;
        truth.lastUtcMs = std::max(truth.lastUtcMs, utcMs);
    }

    void clock(std::int64_t utcMs, const char* reason) {
        const std::int32_t offset = offsetAt(utcMs);
        const bool dst = offset > std::min(o.offsetSeconds, o.offsetAfterSeconds);
        std::string abbreviation =
            o.zone == "Europe/Berlin" ? (dst ? "CEST" : "CET") : "UTC" + std::to_string(offset / 3600);
        char utc[40];
        std::snprintf(utc, sizeof utc, "%lld.%03lld", static_cast<long long>(utcMs / 1000),
                      static_cast<long long>(utcMs % 1000));
        raw(utcMs, "Clock",
            std::string("utc_s=") + utc + "; offset_s=" + std::to_string(offset) + "; zone=" + o.zone +
                "; abbreviation=" + abbreviation + "; dst=" + (dst ? "YES" : "NO") + "; reason=" + reason + ";");
    }

    std::string guid() {
        unsigned part[6];
        for (unsigned& p : part) p = static_cast<unsigned>(rng());
        char out[48];
        std::snprintf(out, sizeof out, "%08X-%04X-4%03X-8%03X-%08X%04X", part[0], part[1] & 0xFFFF, part[2] & 0xFFF,
                      part[3] & 0xFFF, part[4], part[5] & 0xFFFF);
        return out;
    }

    void startLog(std::int64_t utcMs) {
        ++index;
        const std::string id = guid();
        const std::string stamp = localStamp(utcMs, offsetAt(utcMs), "%Y-%m-%d-%H%M%S");
        name = "JX_" + stamp + "_" + id + ".joulix";
        if (o.offsetChangeUtc && utcMs >= *o.offsetChangeUtc * 1000) changed = true;
        raw(utcMs, "Joulix",
            "Version=6.01; Build=12 (6.1.0-27); Timestamp=" + stamp + "; File_GUID=" + id +
                "; rotateJoulixKey=Default; loggingMode=Default; binary=joulix; pid=" + std::to_string(4000 + index) +
                ";");
        raw(utcMs + 1, "Log", "state=new;");
        if (o.clockEntries) clock(utcMs + 2, "new_log");
        raw(utcMs + 3, "BatteryHealth",
            "name=BAT0; energy_full_design_mwh=52000; energy_full_mwh=50000; cycle_count=312; health_pct=96.2;");
        shownDisplay.reset();
        shownCharger.reset();
    }

    void writeFile(const std::string& path, bool gzip) {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        if (gzip) {
            gzFile gz = gzopen(path.c_str(), "wb9");
            if (!gz || gzwrite(gz, text.data(), static_cast<unsigned>(text.size())) != static_cast<int>(text.size()) ||
                gzclose(gz) != Z_OK)
                throw std::runtime_error("cannot write " + path);
        } else {
            std::ofstream out(path, std::ios::binary | std::ios::trunc);
            out.write(text.data(), static_cast<std::streamsize>(text.size()));
            if (!out) throw std::runtime_error("cannot write " + path);
        }
        truth.files.push_back(path);
    }

    void finishLog(bool current) {
        const std::string logs = root + "/var/mobile/Library/Logs";
        ++truth.logs;
        truth.bytes += text.size();
        if (current) {
            writeFile(logs + "/CurrentJoulix.joulix", false);
        } else if (index < o.archivedOnly) {
            writeFile(logs + "/JXArchive/" + name + ".gz", true);
        } else {
            writeFile(logs + "/Faultkeeper/" + name, false);
            if (o.archiveRolled) writeFile(logs + "/JXArchive/" + name + ".gz", true);
        }
        text.clear();
    }

    // One awake sample at t: what the loggers write, and the interval after it.
    void sample(std::int64_t t, bool night) {
        const int tickMs = o.periodSeconds * 1000;
        if (!charging && energy < kFullMwh * 0.2) charging = true;
        if (charging && energy > kFullMwh * 0.9) charging = false;
        if (night)
            screenOn = false;
        else if (pick(10) == 0)
            screenOn = !screenOn;
        const double power = tenth(charging   ? 8000.0 + pick(400)
                                   : screenOn ? -(2400.0 + pick(300))
                                              : -(850.0 + pick(100)));
        const int level = static_cast<int>(std::lround(energy * 100 / kFullMwh));
        const int voltage = 3600 + level * 6;
        const long long current = std::llround(power * 1000 / voltage);
        const char* status = charging ? "Charging" : "Discharging";
        std::int64_t at = t;
        put(at++, "Battery",
            "name=BAT0; level=" + std::to_string(level) + "; voltage=" + std::to_string(voltage) +
                "; current=" + std::to_string(current) + "; energy=" + std::to_string(std::llround(energy)) +
                "; energy_full=50000; cycle_count=312; status=" + status +
                "; charging_state=" + (charging ? "active" : "inactive") +
                "; charging_current=" + std::to_string(charging ? std::llabs(current) : 0) + ";");
        lastPower = power;
        put(at++, "BatteryPower",
            "name=BAT0; power_mw=" + num(power) + "; source=power_now; energy_mwh=" + num(tenth(energy)) +
                "; status=" + status + ";");
        if (shownCharger != charging) {
            shownCharger = charging;
            put(at++, "Charger", std::string("name=AC; type=Mains; online=") + (charging ? "YES" : "NO") + ";");
        }
        if (shownDisplay != screenOn) {
            shownDisplay = screenOn;
            put(at++, "Display", screenOn ? "active=YES; brightness=0.6;" : "active=NO; brightness=0;");
        }
        static const char* const names[] = {"firefox",        "Xorg",   "pipewire",
                                            "NetworkManager", "joulix", "systemd-journal"};
        for (int p = 0; p < o.processes; ++p) {
            const std::string n = names[p % 6];
            const int user = static_cast<int>(pick(screenOn ? 4000 : 400)), system = static_cast<int>(pick(800));
            const int switches = static_cast<int>(pick(5000));
            truth.cpuMsByProcess[n] += user + system;
            truth.ctxSwitchesByProcess[n] += switches;
            put(at++, "Process",
                "pid=" + std::to_string(1000 + p) + "; name=" + n + "; cpu_ms=" + std::to_string(user + system) +
                    "; user_ms=" + std::to_string(user) + "; system_ms=" + std::to_string(system) + "; ctx_switches=" +
                    std::to_string(switches) + "; unit=" + n + ".service; command=/usr/bin/" + n + " --daemon;");
        }
        if (o.newerTags) newerSample(at, tickMs);
        awake(t, power);
    }

    // One period awake from t at a power, as the last sample left the device.
    void awake(std::int64_t t, double power) {
        advance(power, o.periodSeconds, t, charging ? Spent::Charging : screenOn ? Spent::ScreenOn : Spent::ScreenOff);
        if (screenOn) truth.screenOnSeconds += o.periodSeconds;
        if (charging)
            truth.chargingSeconds += o.periodSeconds;
        else
            (screenOn ? truth.dischargingScreenOnSeconds : truth.dischargingScreenOffSeconds) += o.periodSeconds;
    }

    // What the measuring, thermal and Wi-Fi loggers add to an awake sample.
    void newerSample(std::int64_t& at, int tickMs) {
        static const char* const sources[] = {"wlan", "rtc_alarm", "modem"};
        for (int r = 0; r < 2; ++r) {
            const unsigned active = pick(2000);
            truth.wakeupActiveMsBySource[sources[r]] += active;
            put(at++, "WakeupSource",
                "rank=" + std::to_string(r + 1) + "; scope=interval; name=" + sources[r] +
                    "; active_ms=" + std::to_string(active) + "; wakeups=" + std::to_string(pick(4)) +
                    "; events=" + std::to_string(pick(20)) + "; max_active_ms=" + std::to_string(pick(500)) + ";");
        }
        const long long uj = 1000LL * (screenOn ? 1500 + pick(500) : 300 + pick(100)) * o.periodSeconds;
        truth.packageEnergyUj += static_cast<double>(uj);
        put(at++, "Powercap",
            "zone=intel-rapl:0; name=package-0; energy_uj=" + std::to_string(uj) + "; interval_ms=" +
                std::to_string(tickMs) + "; power_mw=" + num(tenth(uj / 1000.0 / o.periodSeconds)) + ";");
        static const char* const devices[][2] = {{"pci", "0000:00:14.0"}, {"usb", "1-2"}};
        for (int d = 0; d < 2; ++d) {
            const unsigned active = d == 0 ? static_cast<unsigned>(tickMs) : pick(static_cast<unsigned>(tickMs));
            truth.runtimeActiveMsByDevice[std::string(devices[d][0]) + ":" + devices[d][1]] += active;
            put(at++, "RuntimePM",
                "rank=" + std::to_string(d + 1) + "; bus=" + devices[d][0] + "; device=" + devices[d][1] +
                    "; active_ms=" + std::to_string(active) + "; status=active;");
        }
        const double temperature = (screenOn ? 55 : 42) + pick(150) / 10.0;
        truth.maxTemperature = std::max(truth.maxTemperature, temperature);
        put(at++, "Thermal", "zone=thermal_zone0; type=x86_pkg_temp; temperature=" + num(temperature) + ";");
        put(at++, "WiFi",
            "interface=wlan0; link=" + std::to_string(40 + pick(30)) + "; quality=" + std::to_string(50 + pick(20)) +
                "; signal=-" + std::to_string(50 + pick(30)) +
                "; noise=-95; bitrate=" + std::to_string(130 + pick(300)) + ";");
    }

    enum class Spent { ScreenOn, ScreenOff, Suspended, Charging };

    // The battery's energy over an interval beginning at startMs, in the truth's sums.
    void advance(double powerMw, double seconds, std::int64_t startMs, Spent spent) {
        const double mwh = powerMw * seconds / 3600;
        energy += mwh;
        (mwh < 0 ? truth.drainedMwh : truth.chargedMwh) += std::fabs(mwh);
        if (mwh >= 0) return;
        switch (spent) {
            case Spent::ScreenOn:
                truth.screenOnDrainedMwh -= mwh;
                break;
            case Spent::ScreenOff:
                truth.screenOffDrainedMwh -= mwh;
                break;
            case Spent::Suspended:
                truth.suspendedDrainedMwh -= mwh;
                break;
            case Spent::Charging:
                break;
        }
        // Split at local midnights, in the offset in force at the interval's start.
        const std::int64_t endMs = startMs + static_cast<std::int64_t>(seconds * 1000);
        const std::int32_t offset = offsetAt(startMs);
        for (std::int64_t from = startMs; from < endMs;) {
            const std::int64_t local = from + offset * 1000LL;
            const std::int64_t midnight = (local / 86400000 + 1) * 86400000 - offset * 1000LL;
            const std::int64_t to = std::min(endMs, midnight);
            truth.drainedMwhByDay[localStamp(from, offset, "%Y-%m-%d")] -= powerMw * (to - from) / 3600000.0;
            from = to;
        }
    }
};

}  // namespace

std::string logLine(std::int64_t utcMs, std::int32_t offsetSeconds, const std::string& tag, const std::string& body) {
    std::string line = localStamp(utcMs, offsetSeconds, "%m/%d/%Y %H:%M:%S");
    char ms[8];
    std::snprintf(ms, sizeof ms, ".%03lld", static_cast<long long>(((utcMs % 1000) + 1000) % 1000));
    line += ms;
    line += " [" + tag + "]";
    if (!body.empty()) line += " " + body;
    return line;
}

LogTruth generateLogs(const std::string& root, const LogGeneratorOptions& o) {
    LogTruth truth;
    Simulation sim(o, truth, root);
    const std::int64_t tick = o.periodSeconds * 1000LL, start = o.startUtc * 1000, end = start + o.days * 86400000LL;
    const std::int64_t logMs = o.logHours * 3600000LL;
    sim.startLog(start);
    std::int64_t t = start + tick;
    bool justWoke = false;
    while (t < end) {
        const std::int64_t logEnd = start + ((t - start) / logMs + 1) * logMs;
        if ((t - start) / logMs != sim.index) {
            sim.put(t, "Log", "state=roll;");
            sim.finishLog(false);
            sim.startLog(t + 1);
            // The device stays awake through the roll, at the power read last.
            sim.awake(t, sim.lastPower);
            t += tick;
            continue;
        }
        const std::int64_t local = t / 1000 + sim.offsetAt(t);
        const int hour = static_cast<int>(((local % 86400) + 86400) % 86400 / 3600);
        const bool night = hour >= 23 || hour < 7;
        if (night && !sim.charging && !justWoke) {
            // Suspended for 5 to 30 periods, never across a roll; woken by one source.
            std::int64_t until = std::min({t + (5 + sim.pick(26)) * tick, logEnd, end});
            if (until - t >= 2 * tick) {
                sim.put(t, "Sleep", "event=did_sleep;");
                ++truth.sleeps;
                const double seconds = static_cast<double>(until - t) / 1000;
                const double before = sim.energy;
                sim.advance(-kSuspendedMw, seconds, t, Simulation::Spent::Suspended);
                truth.suspendedSeconds += seconds;
                static const char* const reasons[] = {"rtc_alarm", "rtc_alarm", "rtc_alarm", "wlan",
                                                      "wlan",      "modem",     "power_key"};
                const std::string reason = reasons[sim.pick(7)];
                sim.put(until, "Wake", "reason=" + reason + ";");
                ++truth.wakesByReason[reason];
                if (o.newerTags) {
                    // As the sleep logger writes it when the login manager said when the suspend began.
                    char body[400];
                    std::snprintf(body, sizeof body,
                                  "began_utc_s=%.3f; ended_utc_s=%.3f; duration_s=%.3f; suspended_s=%.3f; "
                                  "energy_before_mwh=%s; energy_after_mwh=%s; drain_mw=%s; span_s=%.3f; "
                                  "woken_by=%s; accounting=login_manager;",
                                  t / 1000.0, until / 1000.0, seconds, seconds, num(tenth(before)).c_str(),
                                  num(tenth(sim.energy)).c_str(),
                                  num(tenth((before - sim.energy) * 3600 / seconds)).c_str(), seconds, reason.c_str());
                    sim.put(until, "Suspend", body);
                }
                t = until + 1;
                justWoke = true;
                continue;
            }
        }
        justWoke = false;
        sim.sample(t, night);
        t += tick;
    }
    // The daemon stops: its last reading closes the interval of the sample before.
    sim.put(t, "BatteryPower",
            "name=BAT0; power_mw=" + num(sim.lastPower) + "; source=power_now; energy_mwh=" + num(tenth(sim.energy)) +
                "; status=" + (sim.charging ? "Charging" : "Discharging") + ";");
    sim.put(t + 1, "Log", "state=stopping; reason=SIGTERM;");
    t += 2;
    if (o.zeroTailBytes) {
        // Cut short by a power loss: the file had grown, the data never reached it.
        const std::string cut = logLine(t, sim.offsetAt(t), "Battery", "name=BAT0; lev");
        sim.text += cut;
        sim.text.append(o.zeroTailBytes, '\0');
        truth.malformed += 1;
        truth.zeroBytes += o.zeroTailBytes;
    }
    sim.finishLog(true);
    return truth;
}

}  // namespace jxtest
