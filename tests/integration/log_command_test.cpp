// joulixctl log: the real binary over generated logs and over the real daemon's log.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/integration/Process.h"
#include "tests/support/LogGenerator.h"
#include "tests/support/TestSupport.h"

namespace {

using jxtest::Process;
using jxtest::waitFor;

const std::string kLog = "/var/mobile/Library/Logs/CurrentJoulix.joulix";

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

std::vector<nlohmann::json> jsonLines(const std::string& text) {
    std::vector<nlohmann::json> out;
    for (const std::string& l : lines(text)) out.push_back(nlohmann::json::parse(l));
    return out;
}

class LogCommandTest : public jxtest::BinariesTest {
protected:
    void SetUp() override { env["TZ"] = "UTC"; }
    jxtest::LogTruth generate(int days = 3) {
        jxtest::LogGeneratorOptions o;
        o.days = days;
        o.periodSeconds = 120;
        o.zeroTailBytes = 1000;
        return jxtest::generateLogs(root.path(), o);
    }
};

TEST_F(LogCommandTest, JsonLinesCarryEveryRecordInTimeOrder) {
    const jxtest::LogTruth truth = generate();
    std::string out, err;
    ASSERT_EQ(ctl({"log", "-o", "json"}, &out, &err), 0) << err;
    const std::vector<nlohmann::json> records = jsonLines(out);
    ASSERT_EQ(records.size(), truth.records);
    std::map<std::string, std::uint64_t> perTag;
    for (std::size_t i = 0; i < records.size(); ++i) {
        ++perTag[records[i]["tag"].get<std::string>()];
        ASSERT_TRUE(records[i]["fields"].is_object());
        EXPECT_FALSE(records[i].contains("guessed"));
        if (i) {
            ASSERT_LE(records[i - 1]["time"].get<std::string>(), records[i]["time"].get<std::string>());
        }
    }
    EXPECT_EQ(perTag, truth.perTag);
    EXPECT_EQ(records.front()["tag"], "Joulix");
    // The zero-filled tail is said, not printed.
    EXPECT_NE(err.find("skipped 1 malformed line(s) and 1000 NUL byte(s)"), std::string::npos) << err;

    // Text is the log's own lines.
    ASSERT_EQ(ctl({"log"}, &out), 0);
    const std::vector<std::string> text = lines(out);
    ASSERT_EQ(text.size(), truth.records);
    EXPECT_NE(text[0].find(" [Joulix] Version=6.01; "), std::string::npos);
}

TEST_F(LogCommandTest, SinceUntilAndTagsFilter) {
    const jxtest::LogTruth truth = generate();
    // From one day after the start to the next noon, in three spellings of the same instants.
    const std::int64_t since = truth.firstUtcMs / 1000 + 86400, until = since + 43200;
    char iso[2][40], local[2][40];
    for (int k = 0; k < 2; ++k) {
        std::time_t t = k ? until : since;
        std::tm tm{};
        gmtime_r(&t, &tm);
        std::strftime(iso[k], sizeof iso[k], "%Y-%m-%dT%H:%M:%SZ", &tm);
        std::strftime(local[k], sizeof local[k], "%Y-%m-%d %H:%M:%S", &tm);  // TZ=UTC
    }
    std::string viaIso, viaLocal;
    ASSERT_EQ(
        ctl({"log", "-o", "json", "--since", iso[0], "--until", iso[1], "--tag", "Wake", "--tag", "Sleep"}, &viaIso),
        0);
    ASSERT_EQ(ctl({"log", "-o", "json", "--since", local[0], "--until", local[1], "--tag", "Wake", "--tag", "Sleep"},
                  &viaLocal),
              0);
    EXPECT_EQ(viaIso, viaLocal);
    const std::vector<nlohmann::json> records = jsonLines(viaIso);
    ASSERT_FALSE(records.empty());
    for (const auto& r : records) {
        EXPECT_TRUE(r["tag"] == "Wake" || r["tag"] == "Sleep") << r.dump();
        EXPECT_GE(r["time"].get<std::string>(), std::string(iso[0]).substr(0, 19));
        EXPECT_LE(r["time"].get<std::string>().substr(0, 19), std::string(iso[1]).substr(0, 19));
    }
    // All the wakes when unbounded.
    std::string out;
    ASSERT_EQ(ctl({"log", "--tag", "Wake"}, &out), 0);
    std::uint64_t wakes = 0;
    for (const auto& [reason, n] : truth.wakesByReason) wakes += n;
    EXPECT_EQ(lines(out).size(), wakes);
}

TEST_F(LogCommandTest, CsvHasOneRowPerFieldUnderAHeader) {
    root.writeFile(kLog,
                   "11/21/2026 15:20:00.000 [Clock] utc_s=1795274400.000; offset_s=0; zone=UTC; reason=new_log;\n"
                   "11/21/2026 15:20:01.500 [Process] pid=7; command=/bin/sh -c \"a,b\";\n");
    std::string out;
    ASSERT_EQ(ctl({"log", "-o", "csv", "--tag", "Process"}, &out), 0);
    EXPECT_EQ(out,
              "time,tag,field,value,guessed\n"
              "2026-11-21T15:20:01.500Z,Process,pid,7,0\n"
              "2026-11-21T15:20:01.500Z,Process,command,\"/bin/sh -c \"\"a,b\"\"\",0\n");
}

TEST_F(LogCommandTest, BadInputIsRefusedWithOneMessage) {
    generate(1);
    const std::vector<std::vector<std::string>> cases = {
        {"log", "--since", "yesterday"},
        {"log", "--until", "2026-13-01 10:00"},
        {"log", "--since", "-2x"},
        {"log", "-o", "xml"},
        {"log", "--tag"},
        {"log", "--bogus"},
        {"log", "extra"},
        {"log", "--since", "-1h", "--until", "-2h"},
    };
    for (const auto& args : cases) {
        std::string out, err;
        EXPECT_EQ(ctl(args, &out, &err), 2) << args.back();
        EXPECT_TRUE(out.empty()) << args.back();
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    }
}

TEST_F(LogCommandTest, ReadsTheRealDaemonsLogWithoutASkippedLine) {
    ASSERT_EQ(joulix({"--once"})->wait(), 0);
    std::string out, err;
    ASSERT_EQ(ctl({"log", "-o", "json"}, &out, &err), 0) << err;
    const std::vector<nlohmann::json> records = jsonLines(out);
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.front()["tag"], "Joulix");
    bool clock = false;
    for (const auto& r : records) clock |= r["tag"] == "Clock";
    EXPECT_TRUE(clock);
    EXPECT_EQ(err.find("skipped"), std::string::npos) << err;
    EXPECT_EQ(err.find("no [Clock]"), std::string::npos) << err;
}

// Appends one line to a file, as the writer does: in one write.
void append(const std::string& path, const std::string& line) {
    std::ofstream out(path, std::ios::app | std::ios::binary);
    out << line << '\n';
}

TEST_F(LogCommandTest, FollowSeesAppendedLinesAcrossARollAndARecreatedLog) {
    const std::string current = root(kLog);
    const std::string rolled = root("/var/mobile/Library/Logs/Faultkeeper/JX_2026-11-21-152000_A.joulix");
    std::filesystem::create_directories(std::filesystem::path(rolled).parent_path());
    auto head = [](const char* guid, const char* minute) {
        return std::string("11/21/2026 15:") + minute + ":00.000 [Joulix] Version=6.01; File_GUID=" + guid +
               ";\n11/21/2026 15:" + minute + ":00.001 [Clock] utc_s=0; offset_s=0; zone=UTC; reason=new_log;\n";
    };
    root.writeFile(kLog, head("A", "20") + "11/21/2026 15:20:01.000 [Display] n=1;\n");

    Process follow({jxtest::binary("joulixctl"), "--root", root.path(), "log", "-f", "--tag", "Display"}, out("follow"),
                   env);
    auto seen = [&](const std::string& text) {
        return waitFor([&] { return follow.out().find(text) != std::string::npos; });
    };
    ASSERT_TRUE(seen("n=1;")) << follow.err();

    append(current, "11/21/2026 15:20:02.000 [Display] n=2;");
    ASSERT_TRUE(seen("n=2;"));

    // A roll: the last line into the old log, the log moved away, a new one made.
    append(current, "11/21/2026 15:20:03.000 [Display] n=3;");
    std::filesystem::rename(current, rolled);
    root.writeFile(kLog, head("B", "21") + "11/21/2026 15:21:01.000 [Display] n=4;\n");
    ASSERT_TRUE(seen("n=4;")) << follow.out();
    append(current, "11/21/2026 15:21:02.000 [Display] n=5;");
    ASSERT_TRUE(seen("n=5;"));

    // Deleted, then made again.
    std::filesystem::remove(current);
    root.writeFile(kLog, head("C", "22") + "11/21/2026 15:22:01.000 [Display] n=6;\n");
    ASSERT_TRUE(seen("n=6;"));

    follow.signal(SIGTERM);
    ASSERT_TRUE(follow.wait());
    std::vector<std::string> got;
    for (const std::string& l : lines(follow.out())) got.push_back(l.substr(l.find("n=")));
    const std::vector<std::string> expected = {"n=1;", "n=2;", "n=3;", "n=4;", "n=5;", "n=6;"};
    EXPECT_EQ(got, expected);
}

}  // namespace
