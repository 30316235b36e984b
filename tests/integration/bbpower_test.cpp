// joulixctl bbpower end to end: generated power logs in a private crash-report
// directory, the real grep and /bin/sh, the metric spool and the composer module.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "platform/PropertyList.h"
#include "tests/baseband/SampleLog.h"
#include "tests/integration/Process.h"
#include "tests/support/TestSupport.h"

namespace {

using jxtest::SampleLog;
using jxtest::Process;

class BBPower : public ::testing::Test {
protected:
    BBPower() { std::filesystem::create_directories(crash); }

    // The analysed log first, then a newer one: the second newest is the one analysed.
    void logs(const std::string& analysed, const std::string& name = "JX_2026-11-14-100000_A.joulix") {
        jxtest::writeDatedFile(crash + name, analysed);
        jxtest::writeDatedFile(crash + "JX_2026-11-15-100000_B.joulix", "11/15/2026 10:00:00.000 [Joulix] x=1;\n");
    }
    void installComposer() {
        std::filesystem::create_directories(root("/usr/lib/joulix/Frameworks"));
        std::filesystem::copy_file(JOULIX_LARKIN_COMPOSE, root("/usr/lib/joulix/Frameworks/LarkinCompose.so"));
    }
    struct Run {
        int status;
        std::string out, err;
        bool said(const std::string& message) const {
            return err.find("> " + message + "\n") != std::string::npos ||
                   err.find(">: " + message + "\n") != std::string::npos;
        }
    };
    // joulixctl bbpower in the root as its working directory.
    Run bbpower(std::vector<std::string> extra = {}) {
        std::vector<std::string> argv{
            "/bin/sh",   "-c",     "cd \"$0\" && exec \"$@\"", root.path(), jxtest::binary("joulixctl"), "--root",
            root.path(), "bbpower"};
        argv.insert(argv.end(), extra.begin(), extra.end());
        Process p(argv, root.path() + "/ctl" + std::to_string(++runs));
        auto status = p.wait(120);
        EXPECT_TRUE(status) << "joulixctl did not end";
        return {status.value_or(-1), p.out(), p.err()};
    }
    std::vector<std::string> reports() {
        std::vector<std::string> files;
        std::error_code ec;
        for (auto& e : std::filesystem::directory_iterator(root("/var/mobile/Library/Logs/Larkin"), ec))
            files.push_back(jxtest::slurp(e.path()));
        return files;
    }
    std::string spool() { return root.readFile("/var/mobile/Library/Logs/Metrics/metrics.jsonl"); }
    static std::string zeros() {
        std::string s = "[0";
        for (int i = 1; i <= 100; ++i) s += ",0";
        return s + "]";
    }

    jxtest::TestRoot root;
    const std::string crash = root("/var/mobile/Library/Logs/Faultkeeper/");
    const std::string analysed = crash + "JX_2026-11-14-100000_A.joulix";
    int runs = 0;
};

TEST_F(BBPower, TwoIdleIntervalsAtFullUtilityAreAnIssueReportedOnlyWhenAsked) {
    installComposer();
    SampleLog log;
    for (int i = 0; i < 4; ++i) log.sample(100, 300, 10, 10).noise().advance(300);
    logs(log.text());

    Run quiet = bbpower();
    EXPECT_EQ(quiet.status, 0) << quiet.err;
    EXPECT_TRUE(quiet.said("Filtered 100 >> 2")) << quiet.err;
    EXPECT_TRUE(quiet.said("BBPowerTool -- Larkin Priority: 1"));
    EXPECT_NE(spool().find("\"larkinPriority\":1,\"armUtilityThresholdPoint\":100,"), std::string::npos) << spool();
    EXPECT_TRUE(reports().empty());
    EXPECT_NE(quiet.out.find("power log: " + analysed + "\n"), std::string::npos) << quiet.out;
    EXPECT_NE(quiet.out.find("metric: appended to " + root("/var/mobile/Library/Logs/Metrics/metrics.jsonl")),
              std::string::npos);
    EXPECT_NE(quiet.out.find("report: none\n"), std::string::npos) << quiet.out;
    // A completed run leaves no extract behind.
    EXPECT_FALSE(std::filesystem::exists(root("/var/tmp/Temp_JoulixForBBPowerTool.joulix")));

    Run asked = bbpower({"--notify"});
    EXPECT_EQ(asked.status, 0);
    const auto filed = reports();
    ASSERT_EQ(filed.size(), 1u);
    EXPECT_EQ(filed[0],
              "{\"title\":\"BB Power Tool\",\"component\":\"Bramble Telephony\",\"componentVersion\":\"1.0\","
              "\"classification\":3,\"reproducibility\":4,\"description\":\"BB_Power_Tool: Hit a potential "
              "power issue. Attach Log: " +
                  analysed + "\",\"keywords\":[\"BBPower\"]}\n");
    EXPECT_NE(asked.out.find("report: " + root("/var/mobile/Library/Logs/Larkin/LarkinTicket-")), std::string::npos);
}

// A power loss can leave a zero-filled tail, and a process name may carry bytes that
// are no text: the lines with tags around them still count.
TEST_F(BBPower, NulBytesAndInvalidTextDoNotHideTheLines) {
    SampleLog log;
    for (int i = 0; i < 4; ++i) log.sample(100, 300, 10, 10).noise().advance(300);
    logs(log.text() + "11/14/2026 10:20:01.000 [Process] name=\xff\xfe;\n" + std::string(64, '\0'));
    Run run = bbpower();
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(run.said("BBPowerTool -- Larkin Priority: 1")) << run.err;
}

TEST_F(BBPower, IntervalMeansGoIntoTheirBinsAndBusyIntervalsAreDiscarded) {
    SampleLog log;
    log.sample(37.2, 300, 10, 10).sample(37.2, 300, 10, 10);                        // bin 38
    log.sample(0.4, 600, 10, 10);                                                   // bin 1
    log.sample(50, 300, 70.0, 10).sample(50, 300, 10, 70.0);                        // kept: bin 50
    log.sample(60, 300, 10, 10).sample(60, 300, 70.1, 10).sample(60, 300, 10, 10);  // discarded
    logs(log.text());
    Run run = bbpower();
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(run.said("Filtered 38 >> 1")) << run.err;
    EXPECT_TRUE(run.said("Filtered 1 >> 1"));
    EXPECT_TRUE(run.said("Filtered 50 >> 1"));
    EXPECT_TRUE(run.said("Filtered 60 >> 0"));
    EXPECT_TRUE(run.said("BBPowerTool -- Total ARMUtility Values 3"));
}

TEST_F(BBPower, UsingTheDeviceResetsTheIntervalAndDropsTheNextSample) {
    SampleLog log;
    log.sample(90, 300, 10, 10).display(true).sample(90, 300, 10, 10).advance(60);
    log.display(false).sample(90, 600, 10, 10).sample(20, 600, 10, 10);
    logs(log.text());
    Run run = bbpower();
    EXPECT_TRUE(run.said("Filtered 90 >> 0")) << run.err;
    EXPECT_TRUE(run.said("Filtered 20 >> 1"));
    EXPECT_TRUE(run.said("BBPowerTool -- Total ARMUtility Values 1"));
}

TEST_F(BBPower, NoSamplesGiveNoIssueAndAnEmptyRecord) {
    installComposer();
    SampleLog log;
    log.display(true).noise().display(false);
    logs(log.text());
    Run run = bbpower();
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(run.said("BBPowerTool -- Larkin Priority: 0"));
    EXPECT_TRUE(run.said("BBPowerTool -- armUtilityCDFThresholdPoint: -1"));
    EXPECT_NE(spool().find("\"larkinPriority\":0,\"armUtilityThresholdPoint\":0,\"armUtilityPDFs\":" + zeros() + "}"),
              std::string::npos)
        << spool();
    // The no-issue report goes out without being asked for.
    const auto filed = reports();
    ASSERT_EQ(filed.size(), 1u);
    EXPECT_NE(filed[0].find("\"description\":\"BB_Power_Tool: No Issue, Larkin Priority: 0. Log: " + analysed + "\""),
              std::string::npos)
        << filed[0];
}

TEST_F(BBPower, TheExtractMayHoldFifteenMegabytesAndNoMore) {
    for (std::uint64_t size : {15728640ull, 15728641ull}) {
        std::filesystem::remove_all(crash);
        std::filesystem::create_directories(crash);
        // Long kept lines that match no pattern, and one short line to come out exactly.
        const std::string head = "11/14/2026 10:00:00.000 [Battery] level=80; padding=";
        std::string line = head + std::string(1900 - head.size(), 'p') + "\n";
        std::string text;
        text.reserve(size);
        while (text.size() + line.size() + 100 <= size) text += line;
        const std::size_t rest = size - text.size();
        text += head + std::string(rest - head.size() - 1, 'q') + "\n";
        ASSERT_EQ(text.size(), size);
        logs(text + "", "big.joulix");
        Run run = bbpower();
        const std::string temporary = root("/var/tmp/Temp_JoulixForBBPowerTool.joulix");
        EXPECT_TRUE(run.said("BBPowerTool -- Trimmed Power Log File Size(bytes): " + std::to_string(size))) << run.err;
        if (size == 15728640) {
            EXPECT_EQ(run.status, 0);
            EXPECT_TRUE(run.said("BBPowerTool -- Completed"));
            EXPECT_FALSE(std::filesystem::exists(temporary));
        } else {
            EXPECT_EQ(run.status, 1);
            EXPECT_TRUE(run.said("BBPowerTool -- Extracted File is >15MB: Exit"));
            EXPECT_FALSE(run.said("BBPowerTool -- Processing File: " + temporary));
            EXPECT_EQ(std::filesystem::file_size(temporary), size);
        }
    }
}

TEST_F(BBPower, OneLogOnlyIsNotFound) {
    jxtest::writeDatedFile(crash + "only.joulix", SampleLog().sample(100, 600, 10, 10).text());
    Run run = bbpower();
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(run.said("BBPowerTool -- No Power Log of Interest Found: Exit")) << run.err;
    EXPECT_NE(run.out.find("power log: NOTFOUND\n"), std::string::npos) << run.out;
    EXPECT_EQ(spool(), "");
}

TEST_F(BBPower, HostileFileNamesRunNothing) {
    SampleLog log;
    log.sample(100, 600, 10, 10).sample(100, 600, 10, 10);
    jxtest::writeDatedFile(crash + "a$(touch pwned1).joulix", log.text());
    jxtest::writeDatedFile(crash + "b`touch pwned2`.joulix", log.text());
    jxtest::writeDatedFile(crash + "c\"; touch pwned3; \".joulix", "");
    Run run = bbpower({crash});
    EXPECT_EQ(run.status, 0) << run.err;
    // The second newest, read as a file: its two intervals were counted.
    EXPECT_TRUE(run.said("BBPowerTool -- Power Log of Interest: " + crash + "b`touch pwned2`.joulix")) << run.err;
    EXPECT_TRUE(run.said("Filtered 100 >> 2"));
    for (const char* f : {"pwned1", "pwned2", "pwned3"}) {
        EXPECT_FALSE(std::filesystem::exists(root("/") + f)) << f;
        EXPECT_FALSE(std::filesystem::exists(crash + f)) << f;
    }
}

TEST_F(BBPower, WithTheMetricDisabledOnlyANotificationRequestRuns) {
    std::filesystem::create_directories(root("/etc/joulix"));
    ASSERT_TRUE(jx::writePropertyListFileAtomically(
        root("/etc/joulix/metrics.plist"), jx::Value(jx::Dictionary{{"EnabledMetrics", jx::Array{jx::Value(7)}}})));
    logs(SampleLog().sample(100, 600, 10, 10).sample(100, 600, 10, 10).text());
    Run off = bbpower();
    EXPECT_EQ(off.status, 1);
    EXPECT_TRUE(off.said("BBPowerTool -- TLM and Notification are Disabled: Exit")) << off.err;

    installComposer();
    Run on = bbpower({"--notify"});
    EXPECT_EQ(on.status, 0) << on.err;
    EXPECT_TRUE(on.said("Couldn't create metric container for 2031617"));
    EXPECT_EQ(spool(), "");
    EXPECT_EQ(reports().size(), 1u);
}

TEST_F(BBPower, BadArgumentsGiveStatusTwo) {
    EXPECT_EQ(bbpower({"a", "b"}).status, 2);
    EXPECT_EQ(bbpower({"--bogus"}).status, 2);
}

}  // namespace
