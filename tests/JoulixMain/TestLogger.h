// A logger for tests: counts its samples and writes one entry each time.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "JoulixMain/JoulixMain.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLogger.h"

class CountingLogger : public JXLogger {
public:
    explicit CountingLogger(std::string name) : JXLogger(std::move(name)) {}
    int samples() const { return samples_.load(); }

protected:
    void logSample() override {
        ++samples_;
        JXEntry e("Test");
        e.setObject(JXValue::valueWithString(name()), "logger");
        JXLogWriter::sharedWriter().logEntry(e);
    }

private:
    std::atomic<int> samples_{0};
};

inline std::shared_ptr<CountingLogger> registerLogger(JoulixMain& controller, const std::string& name) {
    auto logger = std::make_shared<CountingLogger>(name);
    controller.loggerList()->setObject(JXValue::valueWithObject(logger), name);
    return logger;
}
