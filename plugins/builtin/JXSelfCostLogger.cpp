// The daemon's own cost, logged like any other consumer's: no peer logs its own.
#include <sys/resource.h>

#include <cmath>

#include "platform/Clock.h"
#include "platform/JXEntry.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLoggerClass.h"
#include "plugins/builtin/JXBuiltinLoggers.h"

namespace {

constexpr double kDefaultPeriodSeconds = 3600;

}  // namespace

// The first entry counts from the logger's start, which is the daemon's.
JXSelfCostLogger::JXSelfCostLogger()
    : JXSamplingLogger("JXSelfCostLogger", kDefaultPeriodSeconds),
      lastSeconds_(jx::Clock::current().now().secondsSince1970) {}

void JXSelfCostLogger::write(bool) {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    const long long cpuUs = (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000000LL + usage.ru_utime.tv_usec +
                            usage.ru_stime.tv_usec;
    // Every switch away from one of its threads: each voluntary one is a wait ended by a wake-up.
    const long long switches = usage.ru_nvcsw + usage.ru_nivcsw;
    const double seconds = jx::Clock::current().now().secondsSince1970;
    JXEntry e("SelfCost");
    e.setObject(JXValue::valueWithLong((cpuUs - lastCpuUs_) / 1000), "cpu_ms");
    e.setObject(JXValue::valueWithLong(switches - lastSwitches_), "wakeups");
    e.setObject(JXValue::valueWithLong(std::llround(seconds - lastSeconds_)), "interval_s");
    e.setObject(JXValue::valueWithLong(usage.ru_maxrss), "max_rss_kb");
    JXLogWriter::sharedWriter().logEntry(e);
    lastCpuUs_ = cpuUs;
    lastSwitches_ = switches;
    lastSeconds_ = seconds;
}

JX_REGISTER_LOGGER(JXSelfCostLogger)
