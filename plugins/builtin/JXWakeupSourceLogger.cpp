// Who kept the system awake: the kernel's wake-up sources, ranked by the active time
// they held during each interval.
#include <algorithm>

#include "platform/JXEntry.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLoggerClass.h"
#include "plugins/builtin/JXBuiltinLoggers.h"

namespace {

// Rankings over five minutes, as the process monitor's: a minute's would be five times
// the lines for the same few names.
constexpr double kDefaultPeriodSeconds = 300;
constexpr std::size_t kDefaultTopCount = 5;

}  // namespace

JXWakeupSourceLogger::JXWakeupSourceLogger(std::string sysRoot)
    : JXSamplingLogger("JXWakeupSourceLogger", kDefaultPeriodSeconds), sys_(std::move(sysRoot)) {}

void JXWakeupSourceLogger::write(bool everything) {
    const std::string dir = sys_ + "/class/wakeup/";
    std::map<std::string, Counts> now;
    struct Held {
        std::string name;
        Counts delta;
        long long maxMs;
    };
    std::vector<Held> held;
    for (const std::string& source : jx::listKernelDirectory(dir)) {
        const std::string base = dir + source + "/";
        std::optional<std::string> name = attributes_.line(base + "name");
        std::optional<long long> active = attributes_.number(base + "total_time_ms");
        if (!name || !active) continue;
        Counts c{*active, attributes_.number(base + "wakeup_count").value_or(0),
                 attributes_.number(base + "event_count").value_or(0)};
        // Names repeat (one per device instance): the directory keeps them apart.
        now[source] = c;
        // A new log begins with the ranking since boot; every sample ranks its interval.
        if (everything) {
            if (c.activeMs > 0 || c.wakeups > 0)
                held.push_back({jx::fieldText(*name), c, attributes_.number(base + "max_time_ms").value_or(0)});
            continue;
        }
        auto before = last_.find(source);
        if (before == last_.end()) continue;
        const Counts d{c.activeMs - before->second.activeMs, c.wakeups - before->second.wakeups,
                       c.events - before->second.events};
        // A source that went and came back under the same number starts again.
        if (d.activeMs < 0 || d.wakeups < 0 || d.events < 0) continue;
        if (d.activeMs > 0 || d.wakeups > 0)
            held.push_back({jx::fieldText(*name), d, attributes_.number(base + "max_time_ms").value_or(0)});
    }
    attributes_.sweep();
    if (now.empty()) nothing_.say("JXWakeupSourceLogger: no wake-up source under " + dir);
    last_ = std::move(now);

    std::sort(held.begin(), held.end(), [](const Held& a, const Held& b) {
        if (a.delta.activeMs != b.delta.activeMs) return a.delta.activeMs > b.delta.activeMs;
        if (a.delta.wakeups != b.delta.wakeups) return a.delta.wakeups > b.delta.wakeups;
        return a.name < b.name;
    });
    held.resize(std::min(held.size(), topCount(kDefaultTopCount)));
    long rank = 0;
    for (const Held& h : held) {
        JXEntry e("WakeupSource");
        e.setObject(JXValue::valueWithLong(++rank), "rank");
        e.setObject(JXValue::valueWithString(everything ? "boot" : "interval"), "scope");
        e.setObject(JXValue::valueWithString(h.name), "name");
        e.setObject(JXValue::valueWithLong(h.delta.activeMs), "active_ms");
        e.setObject(JXValue::valueWithLong(h.delta.wakeups), "wakeups");
        e.setObject(JXValue::valueWithLong(h.delta.events), "events");
        e.setObject(JXValue::valueWithLong(h.maxMs), "max_active_ms");
        JXLogWriter::sharedWriter().logEntry(e);
    }
}

JX_REGISTER_LOGGER(JXWakeupSourceLogger)
