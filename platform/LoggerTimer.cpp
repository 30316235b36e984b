#include "platform/LoggerTimer.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>

#include "platform/FileDescriptor.h"
#include "platform/JXLogger.h"
#include "platform/SystemLog.h"

namespace jx {

struct LoggerTimer::Timer {
    FileDescriptor fd;
    SerialQueue* queue = nullptr;
    std::function<void()> block;
    std::atomic<bool> queued{false};
    std::atomic<bool> cancelled{false};
    std::uint64_t id = 0;  // the service's number for it
};

namespace {

constexpr double kLongestPeriodSeconds = 366.0 * 86400.0;

// One thread waits on every armed timer's descriptor and hands each tick to the
// timer's queue. Timers are known by a number, never by their descriptor: a
// descriptor closed by a cancel may be reused by the next timer at once.
class LoggerTimerService {
public:
    static LoggerTimerService& shared() {
        static LoggerTimerService* service = new LoggerTimerService();  // lives until the process ends
        return *service;
    }

    bool add(const std::shared_ptr<LoggerTimer::Timer>& timer) {
        std::lock_guard lock(mutex_);
        if (!epoll_.valid()) return false;
        timer->id = ++lastId_;
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u64 = timer->id;
        if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, timer->fd.get(), &ev) != 0) return false;
        timers_[timer->id] = timer;
        if (!started_) {
            started_ = true;
            std::thread([this] { run(); }).detach();
        }
        return true;
    }

    void remove(std::uint64_t id) {
        std::shared_ptr<LoggerTimer::Timer> gone;
        std::lock_guard lock(mutex_);
        auto it = timers_.find(id);
        if (it == timers_.end()) return;
        ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, it->second->fd.get(), nullptr);
        gone = std::move(it->second);
        timers_.erase(it);
    }

private:
    LoggerTimerService() : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
        if (!epoll_.valid()) systemLogf(kLogError, "cannot wait on logger timers: %s", strerror(errno));
    }

    void run() {
        pthread_setname_np(pthread_self(), "joulix-samplers");
        for (;;) {
            epoll_event events[16];
            int n = ::epoll_wait(epoll_.get(), events, 16, -1);
            if (n < 0) {
                if (errno == EINTR) continue;
                systemLogf(kLogError, "logger timers stopped: %s", strerror(errno));
                return;
            }
            for (int i = 0; i < n; ++i) {
                std::shared_ptr<LoggerTimer::Timer> timer;
                {
                    std::lock_guard lock(mutex_);
                    auto it = timers_.find(events[i].data.u64);
                    if (it == timers_.end()) continue;
                    timer = it->second;
                }
                std::uint64_t expirations = 0;
                if (::read(timer->fd.get(), &expirations, sizeof expirations) != sizeof expirations) continue;
                if (timer->cancelled.load() || timer->queued.exchange(true)) continue;
                timer->queue->async([timer] {
                    timer->queued.store(false);
                    if (!timer->cancelled.load()) timer->block();
                });
            }
        }
    }

    FileDescriptor epoll_;
    std::mutex mutex_;
    bool started_ = false;
    std::uint64_t lastId_ = 0;
    std::map<std::uint64_t, std::shared_ptr<LoggerTimer::Timer>> timers_;
};

}  // namespace

void LoggerTimer::setPeriod(double seconds, SerialQueue& queue, std::function<void()> block) {
    cancel();
    if (!(seconds > 0) || !std::isfinite(seconds)) return;
    // A period past a year is a setting gone wrong, not a wish never to sample.
    seconds = std::min(seconds, kLongestPeriodSeconds);
    auto timer = std::make_shared<Timer>();
    timer->fd.reset(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!timer->fd.valid()) {
        systemLogf(kLogError, "cannot create a sampling timer: %s", strerror(errno));
        return;
    }
    timer->queue = &queue;
    timer->block = std::move(block);
    itimerspec when{};
    const double whole = std::floor(seconds);
    when.it_interval.tv_sec = static_cast<time_t>(whole);
    when.it_interval.tv_nsec = static_cast<long>((seconds - whole) * 1e9);
    if (when.it_interval.tv_sec == 0 && when.it_interval.tv_nsec == 0) when.it_interval.tv_nsec = 1;
    when.it_value = when.it_interval;
    if (::timerfd_settime(timer->fd.get(), 0, &when, nullptr) != 0) {
        systemLogf(kLogError, "cannot arm a sampling timer: %s", strerror(errno));
        return;
    }
    if (!LoggerTimerService::shared().add(timer)) return;
    timer_ = std::move(timer);
    period_ = seconds;
}

void LoggerTimer::cancel() {
    if (!timer_) return;
    timer_->cancelled.store(true);
    LoggerTimerService::shared().remove(timer_->id);
    timer_.reset();
    period_ = 0;
}

LoggerTimer::SamplePeriodReading LoggerTimer::readSamplePeriod(const Value& value, double defaultSeconds) {
    if (value.isNil()) return {defaultSeconds, std::nullopt};
    double n = value.doubleValue();
    if (const std::string* text = value.asString()) {
        char* end = nullptr;
        n = std::strtod(text->c_str(), &end);
        if (end == text->c_str() || *end != '\0')
            return {defaultSeconds, "'" + *text + "' is no number: sampling keeps its default period"};
    } else if (!value.isNumber()) {
        return {defaultSeconds, "it is no number: sampling keeps its default period"};
    }
    // Faster than once a second a logger would keep both cores busy and fill the log.
    if (!std::isfinite(n)) return {1.0, "it is no finite number: sampling once a second"};
    if (n < 0) return {defaultSeconds, "it is negative: sampling keeps its default period"};
    if (n > 0 && n < 1) return {1.0, "it is below one second: sampling once a second"};
    return {n, std::nullopt};
}

double LoggerTimer::samplePeriodForLogger(const std::string& loggerName, double defaultSeconds) {
    const Value value = JXLogger::settingForKey("SamplePeriod", loggerName);
    SamplePeriodReading reading = readSamplePeriod(value, defaultSeconds);
    if (reading.problem) {
        static std::mutex mutex;
        static std::map<std::string, std::string> said;
        std::lock_guard lock(mutex);
        std::string text = value.description();
        if (auto it = said.find(loggerName); it == said.end() || it->second != text) {
            said[loggerName] = text;
            systemLogf(kLogNotice, "%s: SamplePeriod %s: %s", loggerName.c_str(), text.c_str(), reading.problem->c_str());
        }
    }
    return reading.seconds;
}

}  // namespace jx

void JXSamplingLogger::keepSampling() {
    const double period = jx::LoggerTimer::samplePeriodForLogger(name(), defaultPeriod_);
    if (timer_.armed() && period == timer_.period()) return;
    std::weak_ptr<JXLogger> weak = weak_from_this();
    timer_.setPeriod(period, loggerSerialQueue(), [weak] {
        if (auto logger = weak.lock()) {
            auto* sampling = static_cast<JXSamplingLogger*>(logger.get());
            // A changed sample period takes effect from this tick on; the file is only
            // looked at (one stat) unless it changed.
            sampling->keepSampling();
            sampling->logChanges();
            sampling->noteSampled();
        }
    });
}
