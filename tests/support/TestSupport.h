// Shared test fixtures: a private root per test, captured system-log messages,
// a clock that records sleeps instead of sleeping.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/NotificationCenter.h"
#include "platform/SystemLog.h"
#include "tests/support/PrivateBus.h"

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
    bool contains(const std::string& text) const;
    std::size_t count(const std::string& text) const;
    // Messages that contain the text.
    std::size_t countContaining(const std::string& text) const;

private:
    mutable std::mutex mutex_;
    std::vector<std::string> messages_;
};

class FakeClock : public jx::Clock {
public:
    FakeClock();
    ~FakeClock() override;
    jx::Date now() override;
    void sleepSeconds(unsigned seconds) override;
    void sleepMicroseconds(std::uint64_t microseconds) override;
    void setNow(jx::Date d);
    double suspendedSeconds() override;
    // A suspend of that long: the present moves on, and so does the time suspended.
    void suspend(double seconds);
    std::vector<std::uint64_t> sleepsMicroseconds() const;

private:
    mutable std::mutex mutex_;
    jx::Date now_ = jx::Date::now();  // the present, moved on by sleeps and setNow
    std::vector<std::uint64_t> sleeps_;
    double suspended_ = 0;
};

// Copies a bundle of the build into the root's plug-in directory under another
// name, with the modes a trusted plug-in has; answers the installed path.
std::string installBundle(const TestRoot& root, const std::string& built, const std::string& as, mode_t mode = 0644);

// A file with mode 600, owned by the test's user, outside every test root: what a
// link planted by an attacker points at. changed() says what about it is no longer
// as it was made (bytes, owner, mode, modification time, extended attributes).
class Victim {
public:
    Victim();
    ~Victim();
    const std::string& path() const { return path_; }
    std::string changed() const;

private:
    std::string dir_, path_;
    struct stat made_ {};
};

// Puts a symbolic link at path pointing at target. Run as root, the link is made by
// the account nobody in a directory handed to it, as an attacker holding the account
// that owns the log directories would; otherwise as the test's own user.
void plantLink(const std::string& target, const std::string& path);

// A whole file's bytes ("" when it cannot be read).
std::string slurp(const std::string& path);

// The C library's time zone (TZ) set for a scope; the previous one put back after it.
struct ZoneScope {
    explicit ZoneScope(const char* zone);
    ~ZoneScope();
    std::optional<std::string> saved;
};

// How often a text holds a piece of text.
std::size_t occurrences(const std::string& text, const std::string& what);

// Waits (with a deadline, polling a condition) — for tests of asynchronous work.
bool waitFor(const std::function<bool()>& condition, double seconds = 10.0);

}  // namespace jxtest
