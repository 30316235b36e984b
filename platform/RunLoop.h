// A thread's run loop: file-descriptor sources and blocks handed in from other
// threads, served one at a time on the thread that runs it.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "platform/FileDescriptor.h"

namespace jx {

class RunLoop {
public:
    enum class Result { Finished, Stopped, HandledSource, TimedOut };
    using SourceId = std::uint64_t;

    RunLoop();
    RunLoop(const RunLoop&) = delete;
    RunLoop& operator=(const RunLoop&) = delete;

    // The calling thread's run loop, made on first use.
    static std::shared_ptr<RunLoop> current();

    // Calls onReadable on the loop's thread whenever fd is readable. Thread-safe.
    SourceId addSource(int fd, std::function<void()> onReadable);
    void removeSource(SourceId id);
    // Runs the block on the loop's thread at its next turn. Thread-safe.
    void perform(std::function<void()> block);
    // Makes the running (or the next) run return Stopped. Thread-safe.
    void stop();
    // A loop kept alive counts as having a source even with none added: other
    // threads may hand it work at any time through perform.
    void setKeepAlive(bool on) { keepAlive_.store(on); }

    // Waits until one source is handled or one batch of blocks has run
    // (HandledSource), the loop is stopped (Stopped), or the time-out in
    // milliseconds passes (TimedOut; -1 waits without limit). With no source
    // and nothing to perform it answers Finished at once.
    Result runUntilSourceHandled(int timeoutMs = -1);

private:
    struct Source {
        int fd;
        std::shared_ptr<std::function<void()>> callback;
    };

    FileDescriptor epoll_;
    FileDescriptor wake_;
    std::mutex mutex_;
    std::map<SourceId, Source> sources_;
    std::deque<std::function<void()>> blocks_;
    SourceId nextId_ = 1;
    bool stopped_ = false;
    std::atomic<bool> keepAlive_{false};

    void wake();
};

}  // namespace jx
