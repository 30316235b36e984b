// Writes realistic multi-day power logs under a root, as the daemon leaves them:
// archives in JXArchive, rolled logs in the crash-report directory, the current log;
// and answers the truth it wrote, for tests and benchmarks to compare with.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace jxtest {

struct LogGeneratorOptions {
    int days = 3;
    int periodSeconds = 60;  // between two samples of an awake device
    std::uint32_t seed = 1;
    std::int64_t startUtc = 1792800000;  // 2026-10-24 00:00:00 UTC
    // The zone: its offset east of UTC, and optionally one change (daylight saving
    // beginning or ending) at a UTC second, with the names either side.
    std::int32_t offsetSeconds = 3600;
    std::optional<std::int64_t> offsetChangeUtc;
    std::int32_t offsetAfterSeconds = 3600;
    std::string zone = "Europe/Berlin";
    bool clockEntries = true;   // without them a reader must guess the times
    int logHours = 24;          // a roll every so many hours
    int archivedOnly = 1;       // the oldest logs kept only as .gz in JXArchive
    bool archiveRolled = true;  // the other rolled logs have their .gz too, as after a roll
    // The current log ends in a line cut short and so many NUL bytes (a power loss).
    std::size_t zeroTailBytes = 0;
    int processes = 4;  // [Process] entries a sample
    // The entries of the newer loggers: [Suspend] after each wake, [WakeupSource],
    // [Powercap], [RuntimePM], [Thermal] and [WiFi]. Without them the log is what an
    // older daemon wrote.
    bool newerTags = true;
};

struct LogTruth {
    std::vector<std::string> files;  // every file written, archive copies included
    std::size_t logs = 0;            // distinct logs
    std::uint64_t records = 0;       // well-formed lines, each log counted once
    std::map<std::string, std::uint64_t> perTag;
    std::uint64_t malformed = 0;  // lines a reader must skip
    std::uint64_t zeroBytes = 0;
    std::uint64_t bytes = 0;  // text written, each log once
    std::int64_t firstUtcMs = 0, lastUtcMs = 0;
    std::uint64_t sleeps = 0;
    std::map<std::string, std::uint64_t> wakesByReason;
    double suspendedSeconds = 0, screenOnSeconds = 0, chargingSeconds = 0;
    double drainedMwh = 0;  // energy the battery gave
    double chargedMwh = 0;  // energy it took
    // Split by what the device was doing: screen on or off while awake and not
    // charging, suspended; the seconds of the two awake states.
    double screenOnDrainedMwh = 0, screenOffDrainedMwh = 0, suspendedDrainedMwh = 0;
    double dischargingScreenOnSeconds = 0, dischargingScreenOffSeconds = 0;
    // Energy drained per local day ("2026-10-24"), an interval split at midnight.
    std::map<std::string, double> drainedMwhByDay;
    // Sums of the newer loggers' entries.
    std::map<std::string, double> cpuMsByProcess, ctxSwitchesByProcess;
    std::map<std::string, double> wakeupActiveMsBySource, runtimeActiveMsByDevice;
    double packageEnergyUj = 0;
    double maxTemperature = 0;  // °C
};

LogTruth generateLogs(const std::string& root, const LogGeneratorOptions& options = {});

// One log line at a UTC time in the given offset: "MM/dd/yyyy HH:mm:ss.SSS [tag] body".
std::string logLine(std::int64_t utcMs, std::int32_t offsetSeconds, const std::string& tag, const std::string& body);

}  // namespace jxtest
