// Every battery and charger of the power-supply class.
#include <cstdlib>

#include "platform/JXEntry.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLoggerClass.h"
#include "plugins/builtin/JXBuiltinLoggers.h"

namespace {

constexpr double kDefaultPeriodSeconds = 60;

// The supply types that feed the device rather than store energy.
bool isCharger(const std::string& type) {
    return type == "Mains" || type.rfind("USB", 0) == 0 || type == "Wireless" || type == "BrickID";
}

}  // namespace

JXBatteryLogger::JXBatteryLogger(std::string sysRoot)
    : JXSamplingLogger("JXBatteryLogger", kDefaultPeriodSeconds), sys_(std::move(sysRoot)) {}

void JXBatteryLogger::write(bool everything) {
    const std::string dir = sys_ + "/class/power_supply/";
    std::vector<JXEntry> entries;
    // What counts as a change: a battery's status or level, a charger plugged or
    // unplugged. Voltage and current move with every reading and do not.
    std::string state;
    for (const std::string& name : jx::listKernelDirectory(dir)) {
        const std::string base = dir + name + "/";
        const std::string type = jx::readKernelLine(base + "type").value_or("");
        auto number = [&](const char* file) { return jx::readKernelNumber(base + file); };
        auto put = [](JXEntry& e, const char* field, std::optional<long long> v, long long divisor = 1) {
            if (v) e.setObject(JXValue::valueWithLong(*v / divisor), field);
        };
        if (type == "Battery") {
            // An empty battery bay still has its supply directory.
            if (number("present") == 0LL) continue;
            const std::string status = jx::fieldText(jx::readKernelLine(base + "status").value_or("Unknown"));
            const bool charging = status == "Charging";
            // Drivers differ in the sign they give; the log's current is negative
            // while the battery gives energy.
            std::optional<long long> current = number("current_now");
            if (current && status == "Discharging" && *current > 0) current = -*current;

            JXEntry e("Battery");
            e.setObject(JXValue::valueWithString(jx::fieldText(name)), "name");
            put(e, "level", number("capacity"));
            put(e, "voltage", number("voltage_now"), 1000);  // µV to mV
            put(e, "current", current, 1000);                // µA to mA
            if (number("energy_now")) {
                put(e, "energy", number("energy_now"), 1000);  // µWh to mWh
                put(e, "energy_full", number("energy_full"), 1000);
            } else {
                put(e, "charge", number("charge_now"), 1000);  // µAh to mAh
                put(e, "charge_full", number("charge_full"), 1000);
            }
            put(e, "cycle_count", number("cycle_count"));
            e.setObject(JXValue::valueWithString(status), "status");
            e.setObject(JXValue::valueWithString(charging ? "active" : "inactive"), "charging_state");
            e.setObject(JXValue::valueWithLong(charging && current ? std::llabs(*current) / 1000 : 0),
                        "charging_current");
            entries.push_back(e);
            state += name + ":" + status + ":" + std::to_string(number("capacity").value_or(-1)) + ";";
        } else if (isCharger(type)) {
            const bool online = number("online").value_or(0) != 0;
            JXEntry e("Charger");
            e.setObject(JXValue::valueWithString(jx::fieldText(name)), "name");
            e.setObject(JXValue::valueWithString(jx::fieldText(type)), "type");
            e.setObject(JXValue::valueWithBool(online), "online");
            entries.push_back(e);
            state += name + ":" + (online ? "on" : "off") + ";";
        }
    }
    if (entries.empty()) {
        nothing_.say("JXBatteryLogger: no battery or charger under " + dir);
        lastState_.clear();
        return;
    }
    if (!everything && state == lastState_) return;
    lastState_ = state;
    for (const JXEntry& e : entries) JXLogWriter::sharedWriter().logEntry(e);
}

JX_REGISTER_LOGGER(JXBatteryLogger)
