// Following the current log as it grows: across a roll (the log renamed away and a
// new one made at its name) and a log deleted and made again. Woken by inotify on the
// log's directory, never by polling.
#pragma once

#include <memory>
#include <string>

#include "analysis/LogReader.h"

namespace jx::analysis {

class LogFollower {
public:
    explicit LogFollower(std::string currentPath);
    ~LogFollower();
    LogFollower(const LogFollower&) = delete;
    LogFollower& operator=(const LogFollower&) = delete;

    // Reads the current log from its start, then whatever is written to it or to the
    // logs that take its place, until the sink says stop or stop() is called. False
    // with *why when the directory cannot be watched. onIdle runs each time all that
    // was written has been read, before waiting (where output is flushed).
    bool run(const RecordSink& sink, std::string* why = nullptr, const std::function<void()>& onIdle = {});
    // From any thread.
    void stop();
    const ReadStats& stats() const { return stats_; }

private:
    void openCurrent();
    bool drain(const RecordSink& sink, bool atEnd);

    std::string path_;
    int inotify_ = -1;
    int stopEvent_ = -1;
    std::unique_ptr<LogFileReader> reader_;
    std::optional<std::int32_t> lastOffset_;
    ReadStats stats_;
};

}  // namespace jx::analysis
