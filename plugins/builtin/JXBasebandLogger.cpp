// The modem's and the SoC's sleep over each sampling interval, from the sleep
// statistics in debugfs and the buses' runtime power management.
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "platform/JXEntry.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLoggerClass.h"
#include "plugins/builtin/JXBuiltinLoggers.h"

namespace {

constexpr double kDefaultPeriodSeconds = 60;
// The always-on counter's rate on the SoCs that publish these statistics, used
// where the processor does not say and no setting does.
constexpr double kDefaultTicksPerSecond = 19200000.0;

// Each figure of the log and the files that can give it, the first present used.
struct Mode {
    const char* key;
    std::vector<const char*> files;
};
const Mode kModes[] = {
    {"xo", {"vlow", "aosd"}},  // crystal oscillator shut down
    {"vdd", {"vmin", "cxsd"}}, // minimum voltage
    {"apps", {"apss"}},        // the application processors' subsystem
    {"modem", {"modem"}},
};

// The buses a modem may hang on, and where their devices are.
struct Bus {
    const char* field;
    const char* dir;      // under the sysfs root
    const char* power;    // the power directory under each entry
};
const Bus kBuses[] = {
    {"USB", "/bus/usb/devices/", "/power/"},
    {"SPI", "/bus/spi/devices/", "/power/"},
    {"UART", "/bus/serial/devices/", "/power/"},
    {"GPS", "/class/gnss/", "/device/power/"},
};

// "Key: value" lines of a statistics file, keys lower-cased.
std::map<std::string, unsigned long long> statFields(const std::string& text) {
    std::map<std::string, unsigned long long> fields;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        std::string key = line.substr(0, colon);
        std::transform(key.begin(), key.end(), key.begin(), [](unsigned char c) { return std::tolower(c); });
        const char* value = line.c_str() + colon + 1;
        char* end = nullptr;
        const unsigned long long n = std::strtoull(value, &end, 0);  // some drivers print hexadecimal
        if (end != value) fields[key] = n;
    }
    return fields;
}

std::string format(const char* pattern, double value) {
    char text[64];
    std::snprintf(text, sizeof text, pattern, value);
    return text;
}

std::string share(double part, double whole) {
    return format("%.2f%%", std::clamp(whole > 0 ? 100.0 * part / whole : 0.0, 0.0, 100.0));
}

// A counter's growth; one that went back (its subsystem restarted) counts from 0.
template <typename T>
T growth(T now, T before) {
    return now >= before ? now - before : now;
}

}  // namespace

double JXBasebandLogger::Clock::secondsSinceBoot() const {
    timespec ts{};
    clock_gettime(CLOCK_BOOTTIME, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

std::optional<unsigned long long> JXBasebandLogger::Clock::counterTicks() const {
#if defined(__aarch64__)
    unsigned long long ticks;
    asm volatile("isb; mrs %0, cntvct_el0" : "=r"(ticks)::"memory");
    return ticks;
#else
    return std::nullopt;
#endif
}

std::optional<double> JXBasebandLogger::Clock::counterFrequency() const {
#if defined(__aarch64__)
    unsigned long long hz;
    asm volatile("mrs %0, cntfrq_el0" : "=r"(hz));
    if (hz > 0) return static_cast<double>(hz);
#endif
    return std::nullopt;
}

JXBasebandLogger::JXBasebandLogger(std::string sysRoot, std::string debugfsRoot, std::shared_ptr<const Clock> clock)
    : JXSamplingLogger("JXBasebandLogger", kDefaultPeriodSeconds),
      sys_(std::move(sysRoot)),
      debugfs_(std::move(debugfsRoot)),
      clock_(std::move(clock)) {}

// The "StatsDirectory" setting, else the debugfs directory whose "modem" file
// reads as sleep statistics (found once, looked for again when it goes).
std::optional<std::string> JXBasebandLogger::statsDirectory() {
    jx::Value setting = JXLogger::settingForKey("StatsDirectory", name());
    if (const std::string* dir = setting.asString(); dir && !dir->empty()) return *dir;
    auto isStats = [](const std::string& dir) {
        std::optional<std::string> text = jx::readKernelFile(dir + "/modem");
        return text && statFields(*text).count("accumulated duration") != 0;
    };
    if (!discovered_.empty() && isStats(discovered_)) return discovered_;
    discovered_.clear();
    for (const std::string& entry : jx::listKernelDirectory(debugfs_)) {
        if (isStats(debugfs_ + "/" + entry)) {
            discovered_ = debugfs_ + "/" + entry;
            return discovered_;
        }
    }
    return std::nullopt;
}

std::optional<JXBasebandLogger::Reading> JXBasebandLogger::read() {
    std::optional<std::string> dir = statsDirectory();
    if (!dir) return std::nullopt;
    const double rate = [&] {
        std::optional<double> set = numberSettingForKey("TicksPerSecond", name());
        if (set && *set > 0) return *set;
        return clock_->counterFrequency().value_or(kDefaultTicksPerSecond);
    }();
    Reading r;
    r.seconds = clock_->secondsSinceBoot();
    const std::optional<unsigned long long> now = clock_->counterTicks();
    for (const Mode& mode : kModes) {
        for (const char* file : mode.files) {
            std::optional<std::string> text = jx::readKernelFile(*dir + "/" + file);
            if (!text) continue;
            auto f = statFields(*text);
            if (!f.count("accumulated duration")) continue;
            unsigned long long ticks = f["accumulated duration"];
            // In the mode now: the stay so far is not accumulated yet.
            const unsigned long long entered = f["last entered at"], exited = f["last exited at"];
            if (now && entered > exited && *now > entered) ticks += *now - entered;
            r.modes[mode.key] = {static_cast<long long>(f["count"]), static_cast<double>(ticks) / rate};
            break;
        }
    }
    if (r.modes.empty()) return std::nullopt;
    // Devices under runtime power management only: one forced on says nothing
    // about the traffic on its bus.
    for (const Bus& bus : kBuses) {
        const std::string base = sys_ + bus.dir;
        for (const std::string& device : jx::listKernelDirectory(base)) {
            const std::string power = base + device + bus.power;
            if (jx::readKernelLine(power + "control").value_or("") != "auto") continue;
            std::optional<long long> active = jx::readKernelNumber(power + "runtime_active_time");
            std::optional<long long> suspended = jx::readKernelNumber(power + "runtime_suspended_time");
            if (!active) continue;
            r.devices[std::string(bus.field) + "/" + device] = {*active / 1000.0, suspended.value_or(0) / 1000.0};
        }
    }
    return r;
}

void JXBasebandLogger::write(bool) {
    std::optional<Reading> now = read();
    if (!now) {
        nothing_.say("JXBasebandLogger: no modem sleep statistics under " + debugfs_);
        last_.reset();
        stopSampling();
        return;
    }
    nothing_.reset();
    keepSampling();
    std::optional<Reading> before = std::exchange(last_, now);
    if (!before) return;  // the starting point
    const double interval = now->seconds - before->seconds;
    if (interval <= 0) return;

    auto writeLine = [](const char* tag, std::vector<std::pair<std::string, std::string>> fields) {
        JXEntry e(tag);
        for (auto& [field, value] : fields) e.setObject(JXValue::valueWithString(value), field);
        JXLogWriter::sharedWriter().logEntry(e);
    };
    // "[share%,entries]" of a mode over the interval; absent when it was not read both times.
    auto mode = [&](const char* key) -> std::optional<std::string> {
        auto a = before->modes.find(key), b = now->modes.find(key);
        if (a == before->modes.end() || b == now->modes.end()) return std::nullopt;
        return "[" + share(growth(b->second.second, a->second.second), interval) + "," +
               std::to_string(growth(b->second.first, a->second.first)) + "]";
    };

    writeLine("BB HW Log", {{"Duration", format("%.3f", interval)}});
    if (auto xo = mode("xo"), vdd = mode("vdd"); xo && vdd)
        writeLine("BB HW RPM", {{"XO_Shutdown", *xo}, {"VDD_Min", *vdd}});
    if (auto apps = mode("apps")) writeLine("BB HW APPS", {{"CXO_Shutdown", *apps}});
    if (auto modem = mode("modem")) writeLine("BB HW MPSS", {{"CXO_Shutdown", *modem}});

    // Each bus: its busiest device over the interval.
    std::vector<std::pair<std::string, std::string>> peripherals;
    for (const Bus& bus : kBuses) {
        double active = 0, suspended = 0;
        const std::string prefix = std::string(bus.field) + "/";
        for (auto it = now->devices.lower_bound(prefix); it != now->devices.end() && it->first.rfind(prefix, 0) == 0;
             ++it) {
            auto was = before->devices.find(it->first);
            if (was == before->devices.end()) continue;
            const double a = growth(it->second.first, was->second.first);
            if (a >= active) {
                active = a;
                suspended = growth(it->second.second, was->second.second);
            }
        }
        const std::string ms = std::to_string(std::llround(active * 1000));
        peripherals.emplace_back(bus.field, std::string(bus.field) == "USB"
                                                ? "[" + ms + "," + std::to_string(std::llround(suspended * 1000)) +
                                                      "," + share(active, interval) + "]"
                                                : "[" + ms + "," + share(active, interval) + "]");
    }
    // No kernel interface tells the receiver's duty-cycled tracking apart.
    peripherals.emplace_back("GPS_DPO", "[0,0.00%]");
    writeLine("BB HW Peripherals", std::move(peripherals));
}

JX_REGISTER_LOGGER(JXBasebandLogger)
