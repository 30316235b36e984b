// JXLogger: the base of every logger plug-in. A logger writes entries about one
// area of the device, on its own serial queue.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "platform/JXValue.h"
#include "platform/SerialQueue.h"
#include "platform/Value.h"

class JXLogger : public JXObject, public std::enable_shared_from_this<JXLogger> {
public:
    explicit JXLogger(std::string name);
    ~JXLogger() override;

    const std::string& name() const { return name_; }
    // The logger's own serial queue (one per logger name), on which its log calls run.
    jx::SerialQueue& loggerSerialQueue() { return queue_; }

    // Takes and writes one sample now.
    void log();
    // YES once the logger has logged at least once.
    bool haveLogged() const { return haveLogged_.load(); }
    // When it last took a sample (seconds since 1970), 0 before the first.
    double lastSampleTime() const { return lastSample_.load(); }
    // YES while the logger writes its full state into a new log.
    void setIsNewLog(bool isNew) { isNewLog_.store(isNew); }
    bool isNewLog() const { return isNewLog_.load(); }

    std::string description() const override { return "<" + name_ + ">"; }

    // Per-logger settings live in the daemon's domain under the logger's name, as a
    // dictionary ({"Enabled": NO}). A key absent there is looked for in the managed
    // file's dictionary, then takes the default registered for it; a logger with
    // none of them is enabled.
    static bool loggerEnabledWithName(const std::string& name);
    static void setDefault(const jx::Value& value, const std::string& forKey, const std::string& forLoggerNamed);
    // A per-logger setting: the stored value, else the registered default, else nil.
    static jx::Value settingForKey(const std::string& key, const std::string& forLoggerNamed);
    // The same setting as a finite number: a number, or a string that is one whole
    // (the control tool writes strings); nothing otherwise.
    static std::optional<double> numberSettingForKey(const std::string& key, const std::string& forLoggerNamed);
    // How many entries a ranking logger writes: its "TopCount" setting when that is a
    // positive number, else the default.
    std::size_t topCount(std::size_t defaultCount) const;

protected:
    // What one sample writes; each logger supplies its own.
    virtual void logSample() = 0;
    // Records that a sample was taken now (log() does; a timer's tick does too).
    void noteSampled();

private:
    std::string name_;
    jx::SerialQueue& queue_;
    std::atomic<bool> haveLogged_{false};
    std::atomic<bool> isNewLog_{false};
    std::atomic<double> lastSample_{0};
};
