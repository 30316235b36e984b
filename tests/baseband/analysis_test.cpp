// The sweep over the events, the verdict and the metric record.
#include <gtest/gtest.h>

#include <filesystem>

#include "baseband/JXBasebandPostProcessing.h"
#include "platform/Metrics.h"
#include "platform/PropertyList.h"
#include "tests/support/TestSupport.h"

namespace {

using Dictionary = JXBasebandPostProcessing::Dictionary;
using PDF = JXBasebandPostProcessing::PDF;

// Events in time order, as the reading loop stores them.
class Events {
public:
    Events& sample(double u, double d, double a = 10, double p = 10) {
        return add(
            jx::formatString("ARMUtility=%f;ARMUtilityDuration=%f;APPSValue=%f;PERIPHERALSValue=%f;", u, d, a, p));
    }
    Events& add(const std::string& text) {
        processor.addKey(jx::formatString("%f", time), text, events);
        time += 60;
        return *this;
    }
    JXBasebandPostProcessing processor;
    Dictionary events;
    double time = 1794651600;
};

// The bins that hold something, as bin → count.
std::map<int, int> filled(const PDF& pdf) {
    std::map<int, int> out;
    for (std::size_t i = 0; i < pdf.size(); ++i)
        if (pdf[i]) out[static_cast<int>(i)] = pdf[i];
    return out;
}

class Sweep : public ::testing::Test {
protected:
    std::map<int, int> sweep(Events& e) {
        PDF pdf(101, 0);
        e.processor.calculateARMUtilityFor(&e.events, pdf);
        return filled(pdf);
    }
    jxtest::TestRoot root;
    jxtest::LogCapture log;
};

// Rounding into bins and the APPS limit, and the display's reset, are checked end
// to end by the joulixctl bbpower tests; these are the other rules of the sweep.
TEST_F(Sweep, IdleIntervalsOfSixHundredSecondsGoIntoTheirBinAndUseOfTheDeviceResets) {
    struct {
        const char* name;
        std::function<void(Events&)> events;
        std::map<int, int> bins;
    } cases[] = {
        {"two 300 s samples at 100 %", [](Events& e) { e.sample(100, 300).sample(100, 300); }, {{100, 1}}},
        {"two intervals at 100 %", [](Events& e) { e.sample(100, 300).sample(100, 300).sample(100, 600); }, {{100, 2}}},
        {"duration-weighted mean", [](Events& e) { e.sample(10, 200).sample(40, 400); }, {{30, 1}}},
        {"599 s close nothing", [](Events& e) { e.sample(50, 599); }, {}},
        {"peripherals at 70.1 discard it",
         [](Events& e) { e.sample(50, 300).sample(50, 300, 10, 70.1).sample(50, 300); },
         {}},
        {"a sample at 0 % neither adds nor resets",
         [](Events& e) { e.sample(60, 300).sample(0, 900).sample(60, 300); },
         {{60, 1}}},
        {"a negative utility does not match and counts as zeros",
         [](Events& e) {
             e.sample(80, 300)
                 .add(
                     "ARMUtility=-5.000000;ARMUtilityDuration=900.000000;APPSValue=10.000000;PERIPHERALSValue=1."
                     "000000;")
                 .sample(80, 300);
         },
         {{80, 1}}},
        {"a sample with absent values counts as zeros",
         [](Events& e) {
             e.sample(80, 300)
                 .add("ARMUtility=(null);ARMUtilityDuration=(null);APPSValue=(null);PERIPHERALSValue=0.000000;")
                 .sample(80, 300);
         },
         {{80, 1}}},
        {"events the sweep does not read change nothing",
         [](Events& e) { e.sample(80, 300).add("APSleepStatus=sleep").add("BATTERY_CHARGING_ACTIVE").sample(80, 300); },
         {{80, 1}}},
        // Use of the device resets the interval and drops the first sample after it.
        {"a call",
         [](Events& e) {
             e.add("VoiceCallStatus=Active")
                 .sample(90, 600)
                 .add("VoiceCallStatus=Inactive")
                 .sample(90, 600)
                 .sample(30, 600);
         },
         {{30, 1}}},
        {"audio",
         [](Events& e) {
             e.add("audioAssertionHeld=YES").add("audioAssertionHeld=NO").sample(90, 600).sample(30, 600);
         },
         {{30, 1}}},
        {"hotspot",
         [](Events& e) {
             e.add("PersonalWifiHotspot=YES").add("PersonalWifiHotspot=NO").sample(90, 600).sample(30, 600);
         },
         {{30, 1}}},
        {"display off from the start is idle",
         [](Events& e) { e.add("DisplayStatus=Inactive").sample(90, 600); },
         {{90, 1}}},
    };
    for (const auto& c : cases) {
        Events e;
        c.events(e);
        EXPECT_EQ(sweep(e), c.bins) << c.name;
        int total = 0;
        for (auto& [bin, n] : c.bins) total += n;
        EXPECT_EQ(e.processor.totalNumberOfARMUtilityValuesFiltered(), total) << c.name;
    }
    EXPECT_TRUE(log.contains("BBPowerTool -- Calcualte ARM Utility Values"));
}

class Verdict : public ::testing::Test {
protected:
    // Runs the sweep over the events and then the verdict; answers the spool's last line.
    std::string verdict(Events& e, bool notify = false) {
        PDF pdf(101, 0);
        e.processor.calculateARMUtilityFor(&e.events, pdf);
        e.processor.getResultForARMValues(pdf, notify, "/logs/JX_x.joulix");
        std::string spool = root.readFile("/var/mobile/Library/Logs/Metrics/metrics.jsonl");
        if (spool.empty()) return spool;
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

TEST_F(Verdict, TwoFullIntervalsAreAPotentialIssue) {
    clock.setNow(jx::Date{1794651600.5});
    Events e;
    e.sample(100, 600).sample(100, 600).sample(50, 600);
    EXPECT_EQ(verdict(e),
              "{\"component\":31,\"metric\":2031617,\"timestamp\":1794651600500,\"larkinPriority\":1,"
              "\"armUtilityThresholdPoint\":100,\"armUtilityPDFs\":" +
                  pdfJSON({{50, 1}, {100, 2}}) + "}");
    EXPECT_TRUE(log.contains("BBPowerTool -- Total ARMUtility Values 3"));
    EXPECT_TRUE(log.contains("Filtered 100 >> 2"));
    EXPECT_TRUE(log.contains("BBPowerTool -- Larkin Priority: 1"));
    EXPECT_TRUE(log.contains("BBPowerTool -- armUtilityCDFThresholdPoint: 100"));
    EXPECT_EQ(log.count("Filtered 7 >> 0"), 1u);

    // One interval at 100 % is no issue, and its PDF is not sent. (No sample at all
    // is checked end to end by the joulixctl bbpower tests.)
    Events one;
    one.sample(100, 600).sample(20, 600);
    EXPECT_NE(verdict(one).find("\"larkinPriority\":0,\"armUtilityThresholdPoint\":0,\"armUtilityPDFs\":" +
                                pdfJSON({})),
              std::string::npos);
    EXPECT_EQ(log.count("BBPowerTool -- armUtilityCDFThresholdPoint: 100"), 2u);
}

TEST_F(Verdict, TheThresholdIsWhereTheCumulativeShareReaches99Percent) {
    Events e;
    for (int i = 0; i < 985; ++i) e.sample(10, 600);
    for (int i = 0; i < 5; ++i) e.sample(11, 600);
    for (int i = 0; i < 10; ++i) e.sample(12, 600);
    verdict(e);
    EXPECT_TRUE(log.contains("BBPowerTool -- Total ARMUtility Values 1000"));
    EXPECT_TRUE(log.contains("BBPowerTool -- armUtilityCDFThresholdPoint: 11"));
}

TEST_F(Verdict, TheRecordFollowsTheFieldRules) {
    jx::Array pdf;
    for (int i = 0; i <= 100; ++i) pdf.emplace_back(i * 3);
    struct {
        jx::Value priority, threshold;
        const char* expected;
    } cases[] = {
        {1, -999, "\"larkinPriority\":1,\"armUtilityThresholdPoint\":-999,"},
        {1, -1, "\"larkinPriority\":1,\"armUtilityPDFs\""},
        {1, -1000, "\"larkinPriority\":1,\"armUtilityPDFs\""},
        {0, 0, "\"larkinPriority\":0,\"armUtilityThresholdPoint\":0,"},
        {-1, 42, "\"timestamp\":0,\"armUtilityThresholdPoint\":42,"},
        // The fields are 32-bit: the low half of the number is what counts.
        {jx::Value(0x100000001LL), jx::Value(0xFFFFFC19LL), "\"larkinPriority\":1,\"armUtilityThresholdPoint\":-999,"},
    };
    clock.setNow(jx::Date{0});
    for (const auto& c : cases) {
        TLMSubmitBasebandPowerMetric(jx::Value(jx::Dictionary{
            {"Priority", c.priority}, {"CDFPercentileThresholdPoint", c.threshold}, {"ARMpdfValues", jx::Value(pdf)}}));
        std::string spool = root.readFile("/var/mobile/Library/Logs/Metrics/metrics.jsonl");
        spool.pop_back();
        const std::string last = spool.substr(spool.rfind('\n') + 1);
        EXPECT_NE(last.find(c.expected), std::string::npos) << last;
        EXPECT_NE(last.find("\"armUtilityPDFs\":[0,3,6,"), std::string::npos);
        EXPECT_NE(last.find(",297,300]}"), std::string::npos);
    }
}

TEST_F(Verdict, TheConfigurationDecidesWhichMetricsAreEnabled) {
    const std::string config = "/etc/joulix/metrics.plist";
    std::filesystem::create_directories(root("/etc/joulix"));
    struct {
        const char* name;
        std::optional<jx::Value> contents;
        bool enabled;
    } cases[] = {
        {"no configuration", std::nullopt, true},
        {"listed", jx::Value(jx::Dictionary{{"EnabledMetrics", jx::Array{jx::Value(5), jx::Value(2031617)}}}), true},
        {"not listed", jx::Value(jx::Dictionary{{"EnabledMetrics", jx::Array{jx::Value(5)}}}), false},
        {"no list", jx::Value(jx::Dictionary{{"Other", jx::Value(1)}}), false},
    };
    for (const auto& c : cases) {
        std::filesystem::remove(root(config));
        if (c.contents) {
            ASSERT_TRUE(jx::writePropertyListFileAtomically(root(config), *c.contents));
        }
        EXPECT_EQ(TLMIsMetricEnabled(kTLMBasebandPowerMetricId), c.enabled) << c.name;
        EXPECT_TRUE(log.contains(c.enabled ? "TLM metric 2031617 is enabled on this config"
                                           : "TLM metric 2031617 is not enabled on this config"))
            << c.name;
    }
    // That a disabled record is not sent is checked end to end by the joulixctl bbpower tests.
}

TEST_F(Verdict, ASpoolThatCannotBeWrittenFailsTheSubmission) {
    // A directory where the spool file should be.
    std::filesystem::create_directories(root("/var/mobile/Library/Logs/Metrics/metrics.jsonl"));
    TLMBasebandPowerToolKPIs record;
    TLMSubmitMetric(&record, kTLMBasebandPowerMetricId);
    EXPECT_TRUE(log.contains("Failed to submit TLM metric <TLMMetricContainer 0x1f0001 TLMBasebandPowerToolKPIs>"));
}

}  // namespace
