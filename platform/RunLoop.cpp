#include "platform/RunLoop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <stdexcept>

namespace jx {
namespace {
constexpr std::uint64_t kWakeId = 0;
}

RunLoop::RunLoop()
    : epoll_(::epoll_create1(EPOLL_CLOEXEC)), wake_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (!epoll_.valid() || !wake_.valid()) throw std::runtime_error("run loop: no epoll or eventfd");
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = kWakeId;
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, wake_.get(), &ev);
}

std::shared_ptr<RunLoop> RunLoop::current() {
    thread_local std::shared_ptr<RunLoop> loop = std::make_shared<RunLoop>();
    return loop;
}

void RunLoop::wake() {
    std::uint64_t one = 1;
    ssize_t ignored = ::write(wake_.get(), &one, sizeof one);
    (void)ignored;
}

RunLoop::SourceId RunLoop::addSource(int fd, std::function<void()> onReadable) {
    std::lock_guard lock(mutex_);
    SourceId id = nextId_++;
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = id;
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &ev) != 0) return 0;
    sources_[id] = Source{fd, std::make_shared<std::function<void()>>(std::move(onReadable))};
    wake();
    return id;
}

void RunLoop::removeSource(SourceId id) {
    std::lock_guard lock(mutex_);
    auto it = sources_.find(id);
    if (it == sources_.end()) return;
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, it->second.fd, nullptr);
    sources_.erase(it);
    wake();
}

void RunLoop::perform(std::function<void()> block) {
    {
        std::lock_guard lock(mutex_);
        blocks_.push_back(std::move(block));
    }
    wake();
}

void RunLoop::stop() {
    {
        std::lock_guard lock(mutex_);
        stopped_ = true;
    }
    wake();
}

RunLoop::Result RunLoop::runUntilSourceHandled(int timeoutMs) {
    for (;;) {
        std::deque<std::function<void()>> blocks;
        {
            std::lock_guard lock(mutex_);
            if (stopped_) {
                stopped_ = false;
                return Result::Stopped;
            }
            blocks.swap(blocks_);
            if (blocks.empty() && sources_.empty() && !keepAlive_.load()) return Result::Finished;
        }
        if (!blocks.empty()) {
            for (auto& b : blocks) b();
            return Result::HandledSource;
        }
        epoll_event events[8];
        int n = ::epoll_wait(epoll_.get(), events, 8, timeoutMs);
        if (n < 0) {
            if (errno == EINTR) continue;
            return Result::Finished;
        }
        if (n == 0) return Result::TimedOut;
        std::shared_ptr<std::function<void()>> callback;
        for (int i = 0; i < n && !callback; ++i) {
            if (events[i].data.u64 == kWakeId) {
                std::uint64_t count;
                while (::read(wake_.get(), &count, sizeof count) > 0) {
                }
                continue;
            }
            std::lock_guard lock(mutex_);
            auto it = sources_.find(events[i].data.u64);
            if (it != sources_.end()) callback = it->second.callback;
        }
        if (callback) {
            (*callback)();
            return Result::HandledSource;
        }
    }
}

}  // namespace jx
