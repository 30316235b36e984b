// joulixctl report: where the battery went, from the logs, as a summary, JSON or an HTML page.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "analysis/LogReader.h"
#include "analysis/Report.h"
#include "analysis/TimeText.h"
#include "daemon/CommandLine.h"
#include "platform/Root.h"

using jx::analysis::TimeMs;

namespace {

using jxctl::usageError;

bool writeAll(std::FILE* f, const std::string& text) {
    return std::fwrite(text.data(), 1, text.size(), f) == text.size() && std::fflush(f) == 0;
}

}  // namespace

int reportCommand(const std::vector<std::string>& args) {
    enum { kSince = 1, kUntil, kJson, kWakeLoop };
    static const option options[] = {
        {"since", required_argument, nullptr, kSince},        {"until", required_argument, nullptr, kUntil},
        {"output", required_argument, nullptr, 'o'},          {"json", no_argument, nullptr, kJson},
        {"wake-loop", required_argument, nullptr, kWakeLoop}, {nullptr, 0, nullptr, 0},
    };
    jxctl::CommandLine line("report", args);

    jx::analysis::ReportOptions ro;
    std::optional<std::string> html;
    bool json = false;
    for (int c; (c = line.next(":o:", options)) != -1;) {
        switch (c) {
            case kSince:
            case kUntil:
                if (auto refused = line.readTime(c == kSince)) return *refused;
                break;
            case 'o':
                html = optarg;
                if (html->empty()) return usageError("report: -o needs a file name or -");
                break;
            case kJson:
                json = true;
                break;
            case kWakeLoop: {
                char* end = nullptr;
                const double s = std::strtod(optarg, &end);
                if (end == optarg || *end || !std::isfinite(s) || s <= 0)
                    return usageError(std::string("report: --wake-loop: '") + optarg + "' is no number of seconds");
                ro.wakeLoopSeconds = s;
                break;
            }
            default:
                return line.badOption(c);
        }
    }
    if (auto refused = line.leftOverOrBackwards()) return *refused;
    ro.since = line.since;
    ro.until = line.until;
    if (json && html && *html == "-") return usageError("report: --json and -o - both want standard output");

    const jx::analysis::LogLocations where = jx::analysis::LogLocations::underRoot();
    std::vector<jx::analysis::LogSource> sources = jx::analysis::findLogs(where);
    if (sources.empty()) {
        std::fprintf(stderr, "joulixctl: no log under %s\n", where.current.c_str());
        return 1;
    }
    ro.metricsSpool = jx::rootPath("/var/mobile/Library/Logs/Metrics/metrics.jsonl");
    jx::analysis::LogReader reader(std::move(sources));
    reader.setRange(ro.since, ro.until);
    const jx::analysis::Report report = jx::analysis::computeReport(reader, ro);

    if (html) {
        const std::string page = jx::analysis::reportHtml(report, ro);
        if (*html == "-") {
            if (!writeAll(stdout, page)) return 1;
        } else {
            std::FILE* f = std::fopen(html->c_str(), "w");
            const bool ok = f && writeAll(f, page);
            if (f && std::fclose(f) != 0) f = nullptr;
            if (!ok || !f) {
                std::fprintf(stderr, "joulixctl: cannot write %s\n", html->c_str());
                return 1;
            }
            if (!json) std::fprintf(stderr, "joulixctl: report written to %s\n", html->c_str());
        }
    }
    if (json) {
        const std::string text =
            jx::analysis::reportJson(report, ro).dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) +
            "\n";
        if (!writeAll(stdout, text)) return 1;
    } else if (!html) {
        if (!writeAll(stdout, jx::analysis::reportText(report, ro))) return 1;
    }
    if (report.stats.malformed || report.stats.zeroBytes)
        std::fprintf(stderr, "joulixctl: skipped %llu malformed line(s) and %llu NUL byte(s)\n",
                     static_cast<unsigned long long>(report.stats.malformed),
                     static_cast<unsigned long long>(report.stats.zeroBytes));
    if (report.stats.unreadable)
        std::fprintf(stderr, "joulixctl: %llu log file(s) could not be read to their end\n",
                     static_cast<unsigned long long>(report.stats.unreadable));
    return 0;
}
