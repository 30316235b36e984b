// joulixctl report: the real binary over generated logs, its page opened in a real browser.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/integration/Process.h"
#include "tests/support/LogGenerator.h"
#include "tests/support/TestSupport.h"

namespace {

using jxtest::Process;

class ReportCommandTest : public jxtest::BinariesTest {
protected:
    void SetUp() override { env["TZ"] = "UTC"; }
    jxtest::LogTruth generate(int days = 3) {
        jxtest::LogGeneratorOptions o;
        o.days = days;
        o.periodSeconds = 120;
        o.zeroTailBytes = 200;
        return jxtest::generateLogs(root.path(), o);
    }
};

TEST_F(ReportCommandTest, JsonCarriesTheFiguresOfTheLogs) {
    const jxtest::LogTruth truth = generate();
    std::string out, err;
    ASSERT_EQ(ctl({"report", "--json"}, &out, &err), 0) << err;
    const nlohmann::json j = nlohmann::json::parse(out);
    EXPECT_EQ(j["suspend"]["count"], truth.sleeps);
    EXPECT_EQ(j["suspend"]["measured"], truth.sleeps);
    // The ranking: the most wakes first, ties by name.
    std::vector<std::pair<std::string, std::uint64_t>> want(truth.wakesByReason.begin(), truth.wakesByReason.end());
    std::stable_sort(want.begin(), want.end(), [](auto& a, auto& b) { return a.second > b.second; });
    ASSERT_EQ(j["suspend"]["wake_reasons"].size(), want.size());
    for (std::size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(j["suspend"]["wake_reasons"][i]["reason"], want[i].first);
        EXPECT_EQ(j["suspend"]["wake_reasons"][i]["wakes"], want[i].second);
    }
    const nlohmann::json& states = j["battery"]["states"];
    EXPECT_NEAR(states["suspended"]["drained_mwh"].get<double>(), truth.suspendedDrainedMwh,
                truth.suspendedDrainedMwh * 0.01);
    EXPECT_NEAR(j["battery"]["drained_mwh"].get<double>(), truth.drainedMwh, truth.drainedMwh * 0.01);
    EXPECT_EQ(j["battery"]["days"].size(), truth.drainedMwhByDay.size());
    EXPECT_EQ(j["awake"]["processes"].size(), truth.cpuMsByProcess.size());
    EXPECT_NE(err.find("skipped 1 malformed line(s) and 200 NUL byte(s)"), std::string::npos) << err;

    // The summary says the same in words.
    ASSERT_EQ(ctl({"report"}, &out, &err), 0) << err;
    for (const char* heading : {"Battery\n", "Suspend\n", "Who kept it awake", "Thermal peaks", "Wi-Fi signal"})
        EXPECT_NE(out.find(heading), std::string::npos) << heading << "\n" << out;
    EXPECT_NE(out.find(std::to_string(truth.sleeps) + " suspend(s)"), std::string::npos) << out;
}

TEST_F(ReportCommandTest, BadUsageExits2AndNoLogExits1) {
    ASSERT_EQ(ctl({"report"}), 1);
    generate(1);
    const std::vector<std::vector<std::string>> bad = {
        {"report", "--bogus"},
        {"report", "--since", "soon"},
        {"report", "-o"},
        {"report", "extra"},
        {"report", "--json", "-o", "-"},
        {"report", "--wake-loop", "0"},
        {"report", "--since", "2026-10-26 00:00", "--until", "2026-10-25 00:00"},
    };
    for (const auto& args : bad) {
        std::string err;
        EXPECT_EQ(ctl(args, nullptr, &err), 2) << args.back();
        EXPECT_NE(err.find("see joulixctl --help"), std::string::npos) << err;
    }
}

// Where the browser is, when there is one.
std::optional<std::string> chromium() {
    for (const char* path : {"/usr/bin/chromium", "/usr/bin/chromium-browser"})
        if (::access(path, X_OK) == 0) return path;
    return std::nullopt;
}

// Each chart's id and the number of data points its SVG draws, from the page as the browser left it.
std::map<std::string, int> chartPoints(const std::string& dom) {
    std::map<std::string, int> out;
    const std::string open = "id=\"chart-";
    for (std::size_t at = dom.find(open); at != std::string::npos; at = dom.find(open, at + 1)) {
        const std::size_t idEnd = dom.find('"', at + open.size());
        const std::string id = dom.substr(at + open.size(), idEnd - at - open.size());
        const std::size_t svgEnd = dom.find("</svg>", at);
        int points = 0;
        for (std::size_t p = dom.find("data-points=\"", at); p != std::string::npos && p < svgEnd;
             p = dom.find("data-points=\"", p + 1))
            points += std::atoi(dom.c_str() + p + 13);
        out[id] = points;
    }
    return out;
}

TEST_F(ReportCommandTest, PageOpensInABrowserWithEveryChartDrawn) {
    const std::optional<std::string> browser = chromium();
    if (!browser) GTEST_SKIP() << "no chromium";
    generate(3);
    const std::string page = root.path() + "/report.html";
    std::string err;
    ASSERT_EQ(ctl({"report", "-o", page}, nullptr, &err), 0) << err;
    const std::string html = jxtest::slurp(page);
    // Self-contained: nothing to fetch.
    for (const char* outside : {"http:", "https:", "<link", " src=", "@import", "url("})
        EXPECT_EQ(html.find(outside), std::string::npos) << outside;

    // With the network off where this user may make a namespace of its own.
    std::vector<std::string> prefix;
    {
        Process probe({"/usr/bin/unshare", "-n", "/bin/true"}, out("unshare"));
        if (probe.wait(10) == 0) prefix = {"/usr/bin/unshare", "-n"};
    }
    auto run = [&](std::vector<std::string> extra, const std::string& name) {
        std::vector<std::string> argv = prefix;
        const std::string profile = root.path() + "/profile-" + name;
        std::filesystem::create_directories(profile);
        for (const std::string& a :
             {*browser, std::string("--headless"), std::string("--no-sandbox"), std::string("--disable-gpu"),
              std::string("--disable-quic"), std::string("--no-first-run"),
              std::string("--disable-background-networking"), std::string("--disable-component-update"),
              std::string("--disable-sync"), std::string("--hide-scrollbars"), "--user-data-dir=" + profile,
              std::string("--enable-logging=stderr"), std::string("--v=0")})
            argv.push_back(a);
        for (std::string& a : extra) argv.push_back(std::move(a));
        argv.push_back("file://" + page);
        auto p = std::make_unique<Process>(argv, out(name), std::map<std::string, std::string>{{"HOME", root.path()}});
        const std::optional<int> status = p->wait(60);
        EXPECT_EQ(status, 0) << name << ": " << jxtest::tail(p->err());
        return p;
    };

    auto dom = run({"--dump-dom"}, "dom");
    const std::string browserErr = dom->err();
    EXPECT_EQ(browserErr.find(":CONSOLE"), std::string::npos) << jxtest::tail(browserErr);
    const std::string text = dom->out();
    const std::map<std::string, int> charts = chartPoints(text);
    const std::vector<std::string> want = {"level", "power",   "charging",    "screen", "suspend",
                                           "cpu",   "package", "temperature", "wifi"};
    for (const std::string& id : want) {
        ASSERT_TRUE(charts.contains(id)) << id;
        EXPECT_GT(charts.at(id), 20) << id;
    }
    // The page's script ran to its end over every chart.
    EXPECT_NE(text.find("data-ready=\"" + std::to_string(want.size()) + "\""), std::string::npos);

    const char* artifacts = std::getenv("JOULIX_ARTIFACTS");
    const std::string dir = artifacts && *artifacts ? artifacts : root.path();
    std::filesystem::create_directories(dir);
    const std::string shot = dir + "/report.png";
    std::filesystem::remove(shot);
    run({"--screenshot=" + shot, "--window-size=1280,2400"}, "shot");
    ASSERT_TRUE(std::filesystem::exists(shot));
    EXPECT_GT(std::filesystem::file_size(shot), 10000u);
}

}  // namespace
