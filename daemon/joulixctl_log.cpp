// joulixctl log: the power logs read back, in time order, as text, JSON lines or CSV.
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "analysis/LogFollower.h"
#include "analysis/LogReader.h"
#include "analysis/TimeText.h"
#include "daemon/CommandLine.h"

using jx::analysis::LogRecord;
using jx::analysis::TimeMs;

namespace {

using jxctl::usageError;

enum class Format { Text, Json, Csv };

// One CSV cell, quoted when it holds a separator, a quote or a line break.
void csvCell(std::string& out, std::string_view text) {
    if (text.find_first_of(",\"\r\n") == std::string_view::npos) {
        out += text;
        return;
    }
    out += '"';
    for (char c : text) {
        if (c == '"') out += '"';
        out += c;
    }
    out += '"';
}

class Printer {
public:
    explicit Printer(Format format) : format_(format) {
        if (format_ == Format::Csv) std::fputs("time,tag,field,value,guessed\n", stdout);
    }

    void print(const LogRecord& r) {
        line_.clear();
        switch (format_) {
            case Format::Text:
                line_.append(r.line);
                line_ += '\n';
                break;
            case Format::Json: {
                nlohmann::ordered_json j;
                j["time"] = jx::analysis::isoUtc(r.time);
                j["tag"] = std::string(r.tag);
                nlohmann::ordered_json fields = nlohmann::ordered_json::object();
                for (const auto& f : *r.fields) fields[std::string(f.name)] = std::string(f.value);
                j["fields"] = std::move(fields);
                if (r.guessed) j["guessed"] = true;
                // A log's bytes are not always UTF-8 (a process name may hold anything).
                line_ = j.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
                line_ += '\n';
                break;
            }
            case Format::Csv: {
                // One row per field: the columns stay the same whatever the tags.
                const std::string time = jx::analysis::isoUtc(r.time);
                auto row = [&](std::string_view name, std::string_view value) {
                    line_ += time;
                    line_ += ',';
                    csvCell(line_, r.tag);
                    line_ += ',';
                    csvCell(line_, name);
                    line_ += ',';
                    csvCell(line_, value);
                    line_ += r.guessed ? ",1\n" : ",0\n";
                };
                if (r.fields->empty()) row("", "");
                for (const auto& f : *r.fields) row(f.name, f.value);
                break;
            }
        }
        std::fwrite(line_.data(), 1, line_.size(), stdout);
    }

private:
    Format format_;
    std::string line_;
};

}  // namespace

int logCommand(const std::vector<std::string>& args) {
    enum { kSince = 1, kUntil, kTag };
    static const option options[] = {
        {"since", required_argument, nullptr, kSince}, {"until", required_argument, nullptr, kUntil},
        {"tag", required_argument, nullptr, kTag},     {"follow", no_argument, nullptr, 'f'},
        {"output", required_argument, nullptr, 'o'},   {nullptr, 0, nullptr, 0},
    };
    jxctl::CommandLine line("log", args);

    std::set<std::string, std::less<>> tags;
    bool follow = false;
    Format format = Format::Text;
    for (int c; (c = line.next(":fo:", options)) != -1;) {
        switch (c) {
            case kSince:
            case kUntil:
                if (auto refused = line.readTime(c == kSince)) return *refused;
                break;
            case kTag:
                tags.insert(optarg);
                break;
            case 'f':
                follow = true;
                break;
            case 'o': {
                const std::string f = optarg;
                if (f == "text")
                    format = Format::Text;
                else if (f == "json")
                    format = Format::Json;
                else if (f == "csv")
                    format = Format::Csv;
                else
                    return usageError("-o: unknown output '" + f + "' (text, json or csv)");
                break;
            }
            default:
                return line.badOption(c);
        }
    }
    if (auto refused = line.leftOverOrBackwards()) return *refused;
    const std::optional<TimeMs> since = line.since, until = line.until;

    const jx::analysis::LogLocations where = jx::analysis::LogLocations::underRoot();
    std::vector<jx::analysis::LogSource> sources = jx::analysis::findLogs(where);
    if (follow)
        std::erase_if(sources, [](const auto& s) { return s.kind == jx::analysis::LogSource::Kind::Current; });
    else if (sources.empty()) {
        std::fprintf(stderr, "joulixctl: no log under %s\n", where.current.c_str());
        return 1;
    }

    Printer printer(format);
    std::set<const jx::analysis::LogSource*> guessedSaid;
    auto sink = [&](const LogRecord& r) {
        if (r.guessed && r.source && guessedSaid.insert(r.source).second)
            std::fprintf(stderr, "joulixctl: %s has no [Clock] entry: its times are taken in the local zone\n",
                         r.source->path.c_str());
        // Following, the log going past the range's end ends the command.
        if (until && r.time > *until) return !follow;
        if (since && r.time < *since) return true;
        if (!tags.empty() && !tags.contains(r.tag)) return true;
        printer.print(r);
        return true;
    };

    jx::analysis::LogReader reader(std::move(sources));
    reader.setRange(since, until);
    reader.read(sink);
    jx::analysis::ReadStats stats = reader.stats();

    if (follow) {
        std::fflush(stdout);
        jx::analysis::LogFollower follower(where.current);
        std::string why;
        const bool ok = follower.run(sink, &why, [] { std::fflush(stdout); });
        stats += follower.stats();
        if (!ok) {
            std::fflush(stdout);
            std::fprintf(stderr, "joulixctl: cannot follow %s: %s\n", where.current.c_str(), why.c_str());
            return 1;
        }
    }
    std::fflush(stdout);
    if (stats.malformed || stats.zeroBytes)
        std::fprintf(stderr, "joulixctl: skipped %llu malformed line(s) and %llu NUL byte(s)\n",
                     static_cast<unsigned long long>(stats.malformed),
                     static_cast<unsigned long long>(stats.zeroBytes));
    if (stats.unreadable)
        std::fprintf(stderr, "joulixctl: %llu log file(s) could not be read to their end\n",
                     static_cast<unsigned long long>(stats.unreadable));
    return 0;
}
