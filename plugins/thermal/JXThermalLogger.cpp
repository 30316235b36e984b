#include "plugins/thermal/JXThermalLogger.h"

#include <cmath>

#include "platform/JXEntry.h"
#include "platform/JXLogWriter.h"

namespace {

constexpr double kDefaultPeriodSeconds = 60;

}  // namespace

JXThermalLogger::JXThermalLogger(std::string sysRoot)
    : JXSamplingLogger("JXThermalLogger", kDefaultPeriodSeconds), sys_(std::move(sysRoot)) {}

void JXThermalLogger::write(bool everything) {
    const std::string dir = sys_ + "/class/thermal/";
    std::map<std::string, long long> now;
    std::vector<JXEntry> entries;
    for (const std::string& name : jx::listKernelDirectory(dir)) {
        const std::string base = dir + name + "/";
        if (name.rfind("thermal_zone", 0) == 0) {
            // A zone whose sensor cannot be read now (a device asleep) is left out.
            std::optional<long long> milli = jx::readKernelNumber(base + "temp");
            if (!milli) continue;
            // A tick writes a zone again once it moved by a whole degree.
            const long long degrees = static_cast<long long>(std::llround(static_cast<double>(*milli) / 1000.0));
            now[name] = degrees;
            auto last = lastWritten_.find(name);
            if (!everything && last != lastWritten_.end() && last->second == degrees) continue;
            JXEntry e("Thermal");
            e.setObject(JXValue::valueWithString(jx::fieldText(jx::readKernelLine(base + "type").value_or(name))),
                        "zone");
            e.setObject(JXValue::valueWithDouble(static_cast<double>(*milli) / 1000.0), "temperature");
            entries.push_back(e);
        } else if (name.rfind("cooling_device", 0) == 0) {
            std::optional<long long> state = jx::readKernelNumber(base + "cur_state");
            if (!state) continue;
            now[name] = *state;
            auto last = lastWritten_.find(name);
            if (!everything && last != lastWritten_.end() && last->second == *state) continue;
            JXEntry e("Cooling");
            e.setObject(JXValue::valueWithString(jx::fieldText(jx::readKernelLine(base + "type").value_or(name))),
                        "device");
            e.setObject(JXValue::valueWithLong(*state), "state");
            if (std::optional<long long> maximum = jx::readKernelNumber(base + "max_state"))
                e.setObject(JXValue::valueWithLong(*maximum), "max_state");
            entries.push_back(e);
        }
    }
    if (now.empty()) {
        nothing_.say("JXThermalLogger: no thermal zone or cooling device under " + dir);
        lastWritten_.clear();
        return;
    }
    // Every zone and device that moved is written now, so now is what the log last says.
    lastWritten_ = std::move(now);
    for (const JXEntry& e : entries) JXLogWriter::sharedWriter().logEntry(e);
}
