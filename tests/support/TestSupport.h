// Shared test fixtures: a private root per test, captured system-log messages,
// a clock that records sleeps instead of sleeping, a recording system-wide centre.
#pragma once

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/NotificationCenter.h"
#include "platform/SystemLog.h"

namespace jxtest {

// A fresh temporary directory made the root for the test's life.
class TestRoot {
public:
    TestRoot();
    ~TestRoot();
    const std::string& path() const { return path_; }
    // The root-relative path made absolute under this root.
    std::string operator()(const std::string& absolute) const;
    void writeFile(const std::string& absolute, const std::string& contents) const;
    std::string readFile(const std::string& absolute) const;

private:
    std::string path_;
};

class LogCapture : public jx::LogSink {
public:
    LogCapture();
    ~LogCapture() override;
    void message(int level, std::string_view text) override;
    std::vector<std::string> messages() const;
    std::vector<std::pair<int, std::string>> entries() const;
    bool contains(const std::string& text) const;
    std::size_t count(const std::string& text) const;

private:
    mutable std::mutex mutex_;
    std::vector<std::pair<int, std::string>> entries_;
};

class FakeClock : public jx::Clock {
public:
    FakeClock();
    ~FakeClock() override;
    jx::Date now() override;
    void sleepSeconds(unsigned seconds) override;
    void sleepMicroseconds(std::uint64_t microseconds) override;
    void setNow(jx::Date d);
    std::vector<std::uint64_t> sleepsMicroseconds() const;

private:
    mutable std::mutex mutex_;
    jx::Date now_ = jx::Date::now();  // the present, moved on by sleeps and setNow
    std::vector<std::uint64_t> sleeps_;
};

class RecordingSystemCenter : public jx::SystemNotificationCenter {
public:
    RecordingSystemCenter();
    ~RecordingSystemCenter() override;
    bool post(const std::string& name) override;
    std::vector<std::string> posted() const;

private:
    mutable std::mutex mutex_;
    std::vector<std::string> posted_;
};

// Waits (with a deadline, polling a condition) — for tests of asynchronous work.
bool waitFor(const std::function<bool()>& condition, double seconds = 10.0);

}  // namespace jxtest
