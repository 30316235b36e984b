// joulixctl's readers (log, report, export --trace) over generated logs, and bbpower
// end to end: generated power logs in a private crash-report directory, the real grep
// and /bin/sh, the metric spool and the composer module.
#include <nlohmann/json.hpp>
#include <numeric>

#include "analysis/LogReader.h"
#include "platform/PropertyList.h"
#include "tests/baseband/SampleLog.h"
#include "tests/integration/Process.h"
#include "tests/support/TraceRules.h"

namespace {

using namespace jxtest;
using nlohmann::json;

std::vector<json> jsonLines(const std::string& text) {
    std::vector<json> out;
    for (const std::string& l : lines(text)) out.push_back(json::parse(l));
    return out;
}

TraceSummary checked(const std::string& text) {
    TraceSummary s = checkTrace(json::parse(text));
    for (const std::string& p : s.problems) ADD_FAILURE() << p;
    return s;
}

std::string iso(std::int64_t utcSeconds) { return jx::analysis::isoUtc(utcSeconds * 1000); }

class CommandsTest : public BinariesTest {
protected:
    void SetUp() override { env["TZ"] = "UTC"; }
};

TEST_F(CommandsTest, EveryReaderTakesTheLogsWholeSaysWhatItSkippedAndFilters) {
    const LogTruth truth = generate();
    const std::string skipped = "skipped 1 malformed line(s) and 1000 NUL byte(s)";
    std::string out, err;
    ASSERT_EQ(ctl({"log", "-o", "json"}, &out, &err), 0) << err;
    const std::vector<json> records = jsonLines(out);
    ASSERT_EQ(records.size(), truth.records);
    for (std::size_t i = 0; i < records.size(); ++i) {
        EXPECT_FALSE(records[i].contains("guessed"));
        if (i) {
            ASSERT_LE(records[i - 1]["time"].get<std::string>(), records[i]["time"].get<std::string>());
        }
    }
    // The zero-filled tail is said, not printed.
    EXPECT_TRUE(has(err, skipped)) << err;

    ASSERT_EQ(ctl({"report", "--json"}, &out, &err), 0) << err;
    const json j = json::parse(out);
    EXPECT_NEAR(j["hours"].get<double>(), (truth.lastUtcMs - truth.firstUtcMs) / 3.6e6, 0.001);
    EXPECT_EQ(j["suspend"]["count"], truth.sleeps);
    EXPECT_EQ(j["suspend"]["measured"], truth.sleeps);
    // The ranking: the most wakes first, ties by name.
    std::vector<std::pair<std::string, std::uint64_t>> want(truth.wakesByReason.begin(), truth.wakesByReason.end());
    std::stable_sort(want.begin(), want.end(), [](auto& a, auto& b) { return a.second > b.second; });
    decltype(want) got;
    for (const json& w : j["suspend"]["wake_reasons"]) got.emplace_back(w["reason"], w["wakes"]);
    EXPECT_EQ(got, want);
    EXPECT_NEAR(j["battery"]["states"]["suspended"]["drained_mwh"].get<double>(), truth.suspendedDrainedMwh,
                truth.suspendedDrainedMwh * 0.01);
    EXPECT_NEAR(j["battery"]["drained_mwh"].get<double>(), truth.drainedMwh, truth.drainedMwh * 0.01);
    EXPECT_EQ(j["battery"]["days"].size(), truth.drainedMwhByDay.size());
    EXPECT_EQ(j["awake"]["processes"].size(), truth.cpuMsByProcess.size());
    EXPECT_TRUE(has(err, skipped)) << err;
    // The summary says the same in words.
    ASSERT_EQ(ctl({"report"}, &out, &err), 0) << err;
    EXPECT_HAS(out, "Battery\n", "Suspend\n", "Who kept it awake", "Thermal peaks", "Wi-Fi signal",
               std::to_string(truth.sleeps) + " suspend(s)");

    const std::string file = root.path() + "/trace.json";
    ASSERT_EQ(ctl({"export", "--trace", file}, &out, &err), 0) << err;
    EXPECT_TRUE(has(err, skipped)) << err;
    EXPECT_FALSE(fs::exists(file + ".partial"));
    const std::string text = slurp(file);
    const TraceSummary s = checked(text);
    EXPECT_EQ(s.minTs, truth.firstUtcMs * 1000);
    EXPECT_EQ(s.maxTs, truth.lastUtcMs * 1000);
    EXPECT_EQ(s.threads, (std::set<std::string>{"log", "screen", "suspend", "charging"}));
    EXPECT_EQ(s.slices.at("suspend").size(), truth.sleeps);
    EXPECT_EQ(s.wakeReasons, truth.wakesByReason);
    EXPECT_EQ(s.counters.at("battery BAT0 energy").size(), truth.perTag.at("BatteryPower"));
    EXPECT_EQ(s.instants.at("log roll").size(), truth.logs - 1);

    // Since, until and tags filter: from one day after the start to the next noon.
    const std::int64_t since = truth.firstUtcMs / 1000 + 86400, until = since + 43200;
    ASSERT_EQ(
        ctl({"log", "-o", "json", "--since", iso(since), "--until", iso(until), "--tag", "Wake", "--tag", "Sleep"},
            &out),
        0);
    const std::vector<json> inRange = jsonLines(out);
    ASSERT_FALSE(inRange.empty());
    for (const auto& r : inRange) {
        EXPECT_TRUE(r["tag"] == "Wake" || r["tag"] == "Sleep") << r.dump();
        EXPECT_GE(r["time"].get<std::string>(), iso(since).substr(0, 19));
        EXPECT_LE(r["time"].get<std::string>().substr(0, 19), iso(until).substr(0, 19));
    }

    // The trace from one day in to 30 hours in: a night of suspends and a day of charging
    // and screen, every track cut at the edges.
    ASSERT_EQ(ctl({"export", "--trace", "-", "--since", iso(since), "--until", iso(since + 30 * 3600)}, &out, &err), 0)
        << err;
    const TraceSummary cut = checked(out);
    EXPECT_GE(cut.minTs, since * 1000000);
    EXPECT_LE(cut.maxTs, (since + 30 * 3600) * 1000000);
    ASSERT_TRUE(cut.slices.contains("suspend"));
    EXPECT_LT(cut.slices.at("suspend").size(), truth.sleeps);
    EXPECT_GT(cut.slices.at("suspend").size(), 0u);
    // Every series has a value from the range's first instant.
    for (const char* series : {"battery BAT0 power", "battery BAT0 level", "rapl package-0 power"})
        EXPECT_EQ(cut.counters.at(series).front().first, since * 1000000) << series;
}

TEST_F(CommandsTest, CsvHasOneRowPerFieldUnderAHeader) {
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

// Every command refuses what it cannot take with one line, and writes nothing.
TEST_F(CommandsTest, BadUsageIsRefusedWithOneLine) {
    ASSERT_EQ(ctl({"report"}), 1);  // no log
    generate(1);
    write({{"JXLoggingMode", "-int", "3"}});
    const std::string before = root.readFile(kPrefs);
    const struct {
        std::vector<std::string> args;
        int status = 2;
        std::string said = "see joulixctl --help";
    } cases[] = {
        {{"log", "--since", "yesterday"}},
        {{"log", "-o", "xml"}},
        {{"log", "--since", "-1h", "--until", "-2h"}},
        {{"report", "--bogus"}},
        {{"report", "--json", "-o", "-"}},
        {{"report", "--wake-loop", "0"}},
        {{"export"}},
        {{"export", "--trace"}},
        {{"export", "--trace", ""}},
        {{"export", "--trace", "-", "extra"}},
        {{"export", "--trace", root.path() + "/missing/dir/trace.json"}, 1, "cannot write"},
        {{"defaults", "write", "JXLoggingMode", "-int", "99999999999999999999"}, 1, ""},
        {{"defaults", "write", "JXJoulixArchiveDays", "-float", "nan"}, 1, ""},
        {{"defaults", "write", "JXLinkFaultkeeper", "-bool", "maybe"}, 1, ""},
        {{"defaults", "write", "JXLoggingMode", "-dict-add", "a", "b"}, 1, "not a dictionary: nothing was added"},
        {{"defaults", "write", "JXLinkFaultkeeper", "-date", "x"}, 2, "joulixctl: unknown value type '-date'\n"},
        {{"defaults", "write", "JXLinkFaultkeeper"}},
        {{"defaults", "write", "JXRotateJoulix", "1", "minute"}},
        {{"defaults", "frobnicate"}},
        {{"defaults", "read", "JXLoggingMode", "JXRotateJoulix"}},
        {{"launch"}},
        {{"wait"}},
        {{"wait", "a", "--timeout", "x"}},
        {{"post"}},
        {{"exit", "now"}},
        {{"bbpower", "a", "b"}, 2, "joulixctl: bbpower takes one directory and --notify, not 'b'\n"},
        // A domain is a reverse DNS name: never a path out of the preferences directory.
        {{"--domain", "../../x", "defaults", "write", "K", "V"}, 2, "is no domain"},
        {{"--domain", "a/b.c", "defaults", "write", "K", "V"}, 2, "is no domain"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(
            std::accumulate(c.args.begin(), c.args.end(), std::string(), [](auto a, auto& b) { return a + b + " "; }));
        std::string out, err;
        EXPECT_EQ(ctl(c.args, &out, &err), c.status);
        EXPECT_TRUE(out.empty()) << out;
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
        EXPECT_TRUE(has(err, c.said)) << err;
    }
    EXPECT_EQ(root.readFile(kPrefs), before);
    EXPECT_FALSE(fs::exists(root("/x.plist")));
    EXPECT_FALSE(fs::exists(root("/var/x.plist")));
    EXPECT_EQ(ctl({"--domain", "org.example-1.app_2", "defaults", "write", "K", "V"}), 0);
}

// Appends one line to a file, as the writer does: in one write.
void append(const std::string& path, const std::string& line) {
    std::ofstream(path, std::ios::app | std::ios::binary) << line << '\n';
}

TEST_F(CommandsTest, FollowSeesAppendedLinesAcrossARollAndARecreatedLog) {
    const std::string current = root(kLog), rolled = root(kFaultkeeper + "/JX_2026-11-21-152000_A.joulix");
    fs::create_directories(root(kFaultkeeper));
    auto head = [](const char* guid, const char* minute) {
        return std::string("11/21/2026 15:") + minute + ":00.000 [Joulix] Version=6.01; File_GUID=" + guid +
               ";\n11/21/2026 15:" + minute + ":00.001 [Clock] utc_s=0; offset_s=0; zone=UTC; reason=new_log;\n";
    };
    root.writeFile(kLog, head("A", "20") + "11/21/2026 15:20:01.000 [Display] n=1;\n");
    auto follow = startCtl({"log", "-f", "--tag", "Display"});
    auto seen = [&](const std::string& text) { return waitFor([&] { return has(follow->out(), text); }); };
    ASSERT_TRUE(seen("n=1;")) << follow->err();
    append(current, "11/21/2026 15:20:02.000 [Display] n=2;");
    ASSERT_TRUE(seen("n=2;"));
    // A roll: the last line into the old log, the log moved away, a new one made.
    append(current, "11/21/2026 15:20:03.000 [Display] n=3;");
    fs::rename(current, rolled);
    root.writeFile(kLog, head("B", "21") + "11/21/2026 15:21:01.000 [Display] n=4;\n");
    ASSERT_TRUE(seen("n=4;")) << follow->out();
    append(current, "11/21/2026 15:21:02.000 [Display] n=5;");
    ASSERT_TRUE(seen("n=5;"));
    // Deleted, then made again.
    fs::remove(current);
    root.writeFile(kLog, head("C", "22") + "11/21/2026 15:22:01.000 [Display] n=6;\n");
    ASSERT_TRUE(seen("n=6;"));
    follow->signal(SIGTERM);
    ASSERT_TRUE(follow->wait());
    std::vector<std::string> got;
    for (const std::string& l : lines(follow->out())) got.push_back(l.substr(l.find("n=")));
    EXPECT_EQ(got, (std::vector<std::string>{"n=1;", "n=2;", "n=3;", "n=4;", "n=5;", "n=6;"}));
}

// Each chart's id and the number of data points its SVG draws, from the page as the browser left it.
std::map<std::string, int> chartPoints(const std::string& dom) {
    std::map<std::string, int> out;
    const std::string open = "id=\"chart-";
    for (std::size_t at = dom.find(open); at != std::string::npos; at = dom.find(open, at + 1)) {
        const std::size_t idEnd = dom.find('"', at + open.size()), svgEnd = dom.find("</svg>", at);
        int& points = out[dom.substr(at + open.size(), idEnd - at - open.size())];
        for (std::size_t p = dom.find("data-points=\"", at); p != std::string::npos && p < svgEnd;
             p = dom.find("data-points=\"", p + 1))
            points += std::atoi(dom.c_str() + p + 13);
    }
    return out;
}

TEST_F(CommandsTest, ReportPageOpensInABrowserWithEveryChartDrawn) {
    const std::string browser = "/usr/bin/chromium";
    if (::access(browser.c_str(), X_OK) != 0) GTEST_SKIP() << "no chromium";
    generate(3);
    const std::string page = root.path() + "/report.html";
    std::string err;
    ASSERT_EQ(ctl({"report", "-o", page}, nullptr, &err), 0) << err;
    const std::string html = slurp(page);
    // Self-contained: nothing to fetch.
    for (const char* outside : {"http:", "https:", "<link", " src=", "@import", "url("})
        EXPECT_FALSE(has(html, outside)) << outside;

    auto run = [&](std::vector<std::string> extra, const std::string& name) {
        const std::string profile = root.path() + "/profile-" + name;
        fs::create_directories(profile);
        std::vector<std::string> argv{browser};
        argv.insert(argv.end(),
                    {"--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                     "--disable-background-networking", "--disable-component-update", "--disable-sync",
                     "--hide-scrollbars", "--user-data-dir=" + profile, "--enable-logging=stderr", "--v=0"});
        argv.insert(argv.end(), extra.begin(), extra.end());
        argv.push_back("file://" + page);
        auto p = std::make_unique<Process>(argv, out(name), std::map<std::string, std::string>{{"HOME", root.path()}});
        EXPECT_EQ(p->wait(60), 0) << name << ": " << tail(p->err());
        return p;
    };
    auto dom = run({"--dump-dom"}, "dom");
    EXPECT_FALSE(has(dom->err(), ":CONSOLE")) << tail(dom->err());
    const std::string text = dom->out();
    const std::map<std::string, int> charts = chartPoints(text);
    const std::vector<std::string> want = {"level", "power",   "charging",    "screen", "suspend",
                                           "cpu",   "package", "temperature", "wifi"};
    for (const std::string& id : want) {
        ASSERT_TRUE(charts.contains(id)) << id;
        EXPECT_GT(charts.at(id), 20) << id;
    }
    // The page's script ran to its end over every chart.
    EXPECT_TRUE(has(text, "data-ready=\"" + std::to_string(want.size()) + "\""));

    const char* artifacts = std::getenv("JOULIX_ARTIFACTS");
    const std::string dir = artifacts && *artifacts ? artifacts : root.path(), shot = dir + "/report.png";
    fs::create_directories(dir);
    fs::remove(shot);
    run({"--screenshot=" + shot, "--window-size=1280,2400"}, "shot");
    ASSERT_TRUE(fs::exists(shot));
    EXPECT_GT(fs::file_size(shot), 10000u);
}

class BBPower : public BinariesTest {
protected:
    BBPower() { fs::create_directories(crash); }

    // The analysed log first, then a newer one: the second newest is the one analysed.
    void logs(const std::string& analysed, const std::string& name = "JX_2026-11-14-100000_A.joulix") {
        writeDatedFile(crash + name, analysed);
        writeDatedFile(crash + "JX_2026-11-15-100000_B.joulix", "11/15/2026 10:00:00.000 [Joulix] x=1;\n");
    }
    struct Run {
        int status;
        std::string out, err;
        bool said(const std::string& message) const {
            return has(err, "> " + message + "\n") || has(err, ">: " + message + "\n");
        }
        void says(std::initializer_list<std::string> messages) const {
            for (const std::string& m : messages) EXPECT_TRUE(said(m)) << m << "\n" << tail(err);
        }
    };
    // joulixctl bbpower in the root as its working directory.
    Run bbpower(std::vector<std::string> extra = {}) {
        std::vector<std::string> argv{
            "/bin/sh",   "-c",     "cd \"$0\" && exec \"$@\"", root.path(), binary("joulixctl"), "--root",
            root.path(), "bbpower"};
        argv.insert(argv.end(), extra.begin(), extra.end());
        Process p(argv, out("bbpower"));
        auto status = p.wait(120);
        EXPECT_TRUE(status) << "joulixctl did not end";
        return {status.value_or(-1), p.out(), p.err()};
    }
    std::vector<std::string> reports() {
        std::vector<std::string> files;
        for (const std::string& n : names(kLogs + "/Larkin")) files.push_back(root.readFile(kLogs + "/Larkin/" + n));
        return files;
    }
    std::string spool() { return root.readFile(kLogs + "/Metrics/metrics.jsonl"); }

    const std::string crash = root(kFaultkeeper + "/");
    const std::string analysed = crash + "JX_2026-11-14-100000_A.joulix";
    const std::string temporary = root("/var/tmp/Temp_JoulixForBBPowerTool.joulix");
};

TEST_F(BBPower, TwoIdleIntervalsAtFullUtilityAreAnIssueReportedOnlyWhenAsked) {
    installComposer();
    SampleLog log;
    for (int i = 0; i < 4; ++i) log.sample(100, 300, 10, 10).noise().advance(300);
    // A power loss can leave a zero-filled tail, and a process name may carry bytes
    // that are no text: the lines with tags around them still count.
    logs(log.text() + "11/14/2026 10:20:01.000 [Process] name=\xff\xfe;\n" + std::string(64, '\0'));
    Run quiet = bbpower();
    EXPECT_EQ(quiet.status, 0) << quiet.err;
    quiet.says({"Filtered 100 >> 2", "BBPowerTool -- Larkin Priority: 1"});
    EXPECT_TRUE(has(spool(), "\"larkinPriority\":1,\"armUtilityThresholdPoint\":100,")) << spool();
    EXPECT_TRUE(reports().empty());
    EXPECT_HAS(quiet.out, "power log: " + analysed + "\n",
               "metric: appended to " + root(kLogs + "/Metrics/metrics.jsonl"), "report: none\n");

    Run asked = bbpower({"--notify"});
    EXPECT_EQ(asked.status, 0);
    const auto filed = reports();
    ASSERT_EQ(filed.size(), 1u);
    EXPECT_EQ(filed[0],
              "{\"title\":\"BB Power Tool\",\"component\":\"Bramble Telephony\",\"componentVersion\":\"1.0\","
              "\"classification\":3,\"reproducibility\":4,\"description\":\"BB_Power_Tool: Hit a potential "
              "power issue. Attach Log: " +
                  analysed + "\",\"keywords\":[\"BBPower\"]}\n");
    EXPECT_TRUE(has(asked.out, "report: " + root(kLogs + "/Larkin/LarkinTicket-")));
}

TEST_F(BBPower, IntervalsGoIntoTheirBinsUnlessBusyOrInUse) {
    SampleLog bins, used;
    bins.sample(37.2, 300, 10, 10).sample(37.2, 300, 10, 10);                        // bin 38
    bins.sample(0.4, 600, 10, 10);                                                   // bin 1
    bins.sample(50, 300, 70.0, 10).sample(50, 300, 10, 70.0);                        // kept: bin 50
    bins.sample(60, 300, 10, 10).sample(60, 300, 70.1, 10).sample(60, 300, 10, 10);  // discarded
    // Using the device resets the interval and drops the next sample.
    used.sample(90, 300, 10, 10).display(true).sample(90, 300, 10, 10).advance(60);
    used.display(false).sample(90, 600, 10, 10).sample(20, 600, 10, 10);
    auto check = [&](const std::string& log, std::initializer_list<std::string> said) {
        logs(log);
        Run run = bbpower();
        EXPECT_EQ(run.status, 0) << run.err;
        run.says(said);
    };
    check(bins.text(), {"Filtered 38 >> 1", "Filtered 1 >> 1", "Filtered 50 >> 1", "Filtered 60 >> 0",
                        "BBPowerTool -- Total ARMUtility Values 3"});
    check(used.text(), {"Filtered 90 >> 0", "Filtered 20 >> 1", "BBPowerTool -- Total ARMUtility Values 1"});
}

TEST_F(BBPower, NoSamplesGiveNoIssueAndAnEmptyRecord) {
    installComposer();
    SampleLog log;
    log.display(true).noise().display(false);
    logs(log.text());
    Run run = bbpower();
    EXPECT_EQ(run.status, 0) << run.err;
    run.says({"BBPowerTool -- Larkin Priority: 0", "BBPowerTool -- armUtilityCDFThresholdPoint: -1"});
    std::string zeros = "[0";
    for (int i = 1; i <= 100; ++i) zeros += ",0";
    EXPECT_TRUE(has(spool(), "\"larkinPriority\":0,\"armUtilityThresholdPoint\":0,\"armUtilityPDFs\":" + zeros + "]}"))
        << spool();
    // The no-issue report goes out without being asked for.
    const auto filed = reports();
    ASSERT_EQ(filed.size(), 1u);
    EXPECT_TRUE(has(filed[0], "\"description\":\"BB_Power_Tool: No Issue, Larkin Priority: 0. Log: " + analysed + "\""))
        << filed[0];
}

TEST_F(BBPower, TheExtractMayHoldFifteenMegabytesAndNoMore) {
    for (std::uint64_t size : {15728640ull, 15728641ull}) {
        fs::remove_all(crash);
        fs::create_directories(crash);
        // Long kept lines that match no pattern, and one short line to come out exactly.
        const std::string head = "11/14/2026 10:00:00.000 [Battery] level=80; padding=";
        const std::string line = head + std::string(1900 - head.size(), 'p') + "\n";
        std::string text;
        text.reserve(size);
        while (text.size() + line.size() + 100 <= size) text += line;
        text += head + std::string(size - text.size() - head.size() - 1, 'q') + "\n";
        ASSERT_EQ(text.size(), size);
        logs(text, "big.joulix");
        Run run = bbpower();
        EXPECT_TRUE(run.said("BBPowerTool -- Trimmed Power Log File Size(bytes): " + std::to_string(size))) << run.err;
        const bool fits = size == 15728640;
        EXPECT_EQ(run.status, fits ? 0 : 1);
        EXPECT_EQ(run.said("BBPowerTool -- Completed"), fits);
        EXPECT_EQ(run.said("BBPowerTool -- Extracted File is >15MB: Exit"), !fits);
        EXPECT_EQ(run.said("BBPowerTool -- Processing File: " + temporary), fits);
        // A completed run leaves no extract behind; a refused one leaves it whole.
        EXPECT_EQ(fs::exists(temporary) ? fs::file_size(temporary) : 0, fits ? 0 : size);
    }
}

TEST_F(BBPower, HostileFileNamesRunNothing) {
    SampleLog log;
    log.sample(100, 600, 10, 10).sample(100, 600, 10, 10);
    writeDatedFile(crash + "a$(touch pwned1).joulix", log.text());
    // One log only: none of interest.
    Run none = bbpower({crash});
    EXPECT_EQ(none.status, 1);
    EXPECT_TRUE(none.said("BBPowerTool -- No Power Log of Interest Found: Exit")) << none.err;
    EXPECT_TRUE(has(none.out, "power log: NOTFOUND\n")) << none.out;
    EXPECT_EQ(spool(), "");
    writeDatedFile(crash + "b`touch pwned2`.joulix", log.text());
    writeDatedFile(crash + "c\"; touch pwned3; \".joulix", "");
    Run run = bbpower({crash});
    EXPECT_EQ(run.status, 0) << run.err;
    // The second newest, read as a file: its two intervals were counted.
    run.says({"BBPowerTool -- Power Log of Interest: " + crash + "b`touch pwned2`.joulix", "Filtered 100 >> 2"});
    for (const char* f : {"pwned1", "pwned2", "pwned3"}) {
        EXPECT_FALSE(fs::exists(root("/") + f)) << f;
        EXPECT_FALSE(fs::exists(crash + f)) << f;
    }
}

TEST_F(BBPower, WithTheMetricDisabledOnlyANotificationRequestRuns) {
    fs::create_directories(root("/etc/joulix"));
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

}  // namespace
