#include "analysis/LogFollower.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace jx::analysis {

LogFollower::LogFollower(std::string currentPath) : path_(std::move(currentPath)) {
    stopEvent_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

LogFollower::~LogFollower() {
    if (inotify_ >= 0) ::close(inotify_);
    if (stopEvent_ >= 0) ::close(stopEvent_);
}

void LogFollower::stop() {
    const std::uint64_t one = 1;
    if (::write(stopEvent_, &one, sizeof one) < 0) {
        // The counter is full only after 2^64 - 2 stops: it is already set.
    }
}

void LogFollower::openCurrent() {
    LogSource source = LogSource::at(path_, LogSource::Kind::Current);
    auto reader = std::make_unique<LogFileReader>(source);
    if (!reader->ok()) {
        reader_.reset();
        return;
    }
    // A new log's first lines come before its first [Clock]: they take the
    // previous log's offset when they must go out before it.
    reader->setFallbackOffset(lastOffset_);
    reader_ = std::move(reader);
}

bool LogFollower::drain(const RecordSink& sink, bool atEnd) {
    if (!reader_) return true;
    const ReadStats before = reader_->stats();
    const bool stopped = reader_->read(sink, atEnd) == LogFileReader::Result::Stopped;
    const ReadStats& after = reader_->stats();
    stats_.records += after.records - before.records;
    stats_.malformed += after.malformed - before.malformed;
    stats_.zeroBytes += after.zeroBytes - before.zeroBytes;
    stats_.unreadable += after.unreadable - before.unreadable;
    if (reader_->lastOffset()) lastOffset_ = reader_->lastOffset();
    return !stopped;
}

bool LogFollower::run(const RecordSink& sink, std::string* why, const std::function<void()>& onIdle) {
    const std::size_t slash = path_.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path_.substr(0, slash);
    inotify_ = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    // Watched before the log is opened: nothing written after the open goes unseen.
    if (inotify_ < 0 || ::inotify_add_watch(inotify_, dir.c_str(),
                                            IN_MODIFY | IN_CLOSE_WRITE | IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM |
                                                IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF) < 0) {
        if (why) *why = dir + ": " + std::strerror(errno);
        return false;
    }
    openCurrent();
    if (reader_) ++stats_.files;
    for (;;) {
        if (!drain(sink, false)) return true;
        // Whatever is at the name now: the same file, a new one (a roll, a file made
        // again) or nothing yet.
        struct stat st {};
        const bool present = ::stat(path_.c_str(), &st) == 0;
        if (reader_ && present && st.st_ino == reader_->inode() && st.st_dev == reader_->device() &&
            static_cast<std::uint64_t>(st.st_size) < reader_->position()) {
            // Cut back in place: read it again from its start.
            reader_.reset();
        }
        if (!reader_ || !present || st.st_ino != reader_->inode() || st.st_dev != reader_->device()) {
            // The old file has had its last lines: finish it, then take the new one.
            if (!drain(sink, true)) return true;
            reader_.reset();
            if (present) {
                openCurrent();
                if (reader_) {
                    ++stats_.files;
                    continue;
                }
            }
        } else if (reader_ && !reader_->flushPending(sink)) {
            // Nothing more for now: held lines of a log whose [Clock] is late go out.
            return true;
        }
        if (onIdle) onIdle();
        pollfd fds[2] = {{inotify_, POLLIN, 0}, {stopEvent_, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0 && errno != EINTR) {
            if (why) *why = std::string("poll: ") + std::strerror(errno);
            return false;
        }
        if (fds[1].revents & POLLIN) return true;
        alignas(inotify_event) char events[8192];
        bool selfGone = false;
        for (ssize_t n; (n = ::read(inotify_, events, sizeof events)) > 0;)
            for (char* p = events; p < events + n;) {
                auto* e = reinterpret_cast<inotify_event*>(p);
                if (e->mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) selfGone = true;
                p += sizeof(inotify_event) + e->len;
            }
        if (selfGone) {
            drain(sink, true);
            if (why) *why = dir + ": the log directory went away";
            return false;
        }
    }
}

}  // namespace jx::analysis
