// The energy counters of the powercap class (RAPL on x86): package, cores, uncore,
// memory and the whole platform, each as energy over the interval and mean power.
#include <time.h>

#include <cmath>

#include "platform/Clock.h"
#include "platform/JXEntry.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLoggerClass.h"
#include "platform/SystemLog.h"
#include "plugins/builtin/JXBuiltinLoggers.h"

namespace {

constexpr double kDefaultPeriodSeconds = 60;

// The platform's clock, so that tests can move it; an interval that is not positive
// (the clock was set back) starts the interval again.
double monotonicSeconds() { return jx::Clock::current().now().secondsSince1970; }

}  // namespace

JXPowercapLogger::JXPowercapLogger(std::string sysRoot)
    : JXSamplingLogger("JXPowercapLogger", kDefaultPeriodSeconds), sys_(std::move(sysRoot)) {}

void JXPowercapLogger::write(bool) {
    const std::string dir = sys_ + "/class/powercap/";
    std::map<std::string, Reading> now;
    const double at = monotonicSeconds();
    for (const std::string& zone : jx::listKernelDirectory(dir)) {
        const std::string base = dir + zone + "/";
        // The control type ("intel-rapl") has no counter of its own; a counter only root
        // may read is no counter to us either.
        std::optional<long long> energy = attributes_.number(base + "energy_uj");
        if (!energy || *energy < 0) continue;
        now[zone] = Reading{*energy, at};

        auto before = last_.find(zone);
        if (before == last_.end()) continue;  // the first reading only starts the interval
        long long delta = *energy - before->second.energyUj;
        if (delta < 0) {
            // Wrapped: the counter runs from 0 up to its range and starts again.
            const std::optional<long long> range = jx::readKernelNumber(base + "max_energy_range_uj");
            if (!range || *range <= 0 || before->second.energyUj > *range) {
                if (++implausible_ == 1 || (implausible_ & (implausible_ - 1)) == 0)
                    jx::systemLogf(jx::kLogNotice, "JXPowercapLogger: %s went back from %lld to %lld µJ without a range to wrap at: not logged (%lu times)",
                                   zone.c_str(), before->second.energyUj, *energy, implausible_);
                continue;
            }
            delta = (*range - before->second.energyUj) + *energy;
        }
        const double seconds = at - before->second.seconds;
        if (seconds <= 0) continue;
        JXEntry e("Powercap");
        e.setObject(JXValue::valueWithString(jx::fieldText(zone)), "zone");
        e.setObject(JXValue::valueWithString(jx::fieldText(attributes_.line(base + "name").value_or(zone))), "name");
        e.setObject(JXValue::valueWithLong(delta), "energy_uj");
        e.setObject(JXValue::valueWithLong(std::llround(seconds * 1000)), "interval_ms");
        // µJ per second is µW: a thousandth of that in mW, to a tenth.
        e.setObject(JXValue::valueWithDouble(std::round(static_cast<double>(delta) / seconds / 100.0) / 10.0), "power_mw");
        JXLogWriter::sharedWriter().logEntry(e);
    }
    attributes_.sweep();
    if (now.empty()) nothing_.say("JXPowercapLogger: no energy counter under " + dir);
    last_ = std::move(now);
}

JX_REGISTER_LOGGER(JXPowercapLogger)
