// The time the log's local times are in: UTC seconds, offset and zone.
#include <sys/inotify.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>
#include <unicode/timezone.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "platform/Clock.h"
#include "platform/JXEntry.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLoggerClass.h"
#include "platform/JXUtilities.h"
#include "platform/SystemLog.h"
#include "plugins/builtin/JXBuiltinLoggers.h"

namespace {

long offsetAt(time_t t) {
    std::tm tm{};
    localtime_r(&t, &tm);
    return tm.tm_gmtoff;
}

// The zone's name as the C library takes it: TZ, else the zone /etc/localtime names,
// else /etc/timezone, else the abbreviation.
std::string zoneName(const std::string& etc, const char* abbreviation) {
    if (const char* tz = std::getenv("TZ"); tz && *tz) return *tz == ':' ? tz + 1 : tz;
    std::error_code ec;
    const std::string target = std::filesystem::read_symlink(etc + "/localtime", ec).string();
    if (const std::size_t at = target.find("zoneinfo/"); !ec && at != std::string::npos) return target.substr(at + 9);
    if (std::optional<std::string> line = jx::readKernelLine(etc + "/timezone"); line && !line->empty()) return *line;
    return abbreviation ? abbreviation : "UTC";
}

}  // namespace

JXClockLogger::JXClockLogger(std::string etcRoot) : JXLogger("JXClockLogger"), etc_(std::move(etcRoot)) {}

JXClockLogger::~JXClockLogger() {
    if (loop_ && timerSource_) loop_->removeSource(timerSource_);
    if (loop_ && etcSource_) loop_->removeSource(etcSource_);
}

void JXClockLogger::logSample() {
    lastSuspended_ = jx::Clock::current().suspendedSeconds();
    write(isNewLog() ? "new_log" : "asked");
    watch();
}

void JXClockLogger::write(const char* reason) {
    const time_t now = ::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    lastOffset_ = tm.tm_gmtoff;
    lastZone_ = zoneName(etc_, tm.tm_zone);
    JXLogWriter::sharedWriter().logEntry(clockEntry(reason, etc_));
}

JXEntry JXClockLogger::clockEntry(const char* reason, const std::string& etcRoot) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::tm tm{};
    localtime_r(&now.tv_sec, &tm);
    JXEntry e("Clock");
    e.setObject(JXValue::valueWithString(jx::formatString("%lld.%03ld", static_cast<long long>(now.tv_sec), now.tv_nsec / 1000000)),
                "utc_s");
    e.setObject(JXValue::valueWithLong(tm.tm_gmtoff), "offset_s");
    e.setObject(JXValue::valueWithString(jx::fieldText(zoneName(etcRoot, tm.tm_zone))), "zone");
    e.setObject(JXValue::valueWithString(jx::fieldText(tm.tm_zone ? tm.tm_zone : "")), "abbreviation");
    e.setObject(JXValue::valueWithBool(tm.tm_isdst > 0), "dst");
    e.setObject(JXValue::valueWithString(reason), "reason");
    return e;
}

void JXClockLogger::watch() {
    // Only a daemon's run loop serves the sources; a one-shot run has none to watch with.
    if (watching_) return;
    loop_ = JXUtilities::sharedJXRunLoop();
    if (!loop_) return;
    watching_ = true;
    std::weak_ptr<JXLogger> weak = weak_from_this();
    auto onQueue = [weak](void (JXClockLogger::*handler)()) {
        return [weak, handler] {
            if (auto self = weak.lock())
                self->loggerSerialQueue().async([weak, handler] {
                    if (auto logger = std::static_pointer_cast<JXClockLogger>(weak.lock())) ((*logger).*handler)();
                });
        };
    };
    timer_.reset(::timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC));
    if (timer_.valid()) {
        armTimer();
        timerSource_ = loop_->addSource(timer_.get(), onQueue(&JXClockLogger::onTimer));
    }
    inotify_.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (inotify_.valid() &&
        ::inotify_add_watch(inotify_.get(), etc_.c_str(), IN_CREATE | IN_MOVED_TO | IN_CLOSE_WRITE | IN_DELETE) >= 0)
        etcSource_ = loop_->addSource(inotify_.get(), onQueue(&JXClockLogger::onEtc));
}

void JXClockLogger::armTimer() {
    // The next second at which the offset differs from now's: an hour at a time for a
    // year and a bit (every zone changes at most a few times a year), then halving.
    const time_t now = ::time(nullptr);
    const long offset = offsetAt(now);
    time_t due = now + 400L * 86400;
    for (time_t t = now + 3600; t < now + 400L * 86400; t += 3600) {
        if (offsetAt(t) == offset) continue;
        time_t low = t - 3600, high = t;
        while (high - low > 1) {
            const time_t mid = low + (high - low) / 2;
            (offsetAt(mid) == offset ? low : high) = mid;
        }
        due = high;
        break;
    }
    itimerspec when{};
    when.it_value.tv_sec = due;
    if (::timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &when, nullptr) != 0)
        jx::systemLogf(jx::kLogError, "JXClockLogger: cannot arm the clock timer: %s", std::strerror(errno));
}

void JXClockLogger::onTimer() {
    std::uint64_t expirations = 0;
    const ssize_t n = ::read(timer_.get(), &expirations, sizeof expirations);
    if (n < 0 && errno == EAGAIN) return;
    // Cancelled: somebody set the wall clock, or the system resumed (the kernel cancels
    // such timers then too, and the time suspended tells the two apart). Else the
    // offset changed as the zone says.
    const bool set = n < 0 && errno == ECANCELED;
    const double suspended = jx::Clock::current().suspendedSeconds();
    const bool resumed = set && suspended > lastSuspended_;
    lastSuspended_ = suspended;
    ::tzset();
    write(resumed ? "resume" : set ? "clock_set" : "offset_change");
    armTimer();
}

void JXClockLogger::onEtc() {
    alignas(inotify_event) char buffer[4096];
    bool zone = false;
    for (ssize_t n; (n = ::read(inotify_.get(), buffer, sizeof buffer)) > 0;)
        for (char* p = buffer; p < buffer + n;) {
            auto* event = reinterpret_cast<inotify_event*>(p);
            if (event->len && (std::strcmp(event->name, "localtime") == 0 || std::strcmp(event->name, "timezone") == 0))
                zone = true;
            p += sizeof(inotify_event) + event->len;
        }
    if (!zone) return;
    // The C library reads the zone again, so that the log's own times follow it, and so
    // does ICU, whose calendars the rollover dates and the locale entry are made with.
    ::tzset();
    icu::TimeZone::adoptDefault(icu::TimeZone::detectHostTimeZone());
    std::tm tm{};
    const time_t now = ::time(nullptr);
    localtime_r(&now, &tm);
    if (tm.tm_gmtoff == lastOffset_ && zoneName(etc_, tm.tm_zone) == lastZone_) return;
    write("zone_change");
    armTimer();
}

JX_REGISTER_LOGGER(JXClockLogger)
