// Sleep and wake: the login manager's PrepareForSleep signal where there is one,
// else the kernel's count of suspends; the wake-up source from the kernel's
// wake-up statistics.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cmath>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <functional>
#include <thread>

#include "platform/Clock.h"
#include "platform/JXEntry.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLoggerClass.h"
#include "platform/SdBus.h"
#include "platform/JXUtilities.h"
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
JXSleepWakeLogger::~JXSleepWakeLogger() {
    watch_.reset();
    if (loop_ && resumeSource_) loop_->removeSource(resumeSource_);
}

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
        looked_ = moment();
    }
    watchResume();
    keepSampling();
}

void JXSleepWakeLogger::watchResume() {
    // Only a daemon's run loop serves the sources; a one-shot run has none to watch with.
    if (loop_) return;
    loop_ = JXUtilities::sharedJXRunLoop();
    if (!loop_) return;
    resume_.reset(::timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC));
    if (!resume_.valid()) return;
    armResume();
    std::weak_ptr<JXLogger> weak = weak_from_this();
    resumeSource_ = loop_->addSource(resume_.get(), [weak] {
        if (auto self = weak.lock())
            self->loggerSerialQueue().async([weak] {
                if (auto logger = std::static_pointer_cast<JXSleepWakeLogger>(weak.lock())) logger->onResume();
            });
    });
}

void JXSleepWakeLogger::armResume() {
    // Far ahead: the timer is there to be cancelled, not to expire.
    itimerspec when{};
    when.it_value.tv_sec = ::time(nullptr) + 400L * 86400;
    if (::timerfd_settime(resume_.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &when, nullptr) != 0)
        jx::systemLogf(jx::kLogError, "JXSleepWakeLogger: cannot arm the resume timer: %s", std::strerror(errno));
}

void JXSleepWakeLogger::onResume() {
    std::uint64_t expirations = 0;
    const ssize_t n = ::read(resume_.get(), &expirations, sizeof expirations);
    if (n < 0 && errno == EAGAIN) return;
    write(false);
    if (n < 0 && uncounted_) {
        // Woken before the kernel counted the suspend (it counts once the processes
        // thaw): look again in a second.
        itimerspec soon{};
        soon.it_value.tv_sec = 1;
        if (::timerfd_settime(resume_.get(), 0, &soon, nullptr) == 0) return;
    }
    armResume();
}

void JXSleepWakeLogger::busLost() {
    // The watch's thread has ended (or is ending): joined here, on the queue.
    watch_.reset();
    asleep_.reset();
    inhibitor_.reset();
    suspends_.reset();
    follow();
}

void JXSleepWakeLogger::prepareForSleep(bool start) {
    if (start) {
        asleep_ = moment();
        before_ = wakeupCounts();
        JXEntry entry("Sleep");
        entry.setObject(JXValue::valueWithString("did_sleep"), "event");
        JXLogWriter::sharedWriter().logEntry(entry);
        // In the file before the lock goes: the device may sleep the moment it does.
        JXLogWriter::sharedWriter().blockOnWriteEntries();
        inhibitor_.reset();
    } else {
        const Moment awake = moment();
        const std::string reason = writeWake();
        if (asleep_) writeSuspend(*asleep_, awake, "login_manager", reason, 1);
        asleep_.reset();
    }
}

void JXSleepWakeLogger::holdInhibitor(jx::FileDescriptor lock) { inhibitor_ = std::move(lock); }

void JXSleepWakeLogger::write(bool) {
    if (watch_) return;
    std::optional<long long> now = jx::readKernelNumber(sys_ + "/power/suspend_stats/success");
    const Moment look = moment();
    if (!now || !suspends_ || *now <= *suspends_) {
        if (now) suspends_ = now;
        // Time suspended that the kernel has not counted yet keeps the moment before
        // it for one more look.
        if (look.suspended <= looked_.suspended || uncounted_++ > 0) {
            looked_ = look;
            uncounted_ = 0;
        }
        return;
    }
    uncounted_ = 0;
    // Counted after the fact: the sleep and the wake are written together.
    const long long count = *now - *suspends_;
    suspends_ = now;
    JXEntry entry("Sleep");
    entry.setObject(JXValue::valueWithString("did_sleep"), "event");
    JXLogWriter::sharedWriter().logEntry(entry);
    writeSuspend(looked_, look, "suspend_stats", writeWake(), count);
    looked_ = look;
}

JXSleepWakeLogger::Moment JXSleepWakeLogger::moment() const {
    Moment m;
    jx::Clock& clock = jx::Clock::current();
    m.utc = clock.now().secondsSince1970;
    m.suspended = clock.suspendedSeconds();
    const std::string dir = sys_ + "/class/power_supply/";
    auto add = [](std::optional<double>& sum, double v) { sum = sum.value_or(0) + v; };
    for (const std::string& name : jx::listKernelDirectory(dir)) {
        const std::string base = dir + name + "/";
        if (jx::readKernelLine(base + "type").value_or("") != "Battery" || jx::readKernelNumber(base + "present") == 0LL)
            continue;
        const std::optional<long long> energy = jx::readKernelNumber(base + "energy_now");  // µWh
        const std::optional<long long> charge = jx::readKernelNumber(base + "charge_now");  // µAh
        if (charge) add(m.chargeMah, *charge / 1000.0);
        if (energy) add(m.energyMwh, *energy / 1000.0);
        else if (auto uv = jx::readKernelNumber(base + "voltage_now"); charge && uv)
            add(m.energyMwh, static_cast<double>(*charge) * static_cast<double>(*uv) / 1e9);
    }
    return m;
}

void JXSleepWakeLogger::writeSuspend(const Moment& before, const Moment& after, const char* accounting,
                                     const std::string& wokenBy, long long suspends) {
    auto tenth = [](double v) { return std::round(v * 10) / 10; };
    auto seconds = [](double v) { return JXValue::valueWithString(jx::formatString("%.3f", v)); };
    // The login manager says when the suspend began; the kernel's count only that it
    // happened since the last look, so then it began the time suspended before the wake.
    const double suspended = std::max(0.0, after.suspended - before.suspended);
    const double span = after.utc - before.utc;
    const double began = std::string(accounting) == "login_manager" ? before.utc : after.utc - suspended;
    JXEntry e("Suspend");
    e.setObject(seconds(began), "began_utc_s");
    e.setObject(seconds(after.utc), "ended_utc_s");
    e.setObject(seconds(after.utc - began), "duration_s");
    e.setObject(seconds(suspended), "suspended_s");
    if (suspends > 1) e.setObject(JXValue::valueWithLong(suspends), "suspends");
    if (before.energyMwh && after.energyMwh) {
        e.setObject(JXValue::valueWithDouble(tenth(*before.energyMwh)), "energy_before_mwh");
        e.setObject(JXValue::valueWithDouble(tenth(*after.energyMwh)), "energy_after_mwh");
        // Over the span between the two readings: the whole suspend with the login
        // manager, since the last look without it (span_s says how long that was).
        if (span > 0)
            e.setObject(JXValue::valueWithDouble(tenth((*before.energyMwh - *after.energyMwh) * 3600 / span)), "drain_mw");
    }
    if (before.chargeMah && after.chargeMah) {
        e.setObject(JXValue::valueWithDouble(tenth(*before.chargeMah)), "charge_before_mah");
        e.setObject(JXValue::valueWithDouble(tenth(*after.chargeMah)), "charge_after_mah");
    }
    e.setObject(seconds(span), "span_s");
    e.setObject(JXValue::valueWithString(wokenBy.empty() ? "unknown" : wokenBy), "woken_by");
    if (std::optional<long long> irq = jx::readKernelNumber(sys_ + "/power/pm_wakeup_irq"))
        e.setObject(JXValue::valueWithLong(*irq), "wakeup_irq");
    e.setObject(JXValue::valueWithString(accounting), "accounting");
    JXLogWriter::sharedWriter().logEntry(e);
}

std::map<std::string, long long> JXSleepWakeLogger::wakeupCounts() const {
    std::map<std::string, long long> counts;
    const std::string dir = sys_ + "/class/wakeup/";
    for (const std::string& source : jx::listKernelDirectory(dir))
        if (std::optional<long long> n = jx::readKernelNumber(dir + source + "/wakeup_count")) counts[source] = *n;
    return counts;
}

std::string JXSleepWakeLogger::writeWake() {
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
    return reason;
}

JX_REGISTER_LOGGER(JXSleepWakeLogger)
