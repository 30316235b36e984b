// Every battery and charger of the power-supply class.
#include <time.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <map>

#include "platform/Clock.h"
#include "platform/JXEntry.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLoggerClass.h"
#include "platform/SystemLog.h"
#include "plugins/builtin/JXBuiltinLoggers.h"

namespace {

constexpr double kDefaultPeriodSeconds = 60;

// The supply types that feed the device rather than store energy.
bool isCharger(const std::string& type) {
    return type == "Mains" || type.rfind("USB", 0) == 0 || type == "Wireless" || type == "BrickID";
}

// The platform's clock, so that tests can move it; an interval that is not positive
// (the clock was set back) starts the interval again.
double monotonicSeconds() { return jx::Clock::current().now().secondsSince1970; }

// No battery of a laptop or phone gives or takes more: a reading beyond is a driver's glitch.
constexpr double kMostPowerMw = 250000;

double tenth(double v) { return std::round(v * 10) / 10; }

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
        // Each attribute read once per sample: on a phone a read can reach the fuel gauge
        // over its bus, and the [Battery] line and the power entry want the same ones.
        std::map<std::string, std::optional<long long>> read;
        auto number = [&](const char* file) {
            auto it = read.find(file);
            if (it == read.end()) it = read.emplace(file, jx::readKernelNumber(base + file)).first;
            return it->second;
        };
        auto put = [](JXEntry& e, const char* field, std::optional<long long> v, long long divisor = 1) {
            if (v) e.setObject(JXValue::valueWithLong(*v / divisor), field);
        };
        if (type == "Battery") {
            // An empty battery bay still has its supply directory.
            if (number("present") == 0LL) continue;
            const std::string status = jx::fieldText(jx::readKernelLine(base + "status").value_or("Unknown"));
            writePower(name, status, everything, number);
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

void JXBatteryLogger::writePower(const std::string& name, const std::string& status, bool everything,
                                 const std::function<std::optional<long long>(const char*)>& read) {
    auto number = [&](const char* file) -> std::optional<double> {
        std::optional<long long> v = read(file);
        return v ? std::optional<double>(static_cast<double>(*v)) : std::nullopt;
    };
    const std::optional<double> voltageUv = number("voltage_now");
    // The energy in mWh: the driver's own, else the charge at the present voltage.
    std::optional<double> energyMwh;
    if (auto e = number("energy_now")) energyMwh = *e / 1000;
    else if (auto q = number("charge_now"); q && voltageUv) energyMwh = *q * *voltageUv / 1e9;
    const double now = monotonicSeconds();

    // Drivers differ in sign: the log's power is negative while the battery gives energy.
    auto signedPower = [&](double mw) {
        if (status == "Discharging") return -std::fabs(mw);
        if (status == "Charging") return std::fabs(mw);
        return mw;
    };
    std::optional<double> powerMw;
    const char* source = nullptr;
    if (auto p = number("power_now")) {
        powerMw = signedPower(*p / 1000);  // µW
        source = "power_now";
    } else if (auto i = number("current_now"); i && voltageUv) {
        powerMw = signedPower(*i * *voltageUv / 1e9);  // µA × µV = pW
        source = "current_voltage";
    } else if (auto before = lastEnergy_.find(name); before != lastEnergy_.end() && energyMwh && now > before->second.seconds) {
        const double change = *energyMwh - before->second.energyMwh;
        powerMw = change * 3600 / (now - before->second.seconds);
        source = number("energy_now") ? "energy_change" : "charge_change";
        // Energy that rises while the battery gives energy, or falls while it takes it, is
        // a recalibration or a glitch, not power.
        if ((status == "Discharging" && change > 0) || (status == "Charging" && change < 0)) powerMw.reset();
    }
    if (energyMwh) lastEnergy_[name] = EnergyReading{*energyMwh, now};
    if (powerMw && std::fabs(*powerMw) > kMostPowerMw) powerMw.reset();
    if (!powerMw && source) {
        if (++implausible_ == 1 || (implausible_ & (implausible_ - 1)) == 0)
            jx::systemLogf(jx::kLogNotice, "JXBatteryLogger: %s: an impossible reading from %s was not logged (%lu so far)",
                           name.c_str(), source, implausible_);
    }
    if (powerMw) {
        JXEntry e("BatteryPower");
        e.setObject(JXValue::valueWithString(jx::fieldText(name)), "name");
        e.setObject(JXValue::valueWithDouble(tenth(*powerMw)), "power_mw");
        e.setObject(JXValue::valueWithString(source), "source");
        if (energyMwh) e.setObject(JXValue::valueWithDouble(tenth(*energyMwh)), "energy_mwh");
        e.setObject(JXValue::valueWithString(status), "status");
        JXLogWriter::sharedWriter().logEntry(e);
    }
    if (!everything) return;
    // The battery's health, at the head of every log: a history across logs.
    JXEntry h("BatteryHealth");
    h.setObject(JXValue::valueWithString(jx::fieldText(name)), "name");
    auto put = [&](const char* file, const char* field, double divisor) {
        if (auto v = number(file)) h.setObject(JXValue::valueWithDouble(tenth(*v / divisor)), field);
    };
    put("energy_full_design", "energy_full_design_mwh", 1000);
    put("energy_full", "energy_full_mwh", 1000);
    put("charge_full_design", "charge_full_design_mah", 1000);
    put("charge_full", "charge_full_mah", 1000);
    if (auto c = read("cycle_count")) h.setObject(JXValue::valueWithLong(*c), "cycle_count");
    std::optional<double> full = number("energy_full"), design = number("energy_full_design");
    if (!full || !design) full = number("charge_full"), design = number("charge_full_design");
    if (full && design && *design > 0) h.setObject(JXValue::valueWithDouble(tenth(*full * 100 / *design)), "health_pct");
    JXLogWriter::sharedWriter().logEntry(h);
}

JX_REGISTER_LOGGER(JXBatteryLogger)
