// A logger for tests: counts its samples and writes one entry each time.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <unistd.h>

#include "JoulixMain/JoulixMain.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLogger.h"
#include "platform/JXLoggerClass.h"
#include "tests/support/TestSupport.h"

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

// The shared writer pointed at a temporary file for the object's life.
class WrittenLog {
public:
    WrittenLog() : file_(std::tmpfile()) {
        JXLogWriter::sharedWriter().setLogFile(file_);
        JXLogWriter::sharedWriter().setLogFileEnabled(true);
    }
    ~WrittenLog() {
        JXLogWriter::sharedWriter().setLogFile(nullptr);
        std::fclose(file_);
    }
    // Everything written so far. Read with pread: the writer writes through the same
    // descriptor, and a rewind here would move where its next write lands.
    std::string text() {
        JXLogWriter::sharedWriter().blockOnWriteEntries();
        std::string out;
        char buf[4096];
        for (ssize_t n; (n = ::pread(fileno(file_), buf, sizeof buf, static_cast<off_t>(out.size()))) > 0;)
            out.append(buf, static_cast<std::size_t>(n));
        return out;
    }
    std::size_t count(const std::string& what) { return jxtest::occurrences(text(), what); }

private:
    FILE* file_;
};

// A logger class registered in the process for the object's life.
class ScopedLoggerClass {
public:
    ScopedLoggerClass(const std::string& name, JXLoggerClass::Factory make) : class_(name, std::move(make)) {
        JXClassRegistry::registerClass(&class_);
    }
    explicit ScopedLoggerClass(const std::string& name)
        : ScopedLoggerClass(name, [name] { return std::make_shared<CountingLogger>(name); }) {}
    ~ScopedLoggerClass() { JXClassRegistry::removeClass(&class_); }

private:
    JXLoggerClass class_;
};

// The controller's own loggers taken out of the class registry for the object's
// life, so that a test sets up exactly the classes it registers itself.
class HiddenBuiltinLoggers {
public:
    HiddenBuiltinLoggers() {
        for (const auto* list : {&kJXStaticLoggerList[0], &kJXMeasuringLoggerList[0]}) {
            const std::size_t count = list == kJXStaticLoggerList ? std::size(kJXStaticLoggerList) : std::size(kJXMeasuringLoggerList);
            for (std::size_t i = 0; i < count; ++i)
                if (JXLoggerClass* c = JXClassRegistry::lookUpClass(list[i])) {
                    JXClassRegistry::removeClass(c);
                    hidden_.push_back(c);
                }
        }
    }
    ~HiddenBuiltinLoggers() {
        for (JXLoggerClass* c : hidden_) JXClassRegistry::registerClass(c);
    }
    HiddenBuiltinLoggers(const HiddenBuiltinLoggers&) = delete;
    HiddenBuiltinLoggers& operator=(const HiddenBuiltinLoggers&) = delete;

private:
    std::vector<JXLoggerClass*> hidden_;
};

