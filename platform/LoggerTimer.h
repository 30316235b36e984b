// A logger's sampling timer: a block run on the logger's own queue once every
// period. The period is measured on the monotonic clock: it is an interval, and
// must neither jump with a change of the wall clock nor count time asleep twice.
// One service thread waits on every logger's timer; no logger polls.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/JXLogger.h"
#include "platform/SerialQueue.h"
#include "platform/Value.h"

namespace jx {

class LoggerTimer {
public:
    LoggerTimer() = default;
    ~LoggerTimer() { cancel(); }
    LoggerTimer(const LoggerTimer&) = delete;
    LoggerTimer& operator=(const LoggerTimer&) = delete;

    // Runs the block on the queue every `seconds` from now; 0 or less stops the
    // timer. A tick that comes while the previous tick's block still waits on
    // the queue is folded into it, so a slow queue never piles samples up. The
    // queue must outlive the timer (loggers' queues live as long as the process).
    void setPeriod(double seconds, SerialQueue& queue, std::function<void()> block);
    // Stops the timer; a block already handed to the queue does not run.
    void cancel();
    double period() const { return period_; }
    bool armed() const { return timer_ != nullptr; }

    // The period a logger samples at: its per-logger setting "SamplePeriod" in
    // seconds (0: only when the daemon asks). Below one second, or not finite, it is
    // one second; negative or no number, the default. A setting read otherwise than
    // written is said once per logger and value.
    static double samplePeriodForLogger(const std::string& loggerName, double defaultSeconds);
    // How a "SamplePeriod" value is read, and why, when that differs from what it says.
    struct SamplePeriodReading {
        double seconds;
        std::optional<std::string> problem;
    };
    static SamplePeriodReading readSamplePeriod(const Value& value, double defaultSeconds);

    struct Timer;

private:
    std::shared_ptr<Timer> timer_;
    double period_ = 0;
};

}  // namespace jx

// A logger that also samples on its own: each triggered sample writes its whole
// state and (re)arms the logger's one timer from its "SamplePeriod" setting; each
// tick of the timer writes only what changed since. A logger gives write(); one
// whose samples work otherwise overrides logSample() or logChanges() as well.
class JXSamplingLogger : public JXLogger {
public:
    JXSamplingLogger(std::string name, double defaultPeriodSeconds)
        : JXLogger(std::move(name)), defaultPeriod_(defaultPeriodSeconds) {}

    // What a tick does, on the logger's queue: entries only for what changed.
    virtual void logChanges() { write(false); }
    double samplePeriod() const { return timer_.period(); }

protected:
    void logSample() override {
        keepSampling();
        write(true);
    }
    // Writes the logger's entries: all of them, or only what changed since the last write.
    virtual void write(bool everything) = 0;
    // Arms, re-arms (the setting changed) or stops the timer. Call it on the
    // logger's queue; a logger not owned by a shared pointer is never ticked.
    void keepSampling();
    // Stops the timer until the next keepSampling.
    void stopSampling() { timer_.cancel(); }

private:
    jx::LoggerTimer timer_;
    double defaultPeriod_;
};
