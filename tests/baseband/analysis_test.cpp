// The pattern table, matching lines, event keys and the dispatch of matched lines; the
// sweep over the events, the verdict and the metric record.
#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <numeric>
#include <sstream>

#include "baseband/JXBasebandPostProcessing.h"
#include "platform/Metrics.h"
#include "platform/PropertyList.h"
#include "tests/support/TestSupport.h"

namespace {

using Dictionary = JXBasebandPostProcessing::Dictionary;
using PDF = JXBasebandPostProcessing::PDF;

// Events in time order, one a minute, as the reading loop stores them: "u/d" or
// "u/d/a/p" is a sample (APPS and peripherals 10 unless given), anything else an event.
JXBasebandPostProcessing::PDF sweep(JXBasebandPostProcessing& processor, const std::string& series) {
    Dictionary events;
    double time = 1794651600;
    std::istringstream in(series);
    for (std::string event; in >> event; time += 60) {
        double v[4] = {0, 0, 10, 10};
        if (std::sscanf(event.c_str(), "%lf/%lf/%lf/%lf", &v[0], &v[1], &v[2], &v[3]) >= 2)
            event = jx::formatString("ARMUtility=%f;ARMUtilityDuration=%f;APPSValue=%f;PERIPHERALSValue=%f;", v[0],
                                     v[1], v[2], v[3]);
        processor.addKey(jx::formatString("%f", time), event, events);
    }
    PDF pdf(101, 0);
    processor.calculateARMUtilityFor(&events, pdf);
    return pdf;
}

// Rounding into bins and the APPS limit, and the display's reset, are checked end
// to end by the joulixctl bbpower tests; these are the other rules of the sweep.
TEST(Sweep, IdleIntervalsOfSixHundredSecondsGoIntoTheirBinAndUseOfTheDeviceResets) {
    const struct {
        const char* name;
        const char* series;
        std::map<int, int> bins;
    } cases[] = {
        {"duration-weighted mean", "10/200 40/400", {{30, 1}}},
        {"599 s close nothing", "50/599", {}},
        {"peripherals at 70.1 discard it", "50/300 50/300/10/70.1 50/300", {}},
        {"a sample at 0 % neither adds nor resets", "60/300 0/900 60/300", {{60, 1}}},
        // Use of the device resets the interval and drops the first sample after it.
        {"a call", "VoiceCallStatus=Active 90/600 VoiceCallStatus=Inactive 90/600 30/600", {{30, 1}}},
        {"display off from the start is idle", "DisplayStatus=Inactive 90/600", {{90, 1}}},
    };
    for (const auto& c : cases) {
        JXBasebandPostProcessing processor;
        const PDF pdf = sweep(processor, c.series);
        std::map<int, int> filled;
        for (std::size_t i = 0; i < pdf.size(); ++i)
            if (pdf[i]) filled[static_cast<int>(i)] = pdf[i];
        EXPECT_EQ(filled, c.bins) << c.name;
        EXPECT_EQ(processor.totalNumberOfARMUtilityValuesFiltered(), std::accumulate(pdf.begin(), pdf.end(), 0))
            << c.name;
    }
}

class Verdict : public ::testing::Test {
protected:
    // Runs the sweep over the events and then the verdict; answers the spool's last line.
    std::string verdict(const std::string& series) {
        JXBasebandPostProcessing processor;
        processor.getResultForARMValues(sweep(processor, series), false, "/logs/JX_x.joulix");
        std::string spool = root.readFile("/var/mobile/Library/Logs/Metrics/metrics.jsonl");
        spool.pop_back();
        return spool.substr(spool.rfind('\n') + 1);
    }
    static std::string pdfJSON(std::map<int, int> bins) {
        std::string s = "[";
        for (int i = 0; i <= 100; ++i) s += (i ? "," : "") + std::to_string(bins[i]);
        return s + "]";
    }
    jxtest::TestRoot root;
    jxtest::LogCapture log;
    jxtest::FakeClock clock;
};

TEST_F(Verdict, TwoFullIntervalsAreAPotentialIssueAndTheThresholdIsAt99Percent) {
    clock.setNow(jx::Date{1794651600.5});
    EXPECT_EQ(verdict("100/600 100/600 50/600"),
              "{\"component\":31,\"metric\":2031617,\"timestamp\":1794651600500,\"larkinPriority\":1,"
              "\"armUtilityThresholdPoint\":100,\"armUtilityPDFs\":" +
                  pdfJSON({{50, 1}, {100, 2}}) + "}");

    // One interval at 100 % is no issue, and its PDF is not sent. (No sample at all
    // is checked end to end by the joulixctl bbpower tests.)
    EXPECT_NE(verdict("100/600 20/600")
                  .find("\"larkinPriority\":0,\"armUtilityThresholdPoint\":0,\"armUtilityPDFs\":" + pdfJSON({})),
              std::string::npos);

    // The threshold is where the cumulative share reaches 99 %.
    std::string series;
    for (int i = 0; i < 1000; ++i) series += i < 985 ? "10/600 " : i < 990 ? "11/600 " : "12/600 ";
    verdict(series);
    EXPECT_TRUE(log.contains("BBPowerTool -- Total ARMUtility Values 1000"));
    EXPECT_TRUE(log.contains("BBPowerTool -- armUtilityCDFThresholdPoint: 11"));
}

TEST_F(Verdict, ASpoolThatCannotBeWrittenFailsTheSubmission) {
    // A directory where the spool file should be.
    std::filesystem::create_directories(root("/var/mobile/Library/Logs/Metrics/metrics.jsonl"));
    TLMBasebandPowerToolKPIs record;
    TLMSubmitMetric(&record, kTLMBasebandPowerMetricId);
    EXPECT_TRUE(log.contains("Failed to submit TLM metric <TLMMetricContainer 0x1f0001 TLMBasebandPowerToolKPIs>"));
}

const char* const kStamp = "11/14/2026 10:20:30.250 ";

// One line of each kind as the loggers write it (and spellings of their values), the
// row it matches ("" for none), its groups, and the event it makes on its own. The
// sample lines, [Display] and lines of no row are read by joulixctl bbpower in the
// integration tests too.
const struct LineCase {
    const char* body;
    const char* row;
    const char* groups = "";  // "8=value 9=value"
    const char* event = nullptr;
} kLines[] = {
    {"[Display] active=No; brightness=0", "DisplayStatus", "8=No", "DisplayStatus=Inactive"},
    {"[Battery] level=80; charging_state=inactive; charging_current=0;", "BatteryCharging", "8=inactive",
     "BATTERY_CHARGING_INACTIVE"},
    {"[BB HW RPM] XO_Shutdown=[10.5%,1200]; VDD_Min=[20%,300]", "ARMUtilityValues", "8=10.5 9=1200 10=20 11=300"},
    // A sample uses what came since the last one; what is missing is "(null)".
    {"[BB HW Peripherals] USB=[1,2,3.5%]; SPI=[3,1%]; UART=[3,0%]; GPS=[0,7%]; GPS_DPO=[0,2%];", "Peripherals",
     "8=3.5 9=1 10=0 11=7 12=2",
     "ARMUtility=(null);ARMUtilityDuration=(null);APPSValue=(null);PERIPHERALSValue=7.000000;"},
    {"[BB HW Peripherals] GPS=[0,7%]; USB=[1,3%]; SPI=[3,1%]; UART=[3,0%];", "PeripheralsForTarn5",
     "8=7 9=3 10=1 11=0"},
    {"[BB HW MPSS] CXO_Shutdown=[40.7%,100];", "MPSSValue", "8=40.7 9=100",
     "MPSSUtility=59;MPSSUtilityDuration=(null);"},
    {"[Telephony] signal=-80; call_status=Inactive; airplane_mode=NO;", "TelephonyStatus", "8=Inactive",
     "VoiceCallStatus=Inactive"},
    {"[Sleep] event=did_sleep;", "SleepStatusTrue", "", "APSleepStatus=sleep"},
    {"[Wake] reason=rtc_alarm;", "WakeReason", "8=rtc_alarm", "APSleepStatus=awake;reason=rtc_alarm"},
    {"[BB Event] EventCode=EVENT_WCDMA_RRC_STATE; prevState=FACH; currState=disconnected; rate=0;", "BBEvent",
     "8=FACH 9=disconnected", "WcdmaConnectedState=NO"},
    {"[Assertion] id=4; state=created; process=soundhubd; pid=80; name=com.brindle.audio.VAD Aggregate Device UID;",
     "AudioAssertionCreated", "", "audioAssertionHeld=YES"},
    {"[Assertion] state=released; process=soundhubd; name=com.brindle.audio.VAD Aggregate Device UID",
     "AudioAssertionReleased", "", "audioAssertionHeld=NO"},
    {"[Assertion] id=9; state=held; process=wlanhubd; pid=81; name=ap1;", "WifiAssertionCreated", "8=held",
     "PersonalWifiHotspot=YES"},
    {"[Assertion] id=9; state=released; process=wlanhubd; pid=81; name=ap1;", "WifiAssertionReleased", "",
     "PersonalWifiHotspot=NO"},
    {"[Assertion] id=9; state=held; process=locationd; pid=82; name=ap1;", ""},
};

class Patterns : public ::testing::Test {
protected:
    Patterns() { p.addSearchStringsToDictionary(table); }
    Dictionary match(const std::string& line) { return p.getMatchedResultsFor(line, table); }
    // The events a fresh processor makes of a line on its own.
    std::vector<std::string> events(const std::string& line) {
        JXBasebandPostProcessing fresh;
        Dictionary events;
        fresh.dispatchMatchedResult(match(line), events);
        std::vector<std::string> texts;
        for (const auto& [time, text] : events) texts.push_back(text);
        return texts;
    }
    jxtest::TestRoot root;
    jxtest::LogCapture log;
    JXBasebandPostProcessing p;
    Dictionary table;
};

// That dispatch by tag finds what trying every row finds, for these lines and any
// other (case folded as Unicode does among them), is the line matcher fuzz target's check.
TEST_F(Patterns, EachLineMatchesItsRowOnlyWithAFractionOfASecondAndMakesItsEvent) {
    for (const LineCase& c : kLines) {
        SCOPED_TRACE(c.body);
        Dictionary result = match(kStamp + std::string(c.body) + "\n");
        EXPECT_EQ(events(kStamp + std::string(c.body) + "\n"),
                  c.event ? std::vector<std::string>{c.event} : std::vector<std::string>{});
        if (!*c.row) {
            EXPECT_TRUE(result.empty());
            continue;
        }
        EXPECT_EQ(result["matchedFor"], c.row);
        std::istringstream groups(c.groups);
        for (std::string group; groups >> group;)
            EXPECT_EQ(result[group.substr(0, group.find('='))], group.substr(group.find('=') + 1)) << group;
        // Without the fraction the timestamp group has no range: no event, and a message.
        const std::size_t before = log.count("Exception: getMatchedResults> if-match condition");
        EXPECT_FALSE(match("11/14/2026 10:20:30 " + std::string(c.body) + "\n").count("matchedFor"));
        EXPECT_EQ(log.count("Exception: getMatchedResults> if-match condition"), before + 1);
    }
}

TEST_F(Patterns, ALineThatNeedsExponentialBacktrackingIsGivenUp) {
    // The number groups accept any character between digits: a long run of digits
    // that fails at its end would take the engine years to refute.
    const std::string line = std::string(kStamp) +
                             "[BB HW Peripherals] USB=[1,2,3%]; SPI=[6,1%]; UART=[1,0%]; GPS=[0," +
                             std::string(60, '5') + "#" + std::string(60, '3') + "x%]; GPS_DPO=[0,2%];\n";
    EXPECT_TRUE(match(line).empty());
    EXPECT_TRUE(log.contains("BBPowerTool -- Peripherals gave up on a line that needs too much backtracking"));
}

TEST_F(Patterns, EventsAtTheSameTimeAreKeptATenthOfAMillisecondApart) {
    Dictionary events;
    for (const char* key : {"1700000000.250000", "1700000000.250000", "1700000000.250100"}) p.addKey(key, key, events);
    EXPECT_EQ(events, (Dictionary{{"1700000000.2500", "1700000000.250000"},
                                  {"1700000000.2501", "1700000000.250000"},
                                  {"1700000000.2502", "1700000000.250100"}}));
}

}  // namespace
