// The processes that used the CPU most since the last sample, from /proc.
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <sstream>

#include "platform/JXEntry.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLoggerClass.h"
#include "plugins/builtin/JXBuiltinLoggers.h"

namespace {

constexpr double kDefaultPeriodSeconds = 300;
constexpr long kDefaultTopCount = 5;

struct Usage {
    int pid = 0;
    std::string name;
    unsigned long long user = 0, system = 0, start = 0;
};

// One /proc/<pid>/stat line: "pid (comm) state ppid …"; the name may hold blanks
// and parentheses, so the fields are counted from the last ')'.
std::optional<Usage> readStat(const std::string& text, int pid) {
    std::size_t open = text.find('(');
    std::size_t close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open) return std::nullopt;
    std::istringstream rest(text.substr(close + 1));
    std::vector<std::string> fields;
    for (std::string f; rest >> f;) fields.push_back(f);
    // After the name: state is field 3; utime 14, stime 15, starttime 22.
    if (fields.size() < 20) return std::nullopt;
    Usage u;
    u.pid = pid;
    u.name = jx::fieldText(text.substr(open + 1, close - open - 1));
    u.user = std::strtoull(fields[11].c_str(), nullptr, 10);
    u.system = std::strtoull(fields[12].c_str(), nullptr, 10);
    u.start = std::strtoull(fields[19].c_str(), nullptr, 10);
    return u;
}

}  // namespace

JXProcessMonitorLogger::JXProcessMonitorLogger(std::string procRoot)
    : JXSamplingLogger("JXProcessMonitorLogger", kDefaultPeriodSeconds), proc_(std::move(procRoot)) {}

void JXProcessMonitorLogger::write(bool) {
    struct Consumer {
        Usage usage;
        unsigned long long user, system;  // ticks since the last sample
    };
    std::vector<Consumer> consumers;
    std::map<int, Seen> seen;
    bool anyProcess = false;
    for (const std::string& name : jx::listKernelDirectory(proc_)) {
        if (name.empty() || !std::all_of(name.begin(), name.end(), [](unsigned char c) { return std::isdigit(c); }))
            continue;
        const int pid = std::atoi(name.c_str());
        // A process may end between the listing and the read: it is simply not counted.
        std::optional<std::string> text = jx::readKernelFile(proc_ + "/" + name + "/stat");
        if (!text) continue;
        std::optional<Usage> usage = readStat(*text, pid);
        if (!usage) continue;
        anyProcess = true;
        unsigned long long user = usage->user, system = usage->system;
        // A process seen last time is charged only what it used since; a new one
        // (or a new one with an old pid) everything it has used.
        auto before = seen_.find(pid);
        if (before != seen_.end() && before->second.start == usage->start) {
            user = user >= before->second.user ? user - before->second.user : 0;
            system = system >= before->second.system ? system - before->second.system : 0;
        }
        seen[pid] = Seen{usage->start, usage->user, usage->system};
        if (user + system > 0) consumers.push_back(Consumer{*usage, user, system});
    }
    seen_ = std::move(seen);
    if (!anyProcess) {
        nothing_.say("JXProcessMonitorLogger: no process statistics under " + proc_);
        return;
    }

    std::sort(consumers.begin(), consumers.end(), [](const Consumer& a, const Consumer& b) {
        const auto ta = a.user + a.system, tb = b.user + b.system;
        return ta != tb ? ta > tb : a.usage.pid < b.usage.pid;
    });
    long top = kDefaultTopCount;
    jx::Value setting = settingForKey("TopCount", name());
    if (!setting.isNil() && setting.integerValue() > 0) top = static_cast<long>(setting.integerValue());
    if (consumers.size() > static_cast<std::size_t>(top)) consumers.resize(static_cast<std::size_t>(top));

    const long ticksPerSecond = std::max(1L, ::sysconf(_SC_CLK_TCK));
    auto ms = [&](unsigned long long ticks) { return static_cast<long long>(ticks * 1000ULL / ticksPerSecond); };
    for (const Consumer& c : consumers) {
        JXEntry entry("Process");
        entry.setObject(JXValue::valueWithLong(c.usage.pid), "pid");
        entry.setObject(JXValue::valueWithString(c.usage.name), "name");
        entry.setObject(JXValue::valueWithLong(ms(c.user + c.system)), "cpu_ms");
        entry.setObject(JXValue::valueWithLong(ms(c.user)), "user_ms");
        entry.setObject(JXValue::valueWithLong(ms(c.system)), "system_ms");
        JXLogWriter::sharedWriter().logEntry(entry);
    }
}

JX_REGISTER_LOGGER(JXProcessMonitorLogger)
