#include "analysis/LogReader.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <set>
#include <utility>

#include "JoulixMain/JoulixMain.h"
#include "platform/Root.h"

namespace jx::analysis {

namespace {

// The longest line kept; a longer one is skipped and counted (no logger writes one).
constexpr std::size_t kBufferSize = 256 * 1024;
// Lines held back waiting for a growing file's first [Clock]: the header and the
// first loggers' entries come before it, and never this many.
constexpr std::size_t kPendingLimit = 4096;
// Logs overlap at a roll by a few entries at most; a file is passed over for a range
// only when it lies outside by more than this.
constexpr TimeMs kOverlapMs = 10 * 60 * 1000;

gzFile gzOf(void* p) { return static_cast<gzFile>(p); }

bool digits(std::string_view t, std::size_t at, std::size_t n, int* out) {
    int v = 0;
    for (std::size_t i = at; i < at + n; ++i) {
        const char c = t[i];
        if (c < '0' || c > '9') return false;
        v = v * 10 + (c - '0');
    }
    *out = v;
    return true;
}

std::vector<std::string> namesIn(const std::string& dir) {
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR*)> d(::opendir(dir.c_str()), ::closedir);
    if (!d) return names;
    while (dirent* e = ::readdir(d.get())) names.emplace_back(e->d_name);
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

ReadStats& ReadStats::operator+=(const ReadStats& o) {
    records += o.records;
    malformed += o.malformed;
    zeroBytes += o.zeroBytes;
    files += o.files;
    unreadable += o.unreadable;
    return *this;
}

LogLocations LogLocations::underRoot() {
    return {jx::rootPath(kJXCurrentLogPath), jx::rootPath(kJXCrashReportDirectory), jx::rootPath(kJXArchiveDirectory)};
}

std::optional<std::string_view> LogRecord::field(std::string_view name) const {
    if (fields)
        for (const LogField& f : *fields)
            if (f.name == name) return f.value;
    return std::nullopt;
}

std::optional<double> LogRecord::number(std::string_view name) const {
    std::optional<std::string_view> text = field(name);
    if (!text || text->empty()) return std::nullopt;
    double v = 0;
    const char* first = text->data();
    if (*first == '+') ++first;
    auto [end, ec] = std::from_chars(first, text->data() + text->size(), v);
    if (ec != std::errc() || end != text->data() + text->size()) return std::nullopt;
    return v;
}

std::int64_t daysFromCivil(int y, unsigned m, unsigned d) {
    y -= m <= 2;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

void civilFromDays(std::int64_t z, int* year, unsigned* month, unsigned* day) {
    z += 719468;
    const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    *day = doy - (153 * mp + 2) / 5 + 1;
    *month = mp < 10 ? mp + 3 : mp - 9;
    *year = static_cast<int>(static_cast<std::int64_t>(yoe) + era * 400 + (*month <= 2));
}

std::optional<TimeMs> parseLineTime(std::string_view t) {
    // MM/dd/yyyy HH:mm:ss.SSS
    if (t.size() < 23 || t[2] != '/' || t[5] != '/' || t[10] != ' ' || t[13] != ':' || t[16] != ':' || t[19] != '.')
        return std::nullopt;
    int mo, d, y, h, mi, s, ms;
    if (!digits(t, 0, 2, &mo) || !digits(t, 3, 2, &d) || !digits(t, 6, 4, &y) || !digits(t, 11, 2, &h) ||
        !digits(t, 14, 2, &mi) || !digits(t, 17, 2, &s) || !digits(t, 20, 3, &ms))
        return std::nullopt;
    if (mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || s > 60) return std::nullopt;
    const std::int64_t days = daysFromCivil(y, static_cast<unsigned>(mo), static_cast<unsigned>(d));
    return ((days * 24 + h) * 60 + mi) * 60000LL + s * 1000LL + ms;
}

std::int32_t localZoneOffset(TimeMs localTime) {
    const std::int64_t seconds = localTime >= 0 ? localTime / 1000 : (localTime - 999) / 1000;
    const std::int64_t days = seconds >= 0 ? seconds / 86400 : (seconds - 86399) / 86400;
    const std::int64_t inDay = seconds - days * 86400;
    int y;
    unsigned m, d;
    civilFromDays(days, &y, &m, &d);
    std::tm tm{};
    tm.tm_year = y - 1900;
    tm.tm_mon = static_cast<int>(m) - 1;
    tm.tm_mday = static_cast<int>(d);
    tm.tm_hour = static_cast<int>(inDay / 3600);
    tm.tm_min = static_cast<int>(inDay % 3600 / 60);
    tm.tm_sec = static_cast<int>(inDay % 60);
    tm.tm_isdst = -1;
    const std::time_t utc = std::mktime(&tm);
    return utc == static_cast<std::time_t>(-1) ? 0 : static_cast<std::int32_t>(seconds - utc);
}

std::string isoUtc(TimeMs time) {
    const std::int64_t days = time >= 0 ? time / 86400000 : (time - 86399999) / 86400000;
    const std::int64_t inDay = time - days * 86400000;
    int y;
    unsigned m, d;
    civilFromDays(days, &y, &m, &d);
    char out[40];
    std::snprintf(out, sizeof out, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", y, m, d, static_cast<int>(inDay / 3600000),
                  static_cast<int>(inDay / 60000 % 60), static_cast<int>(inDay / 1000 % 60),
                  static_cast<int>(inDay % 1000));
    return out;
}

LogFileReader::LogFileReader(const LogSource& source) : source_(source) {
    fd_ = ::open(source.path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    struct stat st {};
    if (fd_ < 0 || ::fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode)) return;
    inode_ = st.st_ino;
    device_ = st.st_dev;
    if (source.compressed) {
        gz_ = ::gzdopen(fd_, "rb");
        if (!gz_) return;
        fd_ = -1;  // the gzFile closes it
        ::gzbuffer(gzOf(gz_), 128 * 1024);
    }
    buffer_.resize(kBufferSize);
    if (source.scanned) {
        offsetKnown_ = true;
        offset_ = source.firstOffset;
        guessing_ = !source.firstOffset;
    }
    ok_ = true;
    stats_.files = 1;
}

LogFileReader::~LogFileReader() {
    if (gz_) ::gzclose(gzOf(gz_));
    if (fd_ >= 0) ::close(fd_);
}

bool LogFileReader::fill() {
    if (begin_ > 0) {
        std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
    }
    if (end_ == buffer_.size()) {
        // One line fills the whole buffer: no logger writes such a line.
        ++stats_.malformed;
        skippingLong_ = true;
        end_ = 0;
    }
    const std::size_t room = buffer_.size() - end_;
    long n;
    if (gz_) {
        n = ::gzread(gzOf(gz_), buffer_.data() + end_, static_cast<unsigned>(room));
        if (n < 0) {
            // A damaged archive: what came before the damage stands.
            ++stats_.unreadable;
            ::gzclose(gzOf(gz_));
            gz_ = nullptr;
            return false;
        }
    } else {
        if (fd_ < 0) return false;
        do n = ::read(fd_, buffer_.data() + end_, room);
        while (n < 0 && errno == EINTR);
    }
    if (n <= 0) return false;
    end_ += static_cast<std::size_t>(n);
    position_ += static_cast<std::uint64_t>(n);
    return true;
}

LogFileReader::Result LogFileReader::read(const RecordSink& sink, bool atEnd) {
    if (!ok_) return Result::End;
    for (;;) {
        while (begin_ < end_) {
            const char* p = buffer_.data() + begin_;
            const std::size_t n = end_ - begin_;
            if (inZeroRun_) {
                std::size_t k = 0;
                while (k < n && p[k] == '\0') ++k;
                stats_.zeroBytes += k;
                begin_ += k;
                if (k < n) inZeroRun_ = false;
                continue;
            }
            const char* nl = static_cast<const char*>(std::memchr(p, '\n', n));
            const std::size_t length = nl ? static_cast<std::size_t>(nl - p) : n;
            // A power loss leaves NUL bytes where the file had been extended; whatever
            // stood before them on that line was cut short, and a restarted daemon
            // appends after them.
            if (const char* z = static_cast<const char*>(std::memchr(p, '\0', length))) {
                if (z > p && !skippingLong_) ++stats_.malformed;
                skippingLong_ = false;
                begin_ += static_cast<std::size_t>(z - p);
                inZeroRun_ = true;
                continue;
            }
            if (!nl) {
                if (skippingLong_) begin_ = end_;
                break;
            }
            begin_ += length + 1;
            if (skippingLong_) {
                skippingLong_ = false;
                continue;
            }
            if (!line(std::string_view(p, length), sink)) return Result::Stopped;
        }
        if (!fill()) break;
    }
    if (atEnd) {
        if (begin_ < end_ && !skippingLong_) ++stats_.malformed;  // the last line never ended
        begin_ = end_ = 0;
        skippingLong_ = false;
        if (!flushPending(sink)) return Result::Stopped;
    }
    return Result::End;
}

bool LogFileReader::flushPending(const RecordSink& sink) {
    if (offsetKnown_ || pending_.empty()) return true;
    offsetKnown_ = true;
    if (fallbackOffset_) offset_ = fallbackOffset_;
    guessing_ = !offset_;
    std::deque<std::string> held;
    held.swap(pending_);
    for (const std::string& text : held)
        if (!line(text, sink)) return false;
    return true;
}

bool LogFileReader::line(std::string_view text, const RecordSink& sink) {
    std::optional<TimeMs> local = parseLineTime(text);
    std::size_t close = std::string_view::npos;
    if (local && text.size() > 25 && text[23] == ' ' && text[24] == '[') close = text.find(']', 25);
    if (close == std::string_view::npos || close == 25) {
        ++stats_.malformed;
        return true;
    }
    const std::string_view tag = text.substr(25, close - 25);
    const std::string_view body = text.substr(close + 1);
    fields_.clear();
    if (!body.empty()) {
        if (body[0] != ' ') {
            ++stats_.malformed;
            return true;
        }
        for (std::size_t i = 1; i < body.size();) {
            if (body[i] == ' ') {
                ++i;
                continue;
            }
            const std::size_t eq = body.find('=', i);
            if (eq == std::string_view::npos || eq == i) {
                ++stats_.malformed;
                return true;
            }
            // A value runs to the ';' that ends the field: one followed by a blank or
            // the line's end (values may hold blanks, dates do).
            std::size_t end = eq + 1;
            while ((end = body.find(';', end)) != std::string_view::npos && end + 1 < body.size() &&
                   body[end + 1] != ' ')
                ++end;
            // The last field of a debug line may go without its ';'.
            const std::size_t stop = end == std::string_view::npos ? body.size() : end;
            fields_.push_back({body.substr(i, eq - i), body.substr(eq + 1, stop - eq - 1)});
            i = stop + 1;
        }
    }

    LogRecord record;
    record.localTime = *local;
    record.tag = tag;
    record.fields = &fields_;
    record.line = text;
    record.source = &source_;
    if (tag == "Clock") {
        if (std::optional<double> offset = record.number("offset_s")) {
            offset_ = static_cast<std::int32_t>(*offset);
            guessing_ = false;
            if (!offsetKnown_) {
                // The first [Clock] of a growing file: the lines before it take its offset.
                const std::string copy(text);
                offsetKnown_ = true;
                std::deque<std::string> held;
                held.swap(pending_);
                for (const std::string& h : held)
                    if (!line(h, sink)) return false;
                return line(copy, sink);
            }
        }
    }
    if (!offsetKnown_) {
        if (pending_.size() < kPendingLimit) {
            pending_.emplace_back(text);
            return true;
        }
        const std::string copy(text);
        if (!flushPending(sink)) return false;
        return line(copy, sink);
    }
    return emit(record, sink);
}

bool LogFileReader::emit(LogRecord& record, const RecordSink& sink) {
    if (guessing_ || !offset_) {
        // One mktime per local half-hour: zones change their offset on the hour or
        // half-hour at the finest, and a clock-less log asks for every line.
        const TimeMs halfHour = record.localTime / 1800000;
        if (halfHour != guessHalfHour_) {
            guessHalfHour_ = halfHour;
            guessOffset_ = localZoneOffset(halfHour * 1800000);
        }
        record.offset = guessOffset_;
        record.guessed = true;
    } else {
        record.offset = *offset_;
    }
    record.time = record.localTime - static_cast<TimeMs>(record.offset) * 1000;
    ++stats_.records;
    return sink(record);
}

void scanLogHead(LogSource& source) {
    LogSource probe = source;
    // Read as if clock-less, so that nothing is held back; the first [Clock] ends it.
    probe.scanned = true;
    probe.firstOffset.reset();
    LogFileReader reader(probe);
    std::optional<TimeMs> firstLocal;
    std::optional<std::int32_t> offset;
    std::optional<std::string> guid;
    bool first = true;
    reader.read(
        [&](const LogRecord& r) {
            if (first && r.tag == "Joulix")
                if (auto g = r.field("File_GUID"); g && *g != "(null)") guid = std::string(*g);
            if (!firstLocal) firstLocal = r.localTime;
            first = false;
            if (r.tag == "Clock")
                if (auto o = r.number("offset_s")) {
                    offset = static_cast<std::int32_t>(*o);
                    return false;
                }
            return true;
        },
        true);
    source.scanned = true;
    source.guid = guid;
    source.firstOffset = offset;
    if (firstLocal)
        source.firstTime = *firstLocal - static_cast<TimeMs>(offset ? *offset : localZoneOffset(*firstLocal)) * 1000;
}

std::vector<LogSource> findLogs(const LogLocations& where) {
    std::vector<LogSource> candidates;
    candidates.push_back(LogSource::at(where.current, LogSource::Kind::Current, false));
    for (const std::string& name : namesIn(where.crashReportDirectory))
        if (name.ends_with(".joulix"))
            candidates.push_back(
                LogSource::at(where.crashReportDirectory + "/" + name, LogSource::Kind::Rolled, false));
    // A log linked for compression and not yet compressed is read from its link.
    for (const std::string& name : namesIn(where.archiveDirectory))
        if (name.ends_with(".archive"))
            candidates.push_back(LogSource::at(where.archiveDirectory + "/" + name, LogSource::Kind::Archive, false));
    for (const std::string& name : namesIn(where.archiveDirectory))
        if (name.ends_with(".gz"))
            candidates.push_back(LogSource::at(where.archiveDirectory + "/" + name, LogSource::Kind::Archive, true));

    // One log has several names: the current log its link in the crash-report
    // directory, a rolled log its link and its archive. The first name found is read.
    std::set<std::pair<dev_t, ino_t>> inodes;
    std::set<std::string> keys;
    std::vector<LogSource> logs;
    for (LogSource& c : candidates) {
        struct stat st {};
        if (::lstat(c.path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
        if (!inodes.insert({st.st_dev, st.st_ino}).second) continue;
        scanLogHead(c);
        std::string name = c.path.substr(c.path.rfind('/') + 1);
        for (const char* suffix : {".gz", ".archive"})
            if (name.ends_with(suffix)) name.resize(name.size() - std::strlen(suffix));
        const std::string key = c.guid ? "guid:" + *c.guid : "name:" + name;
        if (c.kind != LogSource::Kind::Current && !keys.insert(key).second) continue;
        if (c.kind == LogSource::Kind::Current) keys.insert(key);
        logs.push_back(std::move(c));
    }
    std::stable_sort(logs.begin(), logs.end(), [](const LogSource& a, const LogSource& b) {
        if (a.firstTime && b.firstTime) return *a.firstTime < *b.firstTime;
        return a.firstTime.has_value() && !b.firstTime;
    });
    return logs;
}

LogReader::LogReader(std::vector<LogSource> sources) : sources_(std::move(sources)) {}

void LogReader::setRange(std::optional<TimeMs> since, std::optional<TimeMs> until) {
    since_ = since;
    until_ = until;
}

bool LogReader::read(const RecordSink& sink) {
    for (std::size_t i = 0; i < sources_.size(); ++i) {
        const LogSource& s = sources_[i];
        // Ordered by first time, a file ends about where the next begins.
        if (since_ && i + 1 < sources_.size() && sources_[i + 1].firstTime &&
            *sources_[i + 1].firstTime + kOverlapMs < *since_)
            continue;
        if (until_ && s.firstTime && *s.firstTime - kOverlapMs > *until_) break;
        LogFileReader reader(s);
        if (!reader.ok()) {
            ++stats_.unreadable;
            continue;
        }
        const LogFileReader::Result result = reader.read(sink, true);
        stats_ += reader.stats();
        if (result == LogFileReader::Result::Stopped) return false;
    }
    return true;
}

}  // namespace jx::analysis
