#include "platform/JXLogWriter.h"

#include <pthread.h>

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

std::string JXLogWriter::lineFor(const std::string& key, const std::string& body) {
    std::string line;
    line.reserve(32 + key.size() + body.size());
    jx::appendLineTime(line, jx::Date::now());
    line += " [";
    line += key;
    line += ']';
    line += body;
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
        if (usableLocked()) {
            notify = waiting_;
        } else if (pending_.size() > limit_) {
            // Past the bound the oldest ordinary entry goes; headers queued first stay.
            for (auto it = pending_.begin(); it != pending_.end(); ++it)
                if (!it->first) {
                    pending_.erase(it);
                    ++dropped_;
                    ++droppedUnreported_;
                    break;
                }
        }
    }
    if (notify) wake_.notify_one();
}

void JXLogWriter::noteDroppedLocked() {
    if (!droppedUnreported_) return;
    jx::systemLogf(jx::kLogWarning, "log writer: %zu entries were dropped while no log file was open",
                   droppedUnreported_);
    // The notice stands where the lost entries were: after the entries queued first.
    auto pos = pending_.begin();
    while (pos != pending_.end() && pos->first) ++pos;
    pending_.insert(pos, Item{lineFor("LogWriter", " droppedEntries=" + std::to_string(droppedUnreported_) + ";"),
                              false});
    droppedUnreported_ = 0;
}

void JXLogWriter::waitIdleLocked(std::unique_lock<std::mutex>& lock) {
    idle_.wait(lock, [this] { return !writing_; });
}

// Writes everything pending into the file from the calling thread; the writer
// thread is idle (waitIdleLocked) while this runs under the lock.
void JXLogWriter::writeOutLocked() {
    noteDroppedLocked();
    std::string batch;
    for (auto& item : pending_) batch += item.line;
    pending_.clear();
    if (!batch.empty()) std::fwrite(batch.data(), 1, batch.size(), file_);
    std::fflush(file_);
}

void JXLogWriter::setLogFile(FILE* file) {
    std::unique_lock lock(mutex_);
    waitIdleLocked(lock);
    if (file == file_) return;
    if (usableLocked() && !pending_.empty()) writeOutLocked();
    file_ = file;
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
    idle_.wait(lock, [this] { return !writing_ && (pending_.empty() || !usableLocked()); });
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
    std::string batch;
    std::unique_lock lock(mutex_);
    for (;;) {
        waiting_ = true;
        wake_.wait(lock, [this] { return stopping_ || (usableLocked() && !pending_.empty()); });
        waiting_ = false;
        if (stopping_) return;
        noteDroppedLocked();
        batch.clear();
        for (auto& item : pending_) batch += item.line;
        pending_.clear();
        FILE* file = file_;
        writing_ = true;
        lock.unlock();
        std::fwrite(batch.data(), 1, batch.size(), file);
        std::fflush(file);
        lock.lock();
        writing_ = false;
        idle_.notify_all();
    }
}
