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
    int periodSeconds = 60;              // between two samples of an awake device
    std::int64_t startUtc = 1792800000;  // 2026-10-24 00:00:00 UTC
    // The zone (Berlin's names): its offset east of UTC, and optionally one change
    // (daylight saving beginning or ending) at a UTC second. A log is rolled each day.
    std::int32_t offsetSeconds = 3600;
    std::optional<std::int64_t> offsetChangeUtc = std::nullopt;
    std::int32_t offsetAfterSeconds = 3600;
    bool clockEntries = true;   // without them a reader must guess the times
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
    std::uint64_t bytes = 0;  // text written, each log once
    std::int64_t firstUtcMs = 0, lastUtcMs = 0;
    std::uint64_t sleeps = 0;
    std::map<std::string, std::uint64_t> wakesByReason;
    double suspendedSeconds = 0, chargingSeconds = 0;
    double drainedMwh = 0, chargedMwh = 0;  // energy the battery gave, and took
    // Split by what the device was doing: screen on or off while awake and not
    // charging, suspended; the seconds of the two awake states.
    double screenOnDrainedMwh = 0, screenOffDrainedMwh = 0, suspendedDrainedMwh = 0;
    double dischargingScreenOnSeconds = 0, dischargingScreenOffSeconds = 0;
    std::map<std::string, double> drainedMwhByDay;  // by local day ("2026-10-24"), split at midnight
    // Sums of the newer loggers' entries.
    std::map<std::string, double> cpuMsByProcess;
    // "switches <process>", "source <name>" (active ms), "device <bus>:<device>" (active
    // ms), "rapl <zone> <name>" (µJ), "thermal <zone> (<type>)" (the highest °C).
    std::map<std::string, double> usage;
};

LogTruth generateLogs(const std::string& root, const LogGeneratorOptions& options = {});

// One log line at a UTC time in the given offset: "MM/dd/yyyy HH:mm:ss.SSS [tag] body".
std::string logLine(std::int64_t utcMs, std::int32_t offsetSeconds, const std::string& tag, const std::string& body);

}  // namespace jxtest
