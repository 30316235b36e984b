// Reading the power logs back: the current log, the rolled logs of the crash-report
// directory and the gzip archives, streamed in time order, each line turned into an
// absolute time, its tag and its fields.
//
// Absolute times come from the [Clock] entries: a line's local time minus the offset
// of the last [Clock] before it in its file (lines before a file's first [Clock] take
// that one's offset). A file without any [Clock] is read in the reader's own zone
// (the TZ in force) and its records are marked guessed. Malformed and partial lines
// (a power loss can leave a tail of NUL bytes) are skipped and counted, never fatal.
// Memory does not grow with a log's size: lines are read through a fixed buffer and
// records handed on one at a time.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace jx::analysis {

// Milliseconds since 1970-01-01 00:00 UTC; for a local time, the same count read as
// if the local wall clock were UTC.
using TimeMs = std::int64_t;

struct LogField {
    std::string_view name, value;
};

// Where a root's logs lie.
struct LogLocations {
    std::string current, crashReportDirectory, archiveDirectory;
    // The documented paths under the root in force (--root, JOULIX_ROOT).
    static LogLocations underRoot();
};

struct LogSource {
    enum class Kind { Current, Rolled, Archive };
    std::string path;
    Kind kind = Kind::Rolled;
    bool compressed = false;  // gzip; otherwise plain text
    // Filled in by scanning the file's head (scanLogHead):
    bool scanned = false;
    std::optional<std::string> guid;          // the header's File_GUID
    std::optional<TimeMs> firstTime;          // absolute time of the first entry
    std::optional<std::int32_t> firstOffset;  // the first [Clock]'s offset_s; none: no [Clock], times guessed

    static LogSource at(std::string path, Kind kind, bool compressed = false) {
        LogSource s;
        s.path = std::move(path);
        s.kind = kind;
        s.compressed = compressed;
        return s;
    }
};

struct LogRecord {
    TimeMs time = 0;          // absolute
    TimeMs localTime = 0;     // as written in the line
    std::int32_t offset = 0;  // seconds east of UTC the time was made with
    bool guessed = false;     // the offset comes from the reader's zone, not from a [Clock]
    std::string_view tag;
    const std::vector<LogField>* fields = nullptr;
    std::string_view line;  // the whole line as in the log, without its newline
    const LogSource* source = nullptr;

    // The first field of that name.
    std::optional<std::string_view> field(std::string_view name) const;
    // The field read as a decimal number; none when absent or not a number.
    std::optional<double> number(std::string_view name) const;
};

struct ReadStats {
    std::uint64_t records = 0;     // well-formed lines handed on (filtered out ones included)
    std::uint64_t malformed = 0;   // lines skipped: no time or tag, cut short, overlong
    std::uint64_t zeroBytes = 0;   // NUL bytes skipped (a tail a power loss left)
    std::uint64_t files = 0;       // files opened
    std::uint64_t unreadable = 0;  // files that could not be opened or decompressed
    ReadStats& operator+=(const ReadStats& o);
};

// Answers false to stop the reading.
using RecordSink = std::function<bool(const LogRecord&)>;

// One log file read from its start, as far as it goes now; called again, it goes on
// from there (the current log grows). Plain and gzip files alike.
class LogFileReader {
public:
    explicit LogFileReader(const LogSource& source);
    ~LogFileReader();
    LogFileReader(const LogFileReader&) = delete;
    LogFileReader& operator=(const LogFileReader&) = delete;

    bool ok() const { return ok_; }
    const LogSource& source() const { return source_; }
    ino_t inode() const { return inode_; }
    dev_t device() const { return device_; }
    // Bytes of the file consumed so far (of the uncompressed text).
    std::uint64_t position() const { return position_; }

    enum class Result { End, Stopped };
    // Hands on every complete line the file holds now. With atEnd the file is known to
    // be complete: an unterminated last line is counted as cut short. Without it the
    // line is kept until its end arrives.
    Result read(const RecordSink& sink, bool atEnd);
    // Records held back waiting for the file's first [Clock] go out now, with the
    // fallback offset (not guessed) or, without one, the reader's zone (guessed).
    bool flushPending(const RecordSink& sink);
    // The offset to give lines before a first [Clock] that has not come yet; a
    // follower passes the previous log's last one.
    void setFallbackOffset(std::optional<std::int32_t> offset) { fallbackOffset_ = offset; }
    std::optional<std::int32_t> lastOffset() const { return offset_; }
    const ReadStats& stats() const { return stats_; }

private:
    bool fill();
    bool line(std::string_view text, const RecordSink& sink);
    bool emit(LogRecord& record, const RecordSink& sink);

    LogSource source_;
    bool ok_ = false;
    int fd_ = -1;
    void* gz_ = nullptr;  // gzFile
    ino_t inode_ = 0;
    dev_t device_ = 0;
    std::uint64_t position_ = 0;
    std::vector<char> buffer_;
    std::size_t begin_ = 0, end_ = 0;
    bool skippingLong_ = false;  // in the rest of an overlong line
    bool inZeroRun_ = false;
    std::optional<std::int32_t> offset_;  // of the last [Clock] read
    bool offsetKnown_ = false;            // offset_ (or the guess) applies to new lines
    bool guessing_ = false;
    std::optional<std::int32_t> fallbackOffset_;
    TimeMs guessHalfHour_ = INT64_MIN;
    std::int32_t guessOffset_ = 0;
    std::deque<std::string> pending_;  // lines waiting for the first [Clock]
    std::vector<LogField> fields_;
    ReadStats stats_;
};

// Reads a file's head: the header's GUID, the first [Clock]'s offset (reading on to
// the end when there is none) and the first entry's absolute time.
void scanLogHead(LogSource& source);

// Every distinct log under the locations, each once (a rolled log, its hard link and
// its archive are one log), ordered by the time of their first entry.
std::vector<LogSource> findLogs(const LogLocations& where);

// Several logs read one after the other, in the order given (findLogs' order).
class LogReader {
public:
    explicit LogReader(std::vector<LogSource> sources);
    // Files that lie wholly before since, or begin after until, are not opened; the
    // records themselves are not filtered here.
    void setRange(std::optional<TimeMs> since, std::optional<TimeMs> until);
    // False when the sink stopped the reading.
    bool read(const RecordSink& sink);
    const ReadStats& stats() const { return stats_; }
    const std::vector<LogSource>& sources() const { return sources_; }

private:
    std::vector<LogSource> sources_;
    std::optional<TimeMs> since_, until_;
    ReadStats stats_;
};

// The local time of a line ("MM/dd/yyyy HH:mm:ss.SSS") as TimeMs; none when malformed.
std::optional<TimeMs> parseLineTime(std::string_view text);
// The offset east of UTC the reader's zone (TZ in force) gives a local time.
std::int32_t localZoneOffset(TimeMs localTime);
// "2026-11-21T15:20:00.123Z".
std::string isoUtc(TimeMs time);
// Days since 1970-01-01 of a civil date, and back.
std::int64_t daysFromCivil(int year, unsigned month, unsigned day);
void civilFromDays(std::int64_t days, int* year, unsigned* month, unsigned* day);

}  // namespace jx::analysis
