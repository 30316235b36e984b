// Devices that stay powered: runtime-PM active time per device over each interval.
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
const char* const kBuses[] = {"pci", "usb", "platform"};

}  // namespace

JXRuntimePMLogger::JXRuntimePMLogger(std::string sysRoot)
    : JXSamplingLogger("JXRuntimePMLogger", kDefaultPeriodSeconds), sys_(std::move(sysRoot)) {}

void JXRuntimePMLogger::write(bool) {
    std::map<std::string, long long> now;
    struct Held {
        std::string bus, device;
        long long activeMs;
        std::string status;
    };
    std::vector<Held> held;
    for (const char* bus : kBuses) {
        const std::string dir = sys_ + "/bus/" + bus + "/devices/";
        for (const std::string& device : jx::listKernelDirectory(dir)) {
            const std::string power = dir + device + "/power/";
            std::optional<long long> active = attributes_.number(power + "runtime_active_time");
            if (!active) continue;
            const std::string key = std::string(bus) + "/" + device;
            now[key] = *active;
            auto before = last_.find(key);
            if (before == last_.end() || *active <= before->second) continue;
            held.push_back({bus, jx::fieldText(device), *active - before->second,
                            jx::fieldText(attributes_.line(power + "runtime_status").value_or("unknown"))});
        }
    }
    attributes_.sweep();
    if (now.empty()) nothing_.say("JXRuntimePMLogger: no runtime-PM statistics under " + sys_ + "/bus");
    last_ = std::move(now);
    std::sort(held.begin(), held.end(), [](const Held& a, const Held& b) {
        return a.activeMs != b.activeMs ? a.activeMs > b.activeMs : a.bus + a.device < b.bus + b.device;
    });
    held.resize(std::min(held.size(), topCount(kDefaultTopCount)));
    long rank = 0;
    for (const Held& h : held) {
        JXEntry e("RuntimePM");
        e.setObject(JXValue::valueWithLong(++rank), "rank");
        e.setObject(JXValue::valueWithString(h.bus), "bus");
        e.setObject(JXValue::valueWithString(h.device), "device");
        e.setObject(JXValue::valueWithLong(h.activeMs), "active_ms");
        e.setObject(JXValue::valueWithString(h.status), "status");
        JXLogWriter::sharedWriter().logEntry(e);
    }
}

JX_REGISTER_LOGGER(JXRuntimePMLogger)
