// The current log as the real daemon leaves it under a private root.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <sstream>

#include "tests/integration/Process.h"
#include "tests/support/TestSupport.h"

namespace {

using jxtest::Process;
using jxtest::binary;
using jxtest::waitFor;

const std::string kLog = "/var/mobile/Library/Logs/CurrentJoulix.joulix";
const std::string kFaultkeeper = "/var/mobile/Library/Logs/Faultkeeper";

struct Header {
    std::string build, timestamp, guid;
};

std::optional<Header> parseHeader(const std::string& firstLine) {
    static const std::regex re(
        R"(^\d\d/\d\d/\d{4} \d\d:\d\d:\d\d\.\d{3} \[Joulix\] Version=6\.01; Build=([^;]*); Timestamp=(\d{4}-\d\d-\d\d-\d{6}); )"
        R"(File_GUID=([0-9A-F-]{36}); rotateJoulixKey=[^;]*; loggingMode=(Lite|Full); binary=joulix; pid=\d+;$)");
    std::smatch m;
    if (!std::regex_match(firstLine, m, re)) return std::nullopt;
    return Header{m[1], m[2], m[3]};
}

class LogFileIntegrationTest : public jxtest::BinariesTest {
protected:
    void SetUp() override {
        setOSVersion("12");
        env["TZ"] = "UTC";
    }
    void setOSVersion(const std::string& v) { root.writeFile("/etc/os-release", "NAME=\"Test OS\"\nVERSION_ID=\"" + v + "\"\n"); }
    // One run of the daemon with --once; answers its exit status.
    int once() {
        auto p = joulix({"--once"});
        auto status = p->wait(60);
        lastErr = p->err();
        return status.value_or(-1);
    }
    std::string firstLine(const std::string& absolute) {
        std::string text = root.readFile(absolute);
        return text.substr(0, text.find('\n'));
    }
    std::vector<std::string> rolledLogs() {
        std::vector<std::string> names;
        if (!std::filesystem::is_directory(root(kFaultkeeper))) return names;
        for (auto& e : std::filesystem::directory_iterator(root(kFaultkeeper))) names.push_back(e.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }

    std::string lastErr;
};

TEST_F(LogFileIntegrationTest, OnceCreatesContinuesAndRollsAfterASystemUpdate) {
    ASSERT_EQ(ctl({"defaults", "write", "JXLinkFaultkeeper", "-bool", "YES"}), 0);
    ASSERT_EQ(ctl({"defaults", "write", "JXRotateJoulixDebug", "-bool", "YES"}), 0);

    ASSERT_EQ(once(), 0) << lastErr;
    auto first = parseHeader(firstLine(kLog));
    ASSERT_TRUE(first) << firstLine(kLog);
    EXPECT_EQ(first->build.substr(0, 4), "12 (");
    const std::string firstText = root.readFile(kLog);
    // Linked under its rolled name from the start.
    const std::string rolledName = "JX_" + first->timestamp + "_" + first->guid + ".joulix";
    EXPECT_EQ(rolledLogs(), std::vector<std::string>{rolledName});

    // Same period, same build: the same file goes on.
    ASSERT_EQ(once(), 0) << lastErr;
    const std::string secondText = root.readFile(kLog);
    EXPECT_GT(secondText.size(), firstText.size());
    EXPECT_EQ(secondText.substr(0, firstText.size()), firstText);
    EXPECT_EQ(rolledLogs(), std::vector<std::string>{rolledName});

    // A system update: the next start rolls the log under its own name and begins a new one.
    setOSVersion("13");
    ASSERT_EQ(once(), 0) << lastErr;
    auto fresh = parseHeader(firstLine(kLog));
    ASSERT_TRUE(fresh);
    EXPECT_NE(fresh->guid, first->guid);
    EXPECT_EQ(fresh->build.substr(0, 4), "13 (");
    EXPECT_EQ(root.readFile(kFaultkeeper + "/" + rolledName).substr(0, secondText.size()), secondText);
    auto names = rolledLogs();
    EXPECT_EQ(names.size(), 2u);
    EXPECT_NE(std::find(names.begin(), names.end(), "JX_" + fresh->timestamp + "_" + fresh->guid + ".joulix"), names.end());
}

TEST_F(LogFileIntegrationTest, HeaderPushedPastTheFirst512BytesCountsAsMissing) {
    setOSVersion(std::string(600, '9'));
    ASSERT_EQ(once(), 0) << lastErr;
    std::string line = firstLine(kLog);
    ASSERT_NE(line.find("File_GUID="), std::string::npos);
    ASSERT_GT(line.find("File_GUID="), 512u);
    std::string before = root.readFile(kLog);
    ASSERT_EQ(once(), 0) << lastErr;
    // Not continued: a new log replaced it, with a GUID of its own.
    std::string after = firstLine(kLog);
    EXPECT_NE(after, line);
    EXPECT_NE(root.readFile(kLog).substr(0, before.size()), before);
}

TEST_F(LogFileIntegrationTest, RotationOffDiscardsTheOldLogAtEveryStart) {
    ASSERT_EQ(ctl({"defaults", "write", "JXRotateJoulix", "0"}), 0);
    ASSERT_EQ(ctl({"defaults", "write", "JXLinkFaultkeeper", "-bool", "NO"}), 0);
    std::set<std::string> guids;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(once(), 0) << lastErr;
        auto h = parseHeader(firstLine(kLog));
        ASSERT_TRUE(h);
        guids.insert(h->guid);
    }
    EXPECT_EQ(guids.size(), 3u);
    EXPECT_TRUE(rolledLogs().empty());
}

TEST_F(LogFileIntegrationTest, StdoutRunWritesTheLogToStandardOutputOnly) {
    std::vector<std::string> argv{binary("joulix"), "--root", root.path(), "--stdout"};
    Process p(argv, out("stdout"), env);
    ASSERT_EQ(p.wait(), 0);
    EXPECT_FALSE(std::filesystem::exists(root(kLog)));
}

TEST_F(LogFileIntegrationTest, DaemonRestartInTheSamePeriodContinuesAndSaysSo) {
    ASSERT_EQ(ctl({"defaults", "write", "JXRotateJoulixDebug", "-bool", "YES"}), 0);
    for (int i = 0; i < 2; ++i) {
        auto daemon = joulix();
        ASSERT_TRUE(waitFor([&] { return daemon->err().find("unblocking after initial") != std::string::npos; }));
        daemon->signal(SIGTERM);
        ASSERT_EQ(daemon->wait(), 0);
    }
    const std::string log = root.readFile(kLog);
    auto missing = log.find("[Log] state=Missing File;");
    auto continued = log.find("[Log] state=continue; existingLogdate=");
    ASSERT_NE(missing, std::string::npos) << log;
    ASSERT_NE(continued, std::string::npos) << log;
    EXPECT_LT(missing, continued);
    // One header: the same log went on.
    int headers = 0;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) headers += line.compare(23, 10, " [Joulix] ") == 0;
    EXPECT_EQ(headers, 1);
}

TEST_F(LogFileIntegrationTest, DaemonRollsAtEachMinuteByItselfAndArchivesEachClosedLog) {
    if (access(jxtest::kFakeTime.c_str(), R_OK) != 0 || access("/bin/gzip", X_OK) != 0)
        GTEST_SKIP() << "libfaketime or gzip missing";
    ASSERT_EQ(ctl({"defaults", "write", "JXRotateJoulix", "1 minute"}), 0);
    ASSERT_EQ(ctl({"defaults", "write", "JXLinkFaultkeeper", "-bool", "YES"}), 0);
    // The daemon's clock starts just before midnight and runs ten times as fast: two
    // minute boundaries pass in about nine seconds.
    auto daemon = joulix({}, "@2026-11-21 23:59:57 x10");
    const std::string archive = "/var/mobile/Library/Logs/JXArchive/";
    auto archives = [&](const std::string& suffix) {
        std::vector<std::string> found;
        std::error_code ec;  // none before the daemon has made the directory
        for (auto& e : std::filesystem::directory_iterator(root(archive), ec))
            if (e.path().string().ends_with(suffix)) found.push_back(e.path().filename());
        return found;
    };
    ASSERT_TRUE(waitFor([&] { return rolledLogs().size() >= 3 && archives(".gz").size() >= 2 && archives(".archive").empty(); }, 60))
        << daemon->err();
    daemon->signal(SIGTERM);
    ASSERT_EQ(daemon->wait(), 0);

    // Every rolled file is named after its own header.
    std::vector<std::string> states;
    for (const std::string& name : rolledLogs()) {
        auto h = parseHeader(firstLine(kFaultkeeper + "/" + name));
        ASSERT_TRUE(h) << name;
        EXPECT_EQ(name, "JX_" + h->timestamp + "_" + h->guid + ".joulix");
    }
    const std::string firstLog = root.readFile(kFaultkeeper + "/" + rolledLogs()[0]);
    EXPECT_NE(firstLog.find("Timestamp=2026-11-21-235957"), std::string::npos);
    // A first start finds no log to read: "Missing File"; the timer's start finds it in the past: "roll".
    EXPECT_NE(firstLog.find("[Log] state=Missing File; existingLogdate=(null); periodStart=(null); rolloverDate=(null);"),
              std::string::npos) << firstLog;
    EXPECT_NE(firstLog.find("[Log] state=roll; existingLogdate=2026-11-21 23:59:57 +0000; "
                            "periodStart=2026-11-22 00:00:00 +0000; rolloverDate=2026-11-22 00:01:00 +0000;"),
              std::string::npos) << firstLog;
    EXPECT_NE(rolledLogs()[1].find("JX_2026-11-22-0000"), std::string::npos);

    // Each closed log is archived beside its rolled name, verified by gzip itself.
    for (const std::string& gz : archives(".gz")) {
        const std::string rolled = gz.substr(0, gz.size() - 3);
        ASSERT_TRUE(std::filesystem::exists(root(kFaultkeeper + "/" + rolled))) << gz;
        Process test({"/bin/gzip", "-t", root(archive + gz)}, out("gzip"));
        EXPECT_EQ(test.wait(), 0) << test.err();
        Process unpack({"/bin/sh", "-c", "gzip -dc \"$0\"", root(archive + gz)}, out("gunzip"));
        ASSERT_EQ(unpack.wait(), 0);
        EXPECT_EQ(unpack.out(), root.readFile(kFaultkeeper + "/" + rolled)) << gz;
    }
}

}  // namespace
