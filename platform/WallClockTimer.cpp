#include "platform/WallClockTimer.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/FileDescriptor.h"
#include "platform/SystemLog.h"

namespace jx {
namespace {

// One thread waits on every pending timer's descriptor (timerfd on CLOCK_REALTIME,
// absolute), and hands each due block to its queue.
class TimerService {
public:
    static TimerService& shared() {
        static TimerService* service = new TimerService();  // lives until the process ends
        return *service;
    }

    void schedule(long seconds, long nanoseconds, SerialQueue& queue, std::function<void()> block) {
        std::lock_guard lock(mutex_);
        // Blocks due at the same moment share one descriptor: however many are
        // scheduled, only the distinct due times hold descriptors.
        const std::pair<long, long> due{seconds, nanoseconds};
        auto it = byDue_.find(due);
        if (it == byDue_.end()) {
            FileDescriptor fd(::timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK));
            if (!fd.valid()) {
                systemLogf(kLogError, "cannot create a wall-clock timer: %s", strerror(errno));
                return;
            }
            itimerspec when{};
            when.it_value.tv_sec = seconds;
            when.it_value.tv_nsec = nanoseconds;
            // A zero time would disarm the timer; the earliest real moment fires at once instead.
            if (seconds <= 0 && nanoseconds <= 0) when.it_value.tv_nsec = 1;
            if (::timerfd_settime(fd.get(), TFD_TIMER_ABSTIME, &when, nullptr) != 0) {
                systemLogf(kLogError, "cannot arm a wall-clock timer: %s", strerror(errno));
                return;
            }
            epoll_event ev{};
            ev.events = EPOLLIN;
            ev.data.fd = fd.get();
            ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd.get(), &ev);
            byFd_[fd.get()] = due;
            it = byDue_.emplace(due, Pending{std::move(fd), {}}).first;
        }
        it->second.blocks.emplace_back(&queue, std::move(block));
    }

private:
    struct Pending {
        FileDescriptor fd;
        std::vector<std::pair<SerialQueue*, std::function<void()>>> blocks;
    };

    TimerService() : epoll_(::epoll_create1(EPOLL_CLOEXEC)) { std::thread([this] { run(); }).detach(); }

    void run() {
        pthread_setname_np(pthread_self(), "joulix-timers");
        for (;;) {
            epoll_event events[16];
            int n = ::epoll_wait(epoll_.get(), events, 16, -1);
            if (n < 0) {
                if (errno == EINTR) continue;
                return;
            }
            for (int i = 0; i < n; ++i) {
                std::uint64_t expirations = 0;
                if (::read(events[i].data.fd, &expirations, sizeof expirations) != sizeof expirations) continue;
                Pending due;
                {
                    std::lock_guard lock(mutex_);
                    auto f = byFd_.find(events[i].data.fd);
                    if (f == byFd_.end()) continue;
                    auto it = byDue_.find(f->second);
                    ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, f->first, nullptr);
                    byFd_.erase(f);
                    due = std::move(it->second);
                    byDue_.erase(it);
                }
                for (auto& [queue, block] : due.blocks) queue->async(std::move(block));
            }
        }
    }

    FileDescriptor epoll_;
    std::mutex mutex_;
    std::map<std::pair<long, long>, Pending> byDue_;
    std::map<int, std::pair<long, long>> byFd_;
};

}  // namespace

void scheduleAtWallClock(long seconds, long nanoseconds, SerialQueue& queue, std::function<void()> block) {
    TimerService::shared().schedule(seconds, nanoseconds, queue, std::move(block));
}

}  // namespace jx
