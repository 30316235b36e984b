// A fake sysfs, procfs and etc tree under a test's private root, a clock the test
// moves, the shared writer captured into a temporary file, the system log captured,
// and what the post-processor reads from the written lines.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "baseband/JXBasebandPostProcessing.h"
#include "defaults/JXDefaults.h"
#include "platform/SystemLog.h"
#include "plugins/builtin/JXBuiltinLoggers.h"
#include "tests/JoulixMain/TestLogger.h"
#include "tests/support/TestSupport.h"

using Lines = std::vector<std::string>;

// The system bus out of reach for the object's life.
struct NoSystemBus {
    NoSystemBus() { setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/joulix-bus", 1); }
    ~NoSystemBus() { unsetenv("DBUS_SYSTEM_BUS_ADDRESS"); }
};

class LoggerTree : public ::testing::Test {
protected:
    LoggerTree() { processor_.addSearchStringsToDictionary(table_); }
    std::string sys() const { return root.path() + "/sys"; }
    std::string proc() const { return root.path() + "/proc"; }
    std::string etc() const { return root.path() + "/etc"; }
    // Writes a file of the fake tree: path begins with /sys, /proc or /etc.
    void put(const std::string& path, const std::string& contents) const { root.writeFile(path, contents); }
    // Writes files of a directory given as "file=value; file=value", each value a line.
    void files(const std::string& dir, const std::string& list) const {
        std::istringstream in(list);
        for (std::string f; std::getline(in >> std::ws, f, ';');)
            put(dir + "/" + f.substr(0, f.find('=')), f.substr(f.find('=') + 1) + "\n");
    }
    static void setting(const std::string& logger, const std::string& key, const jx::Value& value) {
        JXDefaultsSetValueForKey(logger, jx::Value(jx::Dictionary{{key, value}}));
    }
    void later(double seconds) { clock.setNow(jx::Date{clock.now().secondsSince1970 + seconds}); }

    // Writes the files (as files() does), moves the clock on a minute, samples on the
    // logger's queue as a trigger or as the timer does, and gives every line written since the last look.
    Lines trigger(JXLogger& logger, const std::string& dir = "", const std::string& tree = "") {
        files(dir, tree);
        later(60);
        logger.loggerSerialQueue().sync([&] { logger.log(); });
        return fresh("");
    }
    Lines tick(JXSamplingLogger& logger, const std::string& dir = "", const std::string& tree = "") {
        files(dir, tree);
        later(60);
        logger.loggerSerialQueue().sync([&] { logger.logChanges(); });
        return fresh("");
    }

    // The lines written so far with that tag (every line for ""): their bodies ("[Tag] fields"), or whole when stamped.
    Lines lines(const std::string& tag, bool stamped = false) {
        Lines out;
        std::istringstream in(written.text());
        for (std::string line; std::getline(in, line);)
            if (tag.empty() || line.compare(24, tag.size() + 2, "[" + tag + "]") == 0)
                out.push_back(stamped ? line : line.substr(24));
        return out;
    }
    // The lines with that tag (every line for "") written since the last call for it.
    Lines fresh(const std::string& tag) {
        const Lines all = lines(tag);
        std::size_t& seen = seen_[tag];
        Lines out(all.begin() + static_cast<long>(std::min(seen, all.size())), all.end());
        seen = all.size();
        return out;
    }

    // The events the post-processor stores for a run of whole lines, read as one log.
    Lines eventsFor(const Lines& stamped) {
        Lines out;
        for (const std::string& line : stamped) {
            JXBasebandPostProcessing::Dictionary events;
            processor_.dispatchMatchedResult(processor_.getMatchedResultsFor(line, table_), events);
            for (const auto& [time, event] : events) out.push_back(event);
        }
        return out;
    }
    // The event the post-processor reads from the last line with that tag, "" for none.
    std::string readAs(const std::string& tag) {
        const Lines all = lines(tag, true);
        const Lines events = all.empty() ? Lines{} : eventsFor({all.back()});
        return events.size() == 1 ? events[0] : "";
    }

    jxtest::TestRoot root;
    jxtest::LogCapture log;
    WrittenLog written;
    jxtest::FakeClock clock;

private:
    JXBasebandPostProcessing processor_;
    JXBasebandPostProcessing::Dictionary table_;
    std::map<std::string, std::size_t> seen_;
};
