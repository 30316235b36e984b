// Where the processors spent the interval: each idle state's share, the share left
// active, and the time-weighted mean frequency.
#include <cctype>
#include <cmath>
#include <sstream>

#include "platform/Clock.h"
#include "platform/JXEntry.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLoggerClass.h"
#include "plugins/builtin/JXBuiltinLoggers.h"

namespace {

constexpr double kDefaultPeriodSeconds = 60;

bool isCpu(const std::string& name) {
    if (name.size() < 4 || name.compare(0, 3, "cpu") != 0) return false;
    for (std::size_t i = 3; i < name.size(); ++i)
        if (!std::isdigit(static_cast<unsigned char>(name[i]))) return false;
    return true;
}

double tenth(double v) { return std::round(v * 10) / 10; }

}  // namespace

JXCpuResidencyLogger::JXCpuResidencyLogger(std::string sysRoot)
    : JXSamplingLogger("JXCpuResidencyLogger", kDefaultPeriodSeconds), sys_(std::move(sysRoot)) {}

void JXCpuResidencyLogger::write(bool) {
    const std::string dir = sys_ + "/devices/system/cpu/";
    const double seconds = jx::Clock::current().now().secondsSince1970;
    const double interval = seconds - lastSeconds_;
    const bool haveInterval = lastSeconds_ > 0 && interval > 0;

    std::map<std::string, long long> idleUs, timeInState;
    std::map<std::string, std::pair<long long, long long>> perState;  // name → (µs, entries) over the interval
    std::map<std::string, long long> usage;
    double frequencyWeight = 0, frequencyTime = 0, currentSum = 0;
    int cpus = 0, currentCount = 0;
    for (const std::string& cpu : jx::listKernelDirectory(dir)) {
        if (!isCpu(cpu)) continue;
        ++cpus;
        const std::string idle = dir + cpu + "/cpuidle/";
        for (const std::string& state : jx::listKernelDirectory(idle)) {
            const std::string base = idle + state + "/";
            std::optional<long long> time = attributes_.number(base + "time");
            if (!time) continue;
            const std::string key = cpu + "/" + state;
            const std::string label = jx::fieldText(attributes_.line(base + "name").value_or(state));
            const long long entries = attributes_.number(base + "usage").value_or(0);
            idleUs[key] = *time;
            idleUs[key + "/usage"] = entries;
            auto before = lastIdleUs_.find(key);
            if (before == lastIdleUs_.end() || *time < before->second) continue;
            perState[label].first += *time - before->second;
            perState[label].second += entries - lastIdleUs_[key + "/usage"];
        }
        // time_in_state: "kHz time" lines, the time in 10 ms units since boot.
        if (std::optional<std::string> table = attributes_.file(dir + cpu + "/cpufreq/stats/time_in_state")) {
            std::istringstream lines(*table);
            for (long long khz = 0, ticks = 0; lines >> khz >> ticks;) {
                const std::string key = cpu + "/" + std::to_string(khz);
                timeInState[key] = ticks;
                auto before = lastTimeInState_.find(key);
                if (before == lastTimeInState_.end() || ticks < before->second) continue;
                frequencyWeight += static_cast<double>(khz) * static_cast<double>(ticks - before->second);
                frequencyTime += static_cast<double>(ticks - before->second);
            }
        } else if (std::optional<long long> khz = attributes_.number(dir + cpu + "/cpufreq/scaling_cur_freq")) {
            currentSum += static_cast<double>(*khz);
            ++currentCount;
        }
    }
    attributes_.sweep();
    if (cpus == 0 || (idleUs.empty() && timeInState.empty() && currentCount == 0))
        nothing_.say("JXCpuResidencyLogger: no cpuidle or cpufreq statistics under " + dir);

    if (haveInterval && !perState.empty()) {
        const double total = interval * 1e6 * cpus;
        double idleShare = 0;
        for (const auto& [label, held] : perState) {
            const double share = std::min(100.0, static_cast<double>(held.first) * 100 / total);
            idleShare += share;
            JXEntry e("CpuIdle");
            e.setObject(JXValue::valueWithString(label), "state");
            e.setObject(JXValue::valueWithDouble(tenth(share)), "residency_pct");
            e.setObject(JXValue::valueWithLong(held.second), "entries");
            JXLogWriter::sharedWriter().logEntry(e);
        }
        JXEntry active("CpuIdle");
        active.setObject(JXValue::valueWithString("active"), "state");
        active.setObject(JXValue::valueWithDouble(tenth(std::max(0.0, 100 - idleShare))), "residency_pct");
        JXLogWriter::sharedWriter().logEntry(active);
    }
    if ((haveInterval && frequencyTime > 0) || currentCount > 0) {
        JXEntry f("CpuFrequency");
        const bool weighted = frequencyTime > 0;
        f.setObject(JXValue::valueWithDouble(tenth(weighted ? frequencyWeight / frequencyTime / 1000 : currentSum / currentCount / 1000)),
                    "mean_mhz");
        f.setObject(JXValue::valueWithString(weighted ? "time_in_state" : "current"), "source");
        JXLogWriter::sharedWriter().logEntry(f);
    }
    lastIdleUs_ = std::move(idleUs);
    lastTimeInState_ = std::move(timeInState);
    lastSeconds_ = seconds;
}

JX_REGISTER_LOGGER(JXCpuResidencyLogger)
