// Each wireless interface's link and signal: the link from the interface's
// operational state, the signal from the kernel's wireless statistics table.
#include <filesystem>
#include <sstream>

#include "platform/JXEntry.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLoggerClass.h"
#include "plugins/builtin/JXBuiltinLoggers.h"

namespace {

constexpr double kDefaultPeriodSeconds = 60;
// The signal moves by a decibel or two between any two readings; a tick writes it
// again once it moved by this much.
constexpr long kSignalStepDb = 5;
// The statistics table's "no value" for the noise level.
constexpr long kNoNoise = -256;

struct Statistics {
    long quality = 0, signal = 0, noise = kNoNoise;
};

// /proc/net/wireless: two heading lines, then "wlan0: 0000   70.  -40.  -256 …"
// (status, link quality, signal level in dBm, noise level).
std::map<std::string, Statistics> readStatistics(const std::string& path) {
    std::map<std::string, Statistics> out;
    std::optional<std::string> table = jx::readKernelFile(path);
    if (!table) return out;
    std::istringstream lines(*table);
    for (std::string line; std::getline(lines, line);) {
        std::size_t colon = line.find(':');
        if (colon == std::string::npos || line.find('|') != std::string::npos) continue;
        std::istringstream fields(line.substr(colon + 1));
        std::string status;
        double quality = 0, signal = 0, noise = 0;
        if (!(fields >> status >> quality)) continue;
        fields.ignore(1);  // the '.' that marks a value updated since the last read
        if (!(fields >> signal)) continue;
        fields.ignore(1);
        if (!(fields >> noise)) noise = kNoNoise;
        out[jx::fieldText(line.substr(0, colon))] =
            Statistics{static_cast<long>(quality), static_cast<long>(signal), static_cast<long>(noise)};
    }
    return out;
}

}  // namespace

JXWiFiLogger::JXWiFiLogger(std::string sysRoot, std::string procRoot)
    : JXSamplingLogger("JXWiFiLogger", kDefaultPeriodSeconds),
      sys_(std::move(sysRoot)),
      proc_(std::move(procRoot)),
      askRadio_(sys_ == "/sys") {}

void JXWiFiLogger::write(bool everything) {
    const std::string net = sys_ + "/class/net/";
    const std::map<std::string, Statistics> statistics = readStatistics(proc_ + "/net/wireless");
    std::map<std::string, Reading> now;
    for (const std::string& name : jx::listKernelDirectory(net)) {
        // A wireless interface has its radio ("phy80211") or the wireless extensions' directory.
        std::error_code ec;
        if (!std::filesystem::is_directory(net + name + "/phy80211", ec) &&
            !std::filesystem::is_directory(net + name + "/wireless", ec))
            continue;
        Reading r;
        r.link = jx::readKernelLine(net + name + "/operstate").value_or("") == "up";
        auto s = statistics.find(name);
        if (r.link && s != statistics.end()) r.statistics = {s->second.quality, s->second.signal, s->second.noise};
        now[name] = r;
    }
    if (now.empty()) {
        nothing_.say("JXWiFiLogger: no wireless interface under " + net);
        last_.clear();
        return;
    }
    for (const auto& [name, r] : now) {
        auto before = last_.find(name);
        if (!everything && before != last_.end()) {
            const Reading& b = before->second;
            const bool moved = r.statistics.size() != b.statistics.size() ||
                               (!r.statistics.empty() && std::labs(r.statistics[1] - b.statistics[1]) >= kSignalStepDb);
            if (r.link == b.link && !moved) {
                now[name] = b;  // the log still says what it said
                continue;
            }
        }
        JXEntry entry("WiFi");
        entry.setObject(JXValue::valueWithString(name), "interface");
        entry.setObject(JXValue::valueWithBool(r.link), "link");
        if (!r.statistics.empty()) {
            entry.setObject(JXValue::valueWithLong(r.statistics[0]), "quality");
            entry.setObject(JXValue::valueWithLong(r.statistics[1]), "signal");
            if (r.statistics[2] > kNoNoise) entry.setObject(JXValue::valueWithLong(r.statistics[2]), "noise");
        }
        // Megabits per second; the kernel counts in hundreds of kilobits.
        std::optional<long long> index = jx::readKernelNumber(net + name + "/ifindex");
        if (r.link && askRadio_ && index && *index > 0)
            if (std::optional<std::uint32_t> rate = radio_.stationTxBitrate(static_cast<unsigned>(*index)))
                entry.setObject(JXValue::valueWithDouble(*rate / 10.0), "bitrate");
        JXLogWriter::sharedWriter().logEntry(entry);
    }
    last_ = std::move(now);
}

JX_REGISTER_LOGGER(JXWiFiLogger)
