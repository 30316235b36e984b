// joulixctl export --trace: the real binary over generated logs (archives, rolled logs, a
// cut tail) and over the real daemon's log.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/integration/Process.h"
#include "tests/support/LogGenerator.h"
#include "tests/support/TestSupport.h"
#include "tests/support/TraceRules.h"

namespace {

using jxtest::slurp;

class ExportCommandTest : public jxtest::BinariesTest {
protected:
    void SetUp() override { env["TZ"] = "UTC"; }
    jxtest::LogTruth generate(int days = 3) {
        jxtest::LogGeneratorOptions o;
        o.days = days;
        o.periodSeconds = 120;
        o.zeroTailBytes = 500;
        return jxtest::generateLogs(root.path(), o);
    }
    jxtest::TraceSummary check(const std::string& text) {
        jxtest::TraceSummary s = jxtest::checkTrace(nlohmann::json::parse(text));
        for (const std::string& p : s.problems) ADD_FAILURE() << p;
        return s;
    }
    std::string iso(std::int64_t utcSeconds) {
        std::time_t t = utcSeconds;
        std::tm tm{};
        gmtime_r(&t, &tm);
        char out[40];
        std::strftime(out, sizeof out, "%Y-%m-%dT%H:%M:%SZ", &tm);
        return out;
    }
};

TEST_F(ExportCommandTest, TraceFileHoldsTheLogsSuspendsAndWakes) {
    const jxtest::LogTruth truth = generate();
    const std::string file = root.path() + "/trace.json";
    std::string out, err;
    ASSERT_EQ(ctl({"export", "--trace", file}, &out, &err), 0) << err;
    EXPECT_TRUE(out.empty());
    EXPECT_NE(err.find("skipped 1 malformed line(s) and 500 NUL byte(s)"), std::string::npos) << err;
    EXPECT_FALSE(std::filesystem::exists(file + ".partial"));
    const std::string text = slurp(file);
    const jxtest::TraceSummary s = check(text);
    EXPECT_EQ(s.slices.at("suspend").size(), truth.sleeps);
    EXPECT_EQ(s.wakeReasons, truth.wakesByReason);
    EXPECT_EQ(s.counters.at("battery BAT0 energy").size(), truth.perTag.at("BatteryPower"));
    EXPECT_EQ(s.instants.at("log roll").size(), truth.logs - 1);

    // The same trace on standard output.
    ASSERT_EQ(ctl({"export", "--trace", "-"}, &out, &err), 0) << err;
    EXPECT_EQ(out, text);
}

TEST_F(ExportCommandTest, RangeCutsEveryTrackAtItsEdges) {
    const jxtest::LogTruth truth = generate();
    // From one day in to 30 hours in: a night of suspends and a day of charging and screen.
    const std::int64_t since = truth.firstUtcMs / 1000 + 86400, until = since + 30 * 3600;
    std::string out, err;
    ASSERT_EQ(ctl({"export", "--trace", "-", "--since", iso(since), "--until", iso(until)}, &out, &err), 0) << err;
    const jxtest::TraceSummary s = check(out);
    EXPECT_GE(s.minTs, since * 1000000);
    EXPECT_LE(s.maxTs, until * 1000000);
    ASSERT_TRUE(s.slices.contains("suspend"));
    EXPECT_LT(s.slices.at("suspend").size(), truth.sleeps);
    EXPECT_GT(s.slices.at("suspend").size(), 0u);
    // Every series has a value from the range's first instant.
    for (const char* series : {"battery BAT0 power", "battery BAT0 level", "rapl package-0 power"})
        EXPECT_EQ(s.counters.at(series).front().first, since * 1000000) << series;
}

TEST_F(ExportCommandTest, RealDaemonsLogExports) {
    ASSERT_EQ(joulix({"--once"})->wait(), 0);
    std::string out, err;
    ASSERT_EQ(ctl({"export", "--trace", "-"}, &out, &err), 0) << err;
    const jxtest::TraceSummary s = check(out);
    EXPECT_EQ(s.instants.at("log start").size(), 1u);
    EXPECT_TRUE(s.threads.contains("log"));
}

TEST_F(ExportCommandTest, BadInputIsRefusedWithOneMessage) {
    generate(1);
    const std::vector<std::vector<std::string>> cases = {
        {"export"},
        {"export", "--trace"},
        {"export", "--trace", ""},
        {"export", "--trace", "-", "--since", "yesterday"},
        {"export", "--trace", "-", "--since", "-1h", "--until", "-2h"},
        {"export", "--trace", "-", "--bogus"},
        {"export", "--trace", "-", "extra"},
    };
    for (const auto& args : cases) {
        std::string out, err;
        EXPECT_EQ(ctl(args, &out, &err), 2) << args.back();
        EXPECT_TRUE(out.empty()) << args.back();
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    }
    // A file that cannot be written: status 1, nothing left behind.
    std::string err;
    EXPECT_EQ(ctl({"export", "--trace", root.path() + "/missing/dir/trace.json"}, nullptr, &err), 1);
    EXPECT_NE(err.find("cannot write"), std::string::npos) << err;
}

}  // namespace
