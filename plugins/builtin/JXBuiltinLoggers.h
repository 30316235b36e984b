// The loggers built into the controller library. Each reads the kernel's own
// interfaces under the directories it is given (the real /sys, /proc and /etc by
// default, never under the daemon's root: the root relocates the daemon's files,
// not the device), and writes its entries through the shared writer.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/FileDescriptor.h"
#include "platform/JXEntry.h"
#include "platform/JXLogger.h"
#include "platform/KernelFiles.h"
#include "platform/LoggerTimer.h"
#include "platform/RunLoop.h"
#include "plugins/builtin/Nl80211.h"

// "[Config]": device model, kernel, OS build, CPU and memory. Written whenever
// the logger is triggered; none of it changes while the device runs.
class JXConfigLogger : public JXLogger {
public:
    explicit JXConfigLogger(std::string sysRoot = "/sys", std::string procRoot = "/proc", std::string etcRoot = "/etc");

protected:
    void logSample() override;

private:
    std::string sys_, proc_, etc_;
    jx::SaidOnce nothing_;
};

// "[Locale]": the locale and the time zone the daemon runs with.
class JXLocaleLogger : public JXLogger {
public:
    JXLocaleLogger();

protected:
    void logSample() override;
};

// "[Clock]": the UTC time, the offset and the zone the log's local times are in, at
// the head of every log and whenever they change: daylight saving (a timer armed at
// the next change of the offset), a new zone (/etc/localtime or /etc/timezone
// replaced) or a wall clock set (the timer is cancelled then). With it a reader turns
// every entry's local time into an absolute one, across a daylight-saving night.
class JXClockLogger : public JXLogger {
public:
    explicit JXClockLogger(std::string etcRoot = "/etc");
    ~JXClockLogger() override;
    // The entry itself, for the controller to put right after a new log's header.
    static JXEntry clockEntry(const char* reason, const std::string& etcRoot = "/etc");

protected:
    void logSample() override;

private:
    void write(const char* reason);
    // Arms the timer at the next change of the UTC offset (or far ahead), cancelled
    // by a set clock.
    void armTimer();
    void watch();
    void onTimer();
    void onEtc();
    std::string etc_;
    jx::FileDescriptor timer_, inotify_;
    std::shared_ptr<jx::RunLoop> loop_;
    jx::RunLoop::SourceId timerSource_ = 0, etcSource_ = 0;
    bool watching_ = false;
    long lastOffset_ = 0;
    std::string lastZone_;
    double lastSuspended_ = 0;  // seconds suspended since boot, when last looked at
};

// "[Settings]": the daemon's settings in force, each key of its domain with the
// value it has now (stored, else managed, else registered default).
class JXSettingsLogger : public JXLogger {
public:
    JXSettingsLogger();

protected:
    void logSample() override;
};

// "[Process]": the processes that used the most CPU time since the last sample,
// one entry each, the largest first.
class JXProcessMonitorLogger : public JXSamplingLogger {
public:
    explicit JXProcessMonitorLogger(std::string procRoot = "/proc");

protected:
    // Every sample, triggered or timed, is the top consumers since the one before.
    void write(bool everything) override;

private:
    struct Seen {
        unsigned long long start = 0;             // start time: a reused pid is another process
        unsigned long long user = 0, system = 0;  // clock ticks used so far
        std::optional<unsigned long long> switches;  // context switches so far (a wake-up proxy)
    };
    std::string proc_;
    std::map<int, Seen> seen_;
    jx::SaidOnce nothing_;
};

// "[Network]": each interface's byte and packet counters.
class JXNetworkLogger : public JXSamplingLogger {
public:
    explicit JXNetworkLogger(std::string procRoot = "/proc");
protected:
    void write(bool everything) override;

private:
    std::string proc_;
    std::map<std::string, std::vector<unsigned long long>> last_;
    jx::SaidOnce nothing_;
};

// "[Powercap]": the energy each RAPL zone and subzone of the powercap class
// (package, core, uncore, dram, psys) counted over the interval, and its mean power.
// The counters wrap at max_energy_range_uj.
class JXPowercapLogger : public JXSamplingLogger {
public:
    explicit JXPowercapLogger(std::string sysRoot = "/sys");
protected:
    void write(bool everything) override;

private:
    struct Reading {
        long long energyUj = 0;
        double seconds = 0;  // the platform clock when read
    };
    std::string sys_;
    std::map<std::string, Reading> last_;
    jx::OpenAttributes attributes_;  // kept open from sample to sample
    jx::SaidOnce nothing_;
    // Said at growing intervals: a counter that goes back without wrapping.
    unsigned long implausible_ = 0;
};

// "[WakeupSource]": the wake-up sources that held the system awake or woke it during
// the interval (scope=interval), by active time, the first TopCount (default 5); at
// the head of every log the same since boot (scope=boot).
class JXWakeupSourceLogger : public JXSamplingLogger {
public:
    explicit JXWakeupSourceLogger(std::string sysRoot = "/sys");
protected:
    void write(bool everything) override;

private:
    struct Counts {
        long long activeMs = 0, wakeups = 0, events = 0;
    };
    std::string sys_;
    std::map<std::string, Counts> last_;
    jx::OpenAttributes attributes_;  // kept open from sample to sample
    jx::SaidOnce nothing_;
};

// "[CpuIdle]": the share of the interval each cpuidle state held, summed over the
// CPUs, and the share left active; "[CpuFrequency]": the time-weighted mean frequency.
class JXCpuResidencyLogger : public JXSamplingLogger {
public:
    explicit JXCpuResidencyLogger(std::string sysRoot = "/sys");
protected:
    void write(bool everything) override;

private:
    std::string sys_;
    std::map<std::string, long long> lastIdleUs_;       // "cpuN/stateK" → µs
    std::map<std::string, long long> lastTimeInState_;  // "cpuN/kHz" → 10 ms units
    double lastSeconds_ = 0;
    jx::OpenAttributes attributes_;  // kept open from sample to sample
    jx::SaidOnce nothing_;
};

// "[RuntimePM]": the devices (PCI, USB, platform) that stayed powered during the
// interval, by the runtime-PM active time they held, the first TopCount (default 5).
class JXRuntimePMLogger : public JXSamplingLogger {
public:
    explicit JXRuntimePMLogger(std::string sysRoot = "/sys");
protected:
    void write(bool everything) override;

private:
    std::string sys_;
    std::map<std::string, long long> last_;  // "bus/device" → active ms
    jx::OpenAttributes attributes_;  // kept open from sample to sample
    jx::SaidOnce nothing_;
};

// "[SelfCost]": the daemon's own CPU time, context switches (its wake-ups) and memory
// since the last such entry, every hour (SamplePeriod) and at the head of every log.
class JXSelfCostLogger : public JXSamplingLogger {
public:
    JXSelfCostLogger();
protected:
    void write(bool everything) override;

private:
    double lastSeconds_ = 0;
    long long lastCpuUs_ = 0, lastSwitches_ = 0;
};

// "[Battery]" for every battery and "[Charger]" for every charger of the power
// supply class.
// Every sample also writes "[BatteryPower]": the power each battery gives (negative)
// or takes, from whatever its driver offers, and every new log "[BatteryHealth]".
class JXBatteryLogger : public JXSamplingLogger {
public:
    explicit JXBatteryLogger(std::string sysRoot = "/sys");
protected:
    void write(bool everything) override;

private:
    // What one battery's power is read from, and its last energy for the change method.
    struct EnergyReading {
        double energyMwh = 0;
        double seconds = 0;  // the platform clock when read
    };
    // The power entry, and the health entry at a new log; read gives an attribute of the battery.
    void writePower(const std::string& name, const std::string& status, bool everything,
                    const std::function<std::optional<long long>(const char*)>& read);
    std::string sys_;
    std::string lastState_;
    std::map<std::string, EnergyReading> lastEnergy_;
    jx::SaidOnce nothing_;
    unsigned long implausible_ = 0;
};

// "[Display] active=YES|NO; brightness=…;" from the backlights and the DRM
// connectors.
class JXDisplayLogger : public JXSamplingLogger {
public:
    explicit JXDisplayLogger(std::string sysRoot = "/sys");
protected:
    void write(bool everything) override;

private:
    std::string sys_;
    std::string lastState_;
    jx::SaidOnce nothing_;
};

// "[WiFi]": each wireless interface's link, link quality, signal, noise and
// transmit bit rate.
class JXWiFiLogger : public JXSamplingLogger {
public:
    explicit JXWiFiLogger(std::string sysRoot = "/sys", std::string procRoot = "/proc");
protected:
    void write(bool everything) override;

private:
    struct Reading {
        bool link = false;
        std::vector<long> statistics;  // quality, signal (dBm), noise (dBm); empty without a link
    };
    std::string sys_, proc_;
    std::map<std::string, Reading> last_;  // what the log last says of each interface
    // The radio is asked only about the real interfaces: a tree of files given
    // for another device has no radio behind it.
    bool askRadio_;
    jx::Nl80211 radio_;
    jx::SaidOnce nothing_;
};

// "[Sleep] event=did_sleep;" as the device goes to sleep and "[Wake] reason=…;"
// as it wakes, naming the wake-up source the kernel counted. It follows the login
// manager's PrepareForSleep signal over the system bus, holding a delay lock so
// that the sleep is in the log before the device sleeps; without a login manager
// (or once the bus goes away), the kernel's count of suspends, looked at on its
// timer and at each resume. After each wake, "[Suspend]" accounts for it: when it
// began and ended, the time suspended, the batteries' energy (and charge) before and
// after, the mean drain, and what woke the system.
class JXSleepWakeLogger : public JXSamplingLogger {
public:
    explicit JXSleepWakeLogger(std::string sysRoot = "/sys");
    ~JXSleepWakeLogger() override;
    // What the login manager said: about to sleep (YES) or resumed (NO).
    void prepareForSleep(bool start);
    // Keeps the delay lock the login manager handed out until the next sleep is logged.
    void holdInhibitor(jx::FileDescriptor lock);
    // Whether the login manager's signal is what the logger follows.
    bool followsLoginManager() const { return watch_ != nullptr; }
    // The bus went away: count suspends until a triggered sample finds it again.
    void busLost();

    class BusWatch;

protected:
    // Follows the login manager unless it already does; the sleeps themselves are events.
    void logSample() override;
    // A tick without the login manager: a suspend counted since the last look.
    void write(bool everything) override;

private:
    // The wall clock, the time spent suspended so far and the batteries' store, read
    // together on each side of a suspend.
    struct Moment {
        double utc = 0, suspended = 0;
        std::optional<double> energyMwh, chargeMah;
    };
    // Follows the login manager when it is there, else the kernel's count.
    void follow();
    Moment moment() const;
    std::map<std::string, long long> wakeupCounts() const;
    // The [Wake] entry; returns the reason it gave.
    std::string writeWake();
    // "[Suspend]": the accounting of the suspend (or suspends) between two moments.
    void writeSuspend(const Moment& before, const Moment& after, const char* accounting, const std::string& wokenBy,
                      long long suspends);
    // Without the login manager, a wake is seen at once: a resume cancels a timer that
    // waits on the wall clock, as setting the clock does.
    void watchResume();
    void armResume();
    void onResume();
    std::string sys_;
    std::unique_ptr<BusWatch> watch_;
    std::optional<long long> suspends_;        // the kernel's count when last looked at
    std::map<std::string, long long> before_;  // each wake-up source's count before the sleep
    std::optional<Moment> asleep_;             // when the login manager said it would sleep
    Moment looked_;                            // the last look at the kernel's count
    int uncounted_ = 0;                        // looks since time suspended went uncounted
    jx::FileDescriptor inhibitor_, resume_;
    std::shared_ptr<jx::RunLoop> loop_;
    jx::RunLoop::SourceId resumeSource_ = 0;
    jx::SaidOnce nothing_;
};

// "[Telephony]" for every modem the modem manager knows on the system bus: its
// state, signal, access technology, whether a call is under way and whether its
// radio is off (airplane mode). Sampled on its timer; a tick writes a change.
class JXTelephonyLogger : public JXSamplingLogger {
public:
    JXTelephonyLogger();
    ~JXTelephonyLogger() override;

    struct Bus;

protected:
    void write(bool everything) override;

private:
    std::unique_ptr<Bus> bus_;  // used on the logger's queue only
    std::string lastState_;
    jx::SaidOnce nothing_;
};

// How the SoC and its modem slept over each interval between two samples, as
// the "[BB HW …]" lines the baseband post-processor reads:
//   [BB HW Log] Duration=<seconds>;
//   [BB HW RPM] XO_Shutdown=[<%>,<entries>]; VDD_Min=[<%>,<entries>];
//   [BB HW APPS] CXO_Shutdown=[<%>,<entries>];
//   [BB HW MPSS] CXO_Shutdown=[<%>,<entries>];
//   [BB HW Peripherals] USB=[<active ms>,<suspended ms>,<%>]; SPI=[<ms>,<%>]; UART=…; GPS=…; GPS_DPO=…;
// The sleep figures come from the statistics some SoC drivers publish in debugfs:
// a directory with one file per low-power mode or subsystem ("vlow"/"aosd" for
// crystal shutdown, "vmin"/"cxsd" for the minimum voltage, "apss" for the
// application processors, "modem"), each giving "Count:" and "Accumulated
// Duration:" in ticks of the SoC's always-on counter. The peripherals' shares are
// the busiest device's runtime-PM active time on each bus the modem may hang on.
// Nothing is written where there are no such statistics; the first sample only
// takes the starting point, each later one writes the interval since the last.
class JXBasebandLogger : public JXSamplingLogger {
public:
    // The clock the intervals are measured on: time since boot, suspend included,
    // and the always-on counter where the processor lets a program read it.
    struct Clock {
        virtual ~Clock() = default;
        virtual double secondsSinceBoot() const;
        virtual std::optional<unsigned long long> counterTicks() const;
        virtual std::optional<double> counterFrequency() const;
    };

    explicit JXBasebandLogger(std::string sysRoot = "/sys", std::string debugfsRoot = "/sys/kernel/debug",
                              std::shared_ptr<const Clock> clock = std::make_shared<Clock>());

protected:
    // Every sample, triggered or timed, writes the interval since the one before;
    // the timer runs only while there are statistics to read.
    void logSample() override { write(true); }
    void write(bool everything) override;

private:
    struct Reading {
        double seconds = 0;                                      // since boot
        std::map<std::string, std::pair<long long, double>> modes;  // file: entries, seconds in the mode
        std::map<std::string, std::pair<double, double>> devices;    // device: active, suspended seconds
    };
    std::optional<std::string> statsDirectory();
    std::optional<Reading> read();
    std::string sys_, debugfs_;
    std::shared_ptr<const Clock> clock_;
    std::string discovered_;
    std::optional<Reading> last_;
    jx::SaidOnce nothing_;
};
