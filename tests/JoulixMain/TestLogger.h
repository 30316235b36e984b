// A logger for tests: counts its samples and writes one entry each time.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "JoulixMain/JoulixMain.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLogger.h"

class CountingLogger : public JXLogger {
public:
    explicit CountingLogger(std::string name) : JXLogger(std::move(name)) {}
    ~CountingLogger() override { release(); }
    int samples() const { return samples_.load(); }
    // A held logger's samples wait until it is released.
    void hold() {
        std::lock_guard lock(mutex_);
        held_ = true;
    }
    void release() {
        std::lock_guard lock(mutex_);
        held_ = false;
        cv_.notify_all();
    }

protected:
    void logSample() override {
        {
            std::unique_lock lock(mutex_);
            cv_.wait(lock, [this] { return !held_; });
        }
        ++samples_;
        JXEntry e("Test");
        e.setObject(JXValue::valueWithString(name()), "logger");
        JXLogWriter::sharedWriter().logEntry(e);
    }

private:
    std::atomic<int> samples_{0};
    std::mutex mutex_;
    std::condition_variable cv_;
    bool held_ = false;
};

inline std::shared_ptr<CountingLogger> registerLogger(JoulixMain& controller, const std::string& name) {
    auto logger = std::make_shared<CountingLogger>(name);
    controller.loggerList()->setObject(JXValue::valueWithObject(logger), name);
    return logger;
}
