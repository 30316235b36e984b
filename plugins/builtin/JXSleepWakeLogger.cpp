// Sleep and wake: the login manager's PrepareForSleep signal where there is one,
// else the kernel's count of suspends; the wake-up source from the kernel's
// wake-up statistics.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <functional>
#include <thread>

#include "platform/JXEntry.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLoggerClass.h"
#include "platform/SdBus.h"
#include "platform/SystemLog.h"
#include "plugins/builtin/JXBuiltinLoggers.h"

namespace {

constexpr double kDefaultPeriodSeconds = 60;
constexpr const char* kLoginService = "org.freedesktop.login1";
constexpr const char* kLoginPath = "/org/freedesktop/login1";
constexpr const char* kLoginManager = "org.freedesktop.login1.Manager";

using Bus = jx::Bus;
using Slot = jx::BusSlot;
using Message = jx::BusMessage;

}  // namespace

// The system-bus connection, served by a thread of its own that waits on the
// connection and on a stop event; what arrives is handed to the logger's queue.
class JXSleepWakeLogger::BusWatch {
public:
    using Prepare = std::function<void(bool)>;
    using Lock = std::function<void(jx::FileDescriptor)>;
    using Lost = std::function<void()>;

    // nullptr when there is no bus or no login manager on it. onLost is called
    // from the watch's thread, once, when the bus goes away; the thread then ends.
    static std::unique_ptr<BusWatch> start(Prepare onPrepare, Lock onLock, Lost onLost) {
        sd_bus* raw = nullptr;
        if (sd_bus_open_system(&raw) < 0) return nullptr;
        std::unique_ptr<BusWatch> w(
            new BusWatch(Bus(raw), std::move(onPrepare), std::move(onLock), std::move(onLost)));
        if (!jx::nameHasOwner(w->bus_.get(), kLoginService)) return nullptr;
        // Added synchronously: once start returns, no signal is missed.
        sd_bus_slot* slot = nullptr;
        const std::string rule = std::string("type='signal',sender='") + kLoginService + "',path='" + kLoginPath +
                                 "',interface='" + kLoginManager + "',member='PrepareForSleep'";
        if (sd_bus_add_match(w->bus_.get(), &slot, rule.c_str(), onSignal, w.get()) < 0) return nullptr;
        w->slot_.reset(slot);
        w->stop_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (!w->stop_.valid()) return nullptr;
        w->takeLock();
        w->thread_ = std::thread([raw = w.get()] { raw->serve(); });
        return w;
    }

    ~BusWatch() {
        if (thread_.joinable()) {
            std::uint64_t one = 1;
            if (::write(stop_.get(), &one, sizeof one) < 0) {
                // An eventfd write fails only when the counter would overflow: it is set already.
            }
            thread_.join();
        }
    }

private:
    BusWatch(Bus bus, Prepare onPrepare, Lock onLock, Lost onLost)
        : bus_(std::move(bus)),
          onPrepare_(std::move(onPrepare)),
          onLock_(std::move(onLock)),
          onLost_(std::move(onLost)) {}

    // A delay lock: the login manager waits for it to be let go (or for its
    // longest delay) before the device sleeps.
    void takeLock() {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        int r = sd_bus_call_method(bus_.get(), kLoginService, kLoginPath, kLoginManager, "Inhibit", &error, &reply,
                                   "ssss", "sleep", "joulix", "Writing the sleep to the log", "delay");
        Message owned(reply);
        int fd = -1;
        if (r < 0 || sd_bus_message_read(reply, "h", &fd) < 0) {
            // Without the lock the sleep is still logged, only perhaps after the wake.
            if (!saidNoLock_)
                jx::systemLogf(jx::kLogNotice, "JXSleepWakeLogger: no delay lock: %s",
                               error.message ? error.message : strerror(-r));
            saidNoLock_ = true;
            sd_bus_error_free(&error);
            return;
        }
        sd_bus_error_free(&error);
        // The message owns the descriptor it carries: the logger gets its own.
        jx::FileDescriptor lock(::fcntl(fd, F_DUPFD_CLOEXEC, 3));
        if (lock.valid()) onLock_(std::move(lock));
    }

    static int onSignal(sd_bus_message* m, void* userdata, sd_bus_error*) {
        auto* self = static_cast<BusWatch*>(userdata);
        int start = 0;
        if (sd_bus_message_read(m, "b", &start) < 0) return 0;
        self->onPrepare_(start != 0);
        // Resumed: the next sleep needs a lock of its own.
        if (!start) self->takeLock();
        return 0;
    }

    void serve() {
        pthread_setname_np(pthread_self(), "joulix-sleep");
        for (;;) {
            int r;
            while ((r = sd_bus_process(bus_.get(), nullptr)) > 0) {
            }
            if (r < 0) {
                jx::systemLogf(jx::kLogNotice, "JXSleepWakeLogger: the system bus went away: %s", strerror(-r));
                onLost_();
                return;
            }
            pollfd fds[2] = {{sd_bus_get_fd(bus_.get()), static_cast<short>(sd_bus_get_events(bus_.get())), 0},
                             {stop_.get(), POLLIN, 0}};
            // The bus's own deadline (a pending call's), on the monotonic clock.
            std::uint64_t usec = UINT64_MAX;
            int timeout = -1;
            if (sd_bus_get_timeout(bus_.get(), &usec) >= 0 && usec != UINT64_MAX) {
                timespec ts{};
                clock_gettime(CLOCK_MONOTONIC, &ts);
                const std::uint64_t now =
                    static_cast<std::uint64_t>(ts.tv_sec) * 1000000u + static_cast<std::uint64_t>(ts.tv_nsec) / 1000u;
                timeout = usec <= now ? 0 : static_cast<int>(std::min<std::uint64_t>((usec - now + 999) / 1000, 60000));
            }
            if (::poll(fds, 2, timeout) < 0 && errno != EINTR) return;
            if (fds[1].revents) return;
        }
    }

    Bus bus_;
    Slot slot_;
    jx::FileDescriptor stop_;
    Prepare onPrepare_;
    Lock onLock_;
    Lost onLost_;
    bool saidNoLock_ = false;
    std::thread thread_;
};

JXSleepWakeLogger::JXSleepWakeLogger(std::string sysRoot)
    : JXSamplingLogger("JXSleepWakeLogger", kDefaultPeriodSeconds), sys_(std::move(sysRoot)) {}

// The watch's thread is stopped before the rest of the logger goes.
JXSleepWakeLogger::~JXSleepWakeLogger() { watch_.reset(); }

// While counting suspends, each triggered sample (rare enough to ask) looks for the
// login manager again, and else takes up a changed period setting.
void JXSleepWakeLogger::logSample() {
    if (!watch_) follow();
}

void JXSleepWakeLogger::follow() {
    std::weak_ptr<JXLogger> weak = weak_from_this();
    jx::SerialQueue* queue = &loggerSerialQueue();
    auto self = [weak] { return std::static_pointer_cast<JXSleepWakeLogger>(weak.lock()); };
    watch_ = BusWatch::start(
        [queue, self](bool start) {
            queue->async([self, start] {
                if (auto l = self()) l->prepareForSleep(start);
            });
        },
        [queue, self](jx::FileDescriptor lock) {
            auto held = std::make_shared<jx::FileDescriptor>(std::move(lock));
            queue->async([self, held] {
                if (auto l = self()) l->holdInhibitor(std::move(*held));
            });
        },
        [queue, self] {
            queue->async([self] {
                if (auto l = self()) l->busLost();
            });
        });
    if (watch_) {
        // The signal says when; the counter's timer would only log the same sleeps again.
        stopSampling();
        return;
    }
    std::optional<long long> now = jx::readKernelNumber(sys_ + "/power/suspend_stats/success");
    if (!now) {
        nothing_.say("JXSleepWakeLogger: no login manager on the system bus and no suspend statistics under " + sys_ +
                     "/power");
        suspends_.reset();
        return;
    }
    if (!suspends_) {
        suspends_ = now;
        before_ = wakeupCounts();
    }
    keepSampling();
}

void JXSleepWakeLogger::busLost() {
    // The watch's thread has ended (or is ending): joined here, on the queue.
    watch_.reset();
    inhibitor_.reset();
    suspends_.reset();
    follow();
}

void JXSleepWakeLogger::prepareForSleep(bool start) {
    if (start) {
        before_ = wakeupCounts();
        JXEntry entry("Sleep");
        entry.setObject(JXValue::valueWithString("did_sleep"), "event");
        JXLogWriter::sharedWriter().logEntry(entry);
        // In the file before the lock goes: the device may sleep the moment it does.
        JXLogWriter::sharedWriter().blockOnWriteEntries();
        inhibitor_.reset();
    } else {
        writeWake();
    }
}

void JXSleepWakeLogger::holdInhibitor(jx::FileDescriptor lock) { inhibitor_ = std::move(lock); }

void JXSleepWakeLogger::write(bool) {
    if (watch_) return;
    std::optional<long long> now = jx::readKernelNumber(sys_ + "/power/suspend_stats/success");
    if (!now || !suspends_ || *now <= *suspends_) {
        if (now) suspends_ = now;
        return;
    }
    // Counted after the fact: the sleep and the wake are written together.
    suspends_ = now;
    JXEntry entry("Sleep");
    entry.setObject(JXValue::valueWithString("did_sleep"), "event");
    JXLogWriter::sharedWriter().logEntry(entry);
    writeWake();
}

std::map<std::string, long long> JXSleepWakeLogger::wakeupCounts() const {
    std::map<std::string, long long> counts;
    const std::string dir = sys_ + "/class/wakeup/";
    for (const std::string& source : jx::listKernelDirectory(dir))
        if (std::optional<long long> n = jx::readKernelNumber(dir + source + "/wakeup_count")) counts[source] = *n;
    return counts;
}

void JXSleepWakeLogger::writeWake() {
    // The source that woke the device is the one whose count of wake-ups grew;
    // of several, the one that changed last.
    const std::string dir = sys_ + "/class/wakeup/";
    std::string reason;
    long long latest = -1;
    for (const auto& [source, count] : wakeupCounts()) {
        auto before = before_.find(source);
        if (before != before_.end() && count <= before->second) continue;
        if (before == before_.end() && count == 0) continue;
        const long long changed = jx::readKernelNumber(dir + source + "/last_change_ms").value_or(0);
        if (changed <= latest) continue;
        latest = changed;
        reason = jx::fieldText(jx::readKernelLine(dir + source + "/name").value_or(source));
    }
    // Where the kernel keeps no wake-up sources, the interrupt that woke it.
    if (reason.empty())
        if (std::optional<long long> irq = jx::readKernelNumber(sys_ + "/power/pm_wakeup_irq"))
            reason = "irq_" + std::to_string(*irq);
    before_ = wakeupCounts();
    JXEntry entry("Wake");
    entry.setObject(JXValue::valueWithString(reason.empty() ? "unknown" : reason), "reason");
    JXLogWriter::sharedWriter().logEntry(entry);
}

JX_REGISTER_LOGGER(JXSleepWakeLogger)
