// The shared writer: lays entries out as lines in the log file, one thread,
// in order. Entries logged while it has no file are kept (up to a bound) and
// written to the next file it is given.
#pragma once

#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/JXEntry.h"

class JXLogWriter {
public:
    static constexpr std::size_t kDefaultPendingLimit = 50000;

    JXLogWriter();
    ~JXLogWriter();
    JXLogWriter(const JXLogWriter&) = delete;
    JXLogWriter& operator=(const JXLogWriter&) = delete;

    static JXLogWriter& sharedWriter();

    void logEntry(const JXEntry& entry);
    // An entry given as a title and a body; the body begins with a blank.
    void logEntry(const std::string& title, const std::string& body);
    // Queues the entry ahead of everything queued so far.
    void logAsFirstEntry(const JXEntry& entry);
    // The debug channel: the same line layout, in the same file.
    void logDebug(const JXEntry& entry);
    void logDebug(const std::string& title, const std::string& body);

    // The stream to write to (not owned), or nullptr. Before it lets go of a
    // usable stream the writer writes out everything queued for it.
    void setLogFile(FILE* file);
    void setLogFileEnabled(bool enabled);
    // Returns once every entry that can be written now is written and flushed.
    void blockOnWriteEntries();

    // How many entries are kept while there is no file; past it the oldest go.
    void setPendingLimit(std::size_t limit);
    std::size_t droppedCount() const;

private:
    struct Item {
        std::string line;
        bool first;
        // For the droppedEntries notice: the entries it stands for.
        std::size_t markerCount = 0;
    };
    // What one write takes out of the queue.
    struct Batch {
        FILE* file = nullptr;
        bool endTornLine = false;
        std::vector<Item> items;
    };
    void enqueue(std::string line, bool first);
    static std::string lineFor(const std::string& key, const std::string& body);
    bool usableLocked() const { return file_ && enabled_; }
    void waitIdleLocked(std::unique_lock<std::mutex>& lock);
    void writeOutLocked();
    void noteDroppedLocked();
    void boundLocked();
    // Where entries go that must follow the ones queued first (headers).
    std::deque<Item>::iterator afterFirstEntriesLocked();
    // Counts an entry that will never be written.
    void loseLocked(const Item& item);
    Batch takeBatchLocked();
    static std::size_t writeBatch(Batch& batch, int* error);
    void afterWriteLocked(Batch& batch, std::size_t done, int error);
    void run();

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable idle_;
    std::deque<Item> pending_;
    FILE* file_ = nullptr;
    bool enabled_ = false;
    bool writing_ = false;
    bool waiting_ = false;
    bool stopping_ = false;
    // The last write failed; the next entry queued allows one more try.
    bool failing_ = false;
    bool failSaid_ = false;
    // This writer's last write ended in the middle of a line.
    bool torn_ = false;
    std::size_t limit_ = kDefaultPendingLimit;
    std::size_t dropped_ = 0;
    std::size_t droppedUnreported_ = 0;
    std::thread thread_;
};
