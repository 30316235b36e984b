// Each network interface's traffic counters, from /proc/net/dev.
#include <sstream>

#include "platform/JXEntry.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLoggerClass.h"
#include "plugins/builtin/JXBuiltinLoggers.h"

namespace {

constexpr double kDefaultPeriodSeconds = 300;

// The columns of /proc/net/dev after "name:", in the kernel's order, and those logged.
enum Column {
    kRxBytes = 0,
    kRxPackets = 1,
    kRxErrors = 2,
    kTxBytes = 8,
    kTxPackets = 9,
    kTxErrors = 10,
    kColumns = 16
};
const struct {
    Column column;
    const char* field;
} kLogged[] = {{kRxBytes, "rx_bytes"},     {kRxPackets, "rx_packets"}, {kTxBytes, "tx_bytes"},
               {kTxPackets, "tx_packets"}, {kRxErrors, "rx_errors"},   {kTxErrors, "tx_errors"}};

}  // namespace

JXNetworkLogger::JXNetworkLogger(std::string procRoot)
    : JXSamplingLogger("JXNetworkLogger", kDefaultPeriodSeconds), proc_(std::move(procRoot)) {}

void JXNetworkLogger::write(bool everything) {
    std::optional<std::string> table = jx::readKernelFile(proc_ + "/net/dev");
    std::map<std::string, std::vector<unsigned long long>> now;
    if (table) {
        std::istringstream lines(*table);
        for (std::string line; std::getline(lines, line);) {
            // The two heading lines have a '|' and no name ending in ':' before it.
            std::size_t colon = line.find(':');
            if (colon == std::string::npos || line.find('|') != std::string::npos) continue;
            std::string name = jx::fieldText(line.substr(0, colon));
            std::istringstream numbers(line.substr(colon + 1));
            std::vector<unsigned long long> counters;
            for (unsigned long long n; numbers >> n;) counters.push_back(n);
            if (name.empty() || counters.size() < kColumns) continue;
            now[name] = std::move(counters);
        }
    }
    if (now.empty()) {
        nothing_.say("JXNetworkLogger: no interface counters in " + proc_ + "/net/dev");
        last_.clear();
        return;
    }
    for (const auto& [name, counters] : now) {
        auto before = last_.find(name);
        if (!everything && before != last_.end() && before->second == counters) continue;
        JXEntry entry("Network");
        entry.setObject(JXValue::valueWithString(name), "interface");
        for (const auto& logged : kLogged)
            entry.setObject(JXValue::valueWithLong(static_cast<long long>(counters[logged.column])), logged.field);
        JXLogWriter::sharedWriter().logEntry(entry);
    }
    last_ = std::move(now);
}

JX_REGISTER_LOGGER(JXNetworkLogger)
