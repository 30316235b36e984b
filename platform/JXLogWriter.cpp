#include "platform/JXLogWriter.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "platform/LogTime.h"
#include "platform/SystemLog.h"

JXLogWriter::JXLogWriter() : thread_([this] { run(); }) {}

JXLogWriter::~JXLogWriter() {
    {
        std::unique_lock lock(mutex_);
        waitIdleLocked(lock);
        if (usableLocked()) writeOutLocked();
        stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

JXLogWriter& JXLogWriter::sharedWriter() {
    // Never destroyed: loggers may still log while the process exits.
    static JXLogWriter* writer = new JXLogWriter();
    return *writer;
}

namespace {

bool needsEscape(unsigned char c, unsigned char next) { return c < 0x20 || c == 0x7F || (c == 0xC2 && next >= 0x80 && next <= 0x9F); }

// Control characters never reach the log as they are: a tab would read as a field's
// end to some readers, and an escape sequence in a process name would drive the
// terminal of whoever runs cat on the log. C0 controls, DEL and the C1 controls
// (as UTF-8) are written as \t, \n, \r or \xNN; everything else is kept.
void appendEscaped(std::string& out, std::string_view text) {
    std::size_t i = 0;
    for (; i < text.size(); ++i)
        if (needsEscape(static_cast<unsigned char>(text[i]), i + 1 < text.size() ? text[i + 1] : 0)) break;
    out.append(text.substr(0, i));
    static const char kHex[] = "0123456789abcdef";
    for (; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
        if (!needsEscape(c, next)) {
            out += static_cast<char>(c);
            continue;
        }
        auto hex = [&](unsigned char b) {
            out += "\\x";
            out += kHex[b >> 4];
            out += kHex[b & 0xF];
        };
        if (c == '\t') out += "\\t";
        else if (c == '\n') out += "\\n";
        else if (c == '\r') out += "\\r";
        else if (c == 0xC2) {
            hex(c);
            hex(next);
            ++i;
        } else hex(c);
    }
}

}  // namespace

std::string JXLogWriter::lineFor(const std::string& key, const std::string& body) {
    std::string line;
    line.reserve(32 + key.size() + body.size());
    jx::appendLineTime(line, jx::Date::now());
    line += " [";
    appendEscaped(line, key);
    line += ']';
    appendEscaped(line, body);
    line += '\n';
    return line;
}

void JXLogWriter::logEntry(const JXEntry& entry) { enqueue(lineFor(entry.key(), " " + entry.renderFields()), false); }
void JXLogWriter::logEntry(const std::string& title, const std::string& body) { enqueue(lineFor(title, body), false); }
void JXLogWriter::logAsFirstEntry(const JXEntry& entry) {
    enqueue(lineFor(entry.key(), " " + entry.renderFields()), true);
}
void JXLogWriter::logDebug(const JXEntry& entry) { enqueue(lineFor(entry.key(), " " + entry.renderFields()), false); }
void JXLogWriter::logDebug(const std::string& title, const std::string& body) { enqueue(lineFor(title, body), false); }

void JXLogWriter::enqueue(std::string line, bool first) {
    bool notify = false;
    {
        std::lock_guard lock(mutex_);
        if (first) pending_.push_front(Item{std::move(line), true});
        else pending_.push_back(Item{std::move(line), false});
        boundLocked();
        // After a failed write the writer tries again when something new is to be
        // written: no timer, no retry loop on a full disk.
        failing_ = false;
        if (usableLocked()) notify = waiting_;
    }
    if (notify) wake_.notify_one();
}

std::deque<JXLogWriter::Item>::iterator JXLogWriter::afterFirstEntriesLocked() {
    auto it = pending_.begin();
    while (it != pending_.end() && it->first) ++it;
    return it;
}

void JXLogWriter::loseLocked(const Item& item) {
    // A droppedEntries notice that is lost stands for the entries it counted.
    const std::size_t lost = item.markerCount ? item.markerCount : 1;
    dropped_ += lost;
    droppedUnreported_ += lost;
}

void JXLogWriter::boundLocked() {
    // Past the bound the oldest ordinary entry goes; headers queued first stay.
    while (pending_.size() > limit_) {
        auto it = afterFirstEntriesLocked();
        if (it == pending_.end()) return;
        loseLocked(*it);
        pending_.erase(it);
    }
}

void JXLogWriter::noteDroppedLocked() {
    if (!droppedUnreported_) return;
    jx::systemLogf(jx::kLogWarning, "log writer: %zu entries were dropped while no log file was open or the log could not be written",
                   droppedUnreported_);
    // The notice stands where the lost entries were: after the entries queued first.
    pending_.insert(afterFirstEntriesLocked(), Item{lineFor("LogWriter", " droppedEntries=" + std::to_string(droppedUnreported_) + ";"), false,
                              droppedUnreported_});
    droppedUnreported_ = 0;
}

void JXLogWriter::waitIdleLocked(std::unique_lock<std::mutex>& lock) {
    idle_.wait(lock, [this] { return !writing_; });
}

JXLogWriter::Batch JXLogWriter::takeBatchLocked() {
    noteDroppedLocked();
    Batch batch;
    batch.file = file_;
    // A line this writer left half-written (the disk filled up in its middle) is ended
    // first, so that no entry is glued onto it.
    batch.endTornLine = torn_;
    batch.items.assign(std::make_move_iterator(pending_.begin()), std::make_move_iterator(pending_.end()));
    pending_.clear();
    return batch;
}

std::size_t JXLogWriter::writeBatch(Batch& batch, int* error) {
    std::string bytes;
    if (batch.endTornLine) bytes += '\n';
    for (const Item& item : batch.items) bytes += item.line;
    *error = 0;
    // Written through the descriptor, so that a failed or short write is seen and
    // nothing is left in a stream's buffer to be glued to what comes later.
    std::fflush(batch.file);
    const int fd = fileno(batch.file);
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            *error = n < 0 ? errno : ENOSPC;
            break;
        }
        done += static_cast<std::size_t>(n);
    }
    return done;
}

void JXLogWriter::afterWriteLocked(Batch& batch, std::size_t done, int error) {
    if (!error) {
        torn_ = false;
        if (failSaid_) jx::systemLog(jx::kLogNotice, "log writer: the log can be written again");
        failSaid_ = false;
        return;
    }
    // Whole lines are on disk up to the first one cut short: that one is lost (half of
    // it is in the file, and is ended before the next write); the rest wait to be written.
    bool keepRest = false;
    if (batch.endTornLine) {
        if (done == 0) keepRest = true;  // still torn
        else {
            done -= 1;
            torn_ = false;
        }
    }
    std::deque<Item> kept;
    std::size_t offset = 0;
    for (Item& item : batch.items) {
        if (!keepRest) {
            const std::size_t end = offset + item.line.size();
            if (end <= done) {
                offset = end;
                continue;
            }
            keepRest = true;
            if (offset < done) {
                torn_ = true;
                loseLocked(item);
                continue;
            }
        }
        kept.push_back(std::move(item));
    }
    pending_.insert(afterFirstEntriesLocked(), std::make_move_iterator(kept.begin()), std::make_move_iterator(kept.end()));
    boundLocked();
    failing_ = true;
    if (!failSaid_) {
        failSaid_ = true;
        jx::systemLogf(jx::kLogError,
                       "log writer: cannot write the log: %s: entries are kept (at most %zu) and written when it can be",
                       std::strerror(error), limit_);
    }
}

// Writes everything pending into the file from the calling thread; the writer
// thread is idle (waitIdleLocked) while this runs under the lock.
void JXLogWriter::writeOutLocked() {
    Batch batch = takeBatchLocked();
    int error = 0;
    std::size_t done = writeBatch(batch, &error);
    afterWriteLocked(batch, done, error);
}

void JXLogWriter::setLogFile(FILE* file) {
    std::unique_lock lock(mutex_);
    waitIdleLocked(lock);
    if (file == file_) return;
    if (usableLocked() && !pending_.empty()) writeOutLocked();
    file_ = file;
    // A half line belongs to the file it is in; a new file may take what the old could not.
    torn_ = false;
    failing_ = false;
    if (usableLocked() && !pending_.empty()) wake_.notify_one();
    idle_.notify_all();
}

void JXLogWriter::setLogFileEnabled(bool enabled) {
    std::unique_lock lock(mutex_);
    waitIdleLocked(lock);
    if (enabled == enabled_) return;
    if (!enabled && usableLocked()) writeOutLocked();
    enabled_ = enabled;
    if (usableLocked() && !pending_.empty()) wake_.notify_one();
    idle_.notify_all();
}

void JXLogWriter::blockOnWriteEntries() {
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [this] { return !writing_ && (pending_.empty() || !usableLocked() || failing_); });
}

void JXLogWriter::setPendingLimit(std::size_t limit) {
    std::lock_guard lock(mutex_);
    limit_ = limit;
}

std::size_t JXLogWriter::droppedCount() const {
    std::lock_guard lock(mutex_);
    return dropped_;
}

void JXLogWriter::run() {
    pthread_setname_np(pthread_self(), "joulix-writer");
    std::unique_lock lock(mutex_);
    for (;;) {
        waiting_ = true;
        wake_.wait(lock, [this] { return stopping_ || (usableLocked() && !pending_.empty() && !failing_); });
        waiting_ = false;
        if (stopping_) return;
        Batch batch = takeBatchLocked();
        writing_ = true;
        lock.unlock();
        int error = 0;
        std::size_t done = writeBatch(batch, &error);
        lock.lock();
        writing_ = false;
        afterWriteLocked(batch, done, error);
        idle_.notify_all();
    }
}
