// A fake sysfs, procfs and etc tree under a test's private root, the shared
// writer captured into a temporary file, and the system log captured.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "defaults/JXDefaults.h"
#include "tests/JoulixMain/TestLogger.h"
#include "tests/support/TestSupport.h"

class LoggerTree : public ::testing::Test {
protected:
    std::string sys() const { return root.path() + "/sys"; }
    std::string proc() const { return root.path() + "/proc"; }
    std::string etc() const { return root.path() + "/etc"; }
    // Writes a file of the fake tree: path begins with /sys, /proc or /etc.
    void put(const std::string& path, const std::string& contents) const { root.writeFile(path, contents); }

    // The lines written so far with that tag, each checked to begin with the log's
    // time stamp: their bodies ("[Tag] fields"), or whole when stamped.
    std::vector<std::string> lines(const std::string& tag, bool stamped = false) {
        std::vector<std::string> out;
        std::string text = written.text();
        std::size_t at = 0;
        while (at < text.size()) {
            std::size_t end = text.find('\n', at);
            if (end == std::string::npos) end = text.size();
            std::string line = text.substr(at, end - at);
            at = end + 1;
            // "MM/dd/yyyy HH:mm:ss.SSS " then the bracketed key.
            if (line.size() < 24 || line[2] != '/' || line[5] != '/' || line[10] != ' ' || line[13] != ':' ||
                line[19] != '.' || line[23] != ' ') {
                ADD_FAILURE() << "not a log line: " << line;
                continue;
            }
            std::string body = line.substr(24);
            if (body.rfind("[" + tag + "]", 0) == 0) out.push_back(stamped ? line : body);
        }
        return out;
    }
    // Every line written so far, stamps included.
    std::string text() { return written.text(); }

    static void setLoggerSetting(const std::string& logger, const std::string& key, const jx::Value& value) {
        jx::Value current = JXDefaultsCopyValueForKey(logger);
        jx::Dictionary d = current.asDictionary() ? *current.asDictionary() : jx::Dictionary{};
        d[key] = value;
        JXDefaultsSetValueForKey(logger, jx::Value(d));
    }

    jxtest::TestRoot root;
    jxtest::LogCapture log;
    WrittenLog written;
};
