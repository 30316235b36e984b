// A logger for tests: counts its samples and writes one entry each time.
#pragma once

#include <unicode/timezone.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "JoulixMain/JoulixMain.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLogger.h"
#include "platform/JXLoggerClass.h"
#include "platform/JXUtilities.h"
#include "tests/support/TestSupport.h"

class CountingLogger : public JXLogger {
public:
    explicit CountingLogger(std::string name) : JXLogger(std::move(name)) {}
    ~CountingLogger() override { release(); }
    int samples() const { return samples_.load(); }
    // A held logger's samples wait until it is released.
    void hold(bool held = true) {
        std::lock_guard lock(mutex_);
        held_ = held;
        cv_.notify_all();
    }
    void release() { hold(false); }

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
        for (auto list :
             {std::span<const char* const>(kJXStaticLoggerList), std::span<const char* const>(kJXMeasuringLoggerList)})
            for (const char* name : list)
                if (JXLoggerClass* c = JXClassRegistry::lookUpClass(name)) {
                    JXClassRegistry::removeClass(c);
                    hidden_.push_back(c);
                }
    }
    ~HiddenBuiltinLoggers() {
        for (JXLoggerClass* c : hidden_) JXClassRegistry::registerClass(c);
    }

private:
    std::vector<JXLoggerClass*> hidden_;
};

// A controller logging to a file under a private root, in UTC, on a fake clock.
class ControllerTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(root("/var/mobile/Library/Logs/Faultkeeper"));
        useZone("UTC");
    }
    void useZone(const char* zone) {
        icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone(zone));
        controller = JoulixMain::create();
        controller->setLogToFile(true);
    }
    void TearDown() override { icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("UTC")); }
    jxtest::TestRoot root;
    jxtest::LogCapture log;
    jxtest::FakeClock clock;
    std::shared_ptr<JoulixMain> controller;
};
