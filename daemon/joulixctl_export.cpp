// joulixctl export --trace: the power logs as a trace-event JSON file for trace viewers
// and trace processors.
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "analysis/LogReader.h"
#include "analysis/TimeText.h"
#include "analysis/TraceExport.h"
#include "daemon/CommandLine.h"

using jx::analysis::TimeMs;

namespace {

using jxctl::usageError;

}  // namespace

int exportCommand(const std::vector<std::string>& args) {
    enum { kSince = 1, kUntil, kTrace };
    static const option options[] = {
        {"since", required_argument, nullptr, kSince},
        {"until", required_argument, nullptr, kUntil},
        {"trace", required_argument, nullptr, kTrace},
        {nullptr, 0, nullptr, 0},
    };
    jxctl::CommandLine line("export", args);

    std::optional<std::string> trace;
    for (int c; (c = line.next(":", options)) != -1;) {
        switch (c) {
            case kSince:
            case kUntil:
                if (auto refused = line.readTime(c == kSince)) return *refused;
                break;
            case kTrace:
                if (!*optarg) return usageError("--trace needs a file name (or - for standard output)");
                trace = optarg;
                break;
            default:
                return line.badOption(c);
        }
    }
    if (auto refused = line.leftOverOrBackwards()) return *refused;
    if (!trace) return usageError("export needs --trace FILE.json (or --trace - for standard output)");
    const std::optional<TimeMs> since = line.since, until = line.until;

    const jx::analysis::LogLocations where = jx::analysis::LogLocations::underRoot();
    std::vector<jx::analysis::LogSource> sources = jx::analysis::findLogs(where);
    if (sources.empty()) {
        std::fprintf(stderr, "joulixctl: no log under %s\n", where.current.c_str());
        return 1;
    }

    // A file is written under a temporary name and renamed once whole: a failed export
    // never leaves half a trace where a viewer would open it.
    const bool toStdout = *trace == "-";
    const std::string partial = *trace + ".partial";
    std::ofstream file;
    if (!toStdout) {
        file.open(partial, std::ios::binary | std::ios::trunc);
        if (!file) {
            std::fprintf(stderr, "joulixctl: cannot write %s: %s\n", partial.c_str(), std::strerror(errno));
            return 1;
        }
    }
    std::ostream& out = toStdout ? std::cout : file;

    jx::analysis::LogReader reader(std::move(sources));
    jx::analysis::TraceStats stats;
    bool ok = jx::analysis::exportTrace(reader, out, since, until, &stats);
    if (!toStdout) {
        file.close();
        ok = ok && !file.fail();
        if (ok && std::rename(partial.c_str(), trace->c_str()) != 0) ok = false;
        if (!ok) {
            std::fprintf(stderr, "joulixctl: cannot write %s: %s\n", trace->c_str(), std::strerror(errno));
            std::remove(partial.c_str());
            return 1;
        }
        std::fprintf(stderr,
                     "joulixctl: wrote %s: %llu events (%llu counter samples, %llu suspends, %llu wakes, "
                     "%llu screen-on and %llu charging periods)\n",
                     trace->c_str(), static_cast<unsigned long long>(stats.events),
                     static_cast<unsigned long long>(stats.counters), static_cast<unsigned long long>(stats.suspends),
                     static_cast<unsigned long long>(stats.wakes), static_cast<unsigned long long>(stats.screenOn),
                     static_cast<unsigned long long>(stats.charging));
    } else if (!ok) {
        std::fprintf(stderr, "joulixctl: cannot write the trace to standard output\n");
        return 1;
    }
    const jx::analysis::ReadStats& read = reader.stats();
    if (read.malformed || read.zeroBytes)
        std::fprintf(stderr, "joulixctl: skipped %llu malformed line(s) and %llu NUL byte(s)\n",
                     static_cast<unsigned long long>(read.malformed), static_cast<unsigned long long>(read.zeroBytes));
    if (read.unreadable)
        std::fprintf(stderr, "joulixctl: %llu log file(s) could not be read to their end\n",
                     static_cast<unsigned long long>(read.unreadable));
    if (stats.outOfOrder)
        std::fprintf(stderr, "joulixctl: left out %llu sample(s) older than their series' last one\n",
                     static_cast<unsigned long long>(stats.outOfOrder));
    return 0;
}
