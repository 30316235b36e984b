// The processes that used the CPU most since the last sample, from /proc.
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <sstream>

#include "platform/JXEntry.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLoggerClass.h"
#include "plugins/builtin/JXBuiltinLoggers.h"

namespace {

constexpr double kDefaultPeriodSeconds = 300;
constexpr std::size_t kDefaultTopCount = 5;

struct Usage {
    int pid = 0;
    std::string name;
    unsigned long long user = 0, system = 0, start = 0;
};

// Voluntary and involuntary context switches from /proc/<pid>/status: each voluntary
// one ends a wait, so their count tells how often the process woke.
std::optional<unsigned long long> contextSwitches(const std::string& status) {
    unsigned long long total = 0;
    bool any = false;
    std::istringstream lines(status);
    for (std::string line; std::getline(lines, line);)
        if (line.rfind("voluntary_ctxt_switches:", 0) == 0 || line.rfind("nonvoluntary_ctxt_switches:", 0) == 0) {
            total += std::strtoull(line.c_str() + line.find(':') + 1, nullptr, 10);
            any = true;
        }
    return any ? std::optional<unsigned long long>(total) : std::nullopt;
}

// The systemd unit a process runs in, from the last component of its cgroup path.
std::optional<std::string> unitOf(const std::string& cgroup) {
    std::istringstream lines(cgroup);
    for (std::string line; std::getline(lines, line);) {
        const std::string path = line.substr(line.rfind(':') + 1);
        const std::string last = path.substr(path.rfind('/') + 1);
        for (const char* suffix : {".service", ".scope"})
            if (last.size() > std::strlen(suffix) && last.compare(last.size() - std::strlen(suffix), std::string::npos, suffix) == 0)
                return last;
    }
    return std::nullopt;
}

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
        std::optional<unsigned long long> switches;  // context switches since the last sample
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
        std::optional<unsigned long long> switches;
        if (std::optional<std::string> status = jx::readKernelFile(proc_ + "/" + name + "/status"))
            switches = contextSwitches(*status);
        std::optional<unsigned long long> switched;
        if (switches)
            switched = before != seen_.end() && before->second.start == usage->start && before->second.switches
                           ? *switches - std::min(*switches, *before->second.switches)
                           : *switches;
        seen[pid] = Seen{usage->start, usage->user, usage->system, switches};
        if (user + system > 0) consumers.push_back(Consumer{*usage, user, system, switched});
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
    consumers.resize(std::min(consumers.size(), topCount(kDefaultTopCount)));

    const long ticksPerSecond = std::max(1L, ::sysconf(_SC_CLK_TCK));
    auto ms = [&](unsigned long long ticks) { return static_cast<long long>(ticks * 1000ULL / ticksPerSecond); };
    for (const Consumer& c : consumers) {
        JXEntry entry("Process");
        entry.setObject(JXValue::valueWithLong(c.usage.pid), "pid");
        entry.setObject(JXValue::valueWithString(c.usage.name), "name");
        entry.setObject(JXValue::valueWithLong(ms(c.user + c.system)), "cpu_ms");
        entry.setObject(JXValue::valueWithLong(ms(c.user)), "user_ms");
        entry.setObject(JXValue::valueWithLong(ms(c.system)), "system_ms");
        if (c.switches) entry.setObject(JXValue::valueWithLong(static_cast<long long>(*c.switches)), "ctx_switches");
        // The kernel's name is cut at 15 characters: the unit and the command line say more.
        const std::string dir = proc_ + "/" + std::to_string(c.usage.pid);
        if (std::optional<std::string> cgroup = jx::readKernelFile(dir + "/cgroup"))
            if (std::optional<std::string> unit = unitOf(*cgroup)) entry.setObject(JXValue::valueWithString(jx::fieldText(*unit)), "unit");
        if (std::optional<std::string> cmdline = jx::readKernelFile(dir + "/cmdline"); cmdline && !cmdline->empty()) {
            std::string command = cmdline->substr(0, 200);
            std::replace(command.begin(), command.end(), '\0', ' ');
            if (std::string text = jx::fieldText(command); !text.empty()) entry.setObject(JXValue::valueWithString(text), "command");
        }
        JXLogWriter::sharedWriter().logEntry(entry);
    }
}

JX_REGISTER_LOGGER(JXProcessMonitorLogger)
