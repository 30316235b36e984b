// The pattern table, matching lines, event keys and the dispatch of matched lines.
#include <gtest/gtest.h>

#include <ctime>

#include "baseband/JXBasebandPostProcessing.h"
#include "tests/baseband/SampleLog.h"
#include "tests/support/TestSupport.h"

namespace {

using Dictionary = JXBasebandPostProcessing::Dictionary;

const char* const kStamp = "11/14/2026 10:20:30.250 ";
const char* const kStampWithoutFraction = "11/14/2026 10:20:30 ";

// One line of each kind as the loggers write it, the row it matches and its groups.
const struct LineCase {
    const char* body;
    const char* row;  // "" when no row matches
    std::map<std::string, std::string> groups;
} kLines[] = {
    {"[Display] active=YES; brightness=0.5;", "DisplayStatus", {{"8", "YES"}}},
    {"[Battery] level=80; charging_state=inactive; charging_current=0;", "BatteryCharging", {{"8", "inactive"}}},
    {"[BB HW Log] LogCode=0x1; Duration=300.5;", "ARMUtilityDuration", {{"8", "300.5"}}},
    {"[BB HW RPM] XO_Shutdown=[10.5%,1200]; VDD_Min=[20%,300]",
     "ARMUtilityValues",
     {{"8", "10.5"}, {"9", "1200"}, {"10", "20"}, {"11", "300"}}},
    {"[BB HW Processor] system_State=[12.5%,3];", "", {}},
    {"[BB HW APPS] Sleep=4; CXO_Shutdown=[90%,55];", "APPSValue", {{"8", "90"}, {"9", "55"}}},
    {"[BB HW Peripherals] USB=[1,2,3.5%]; SPI=[3,1%]; UART=[3,0%]; GPS=[0,7%]; GPS_DPO=[0,2%];",
     "Peripherals",
     {{"8", "3.5"}, {"9", "1"}, {"10", "0"}, {"11", "7"}, {"12", "2"}}},
    {"[BB HW Peripherals] GPS=[0,7%]; USB=[1,3%]; SPI=[3,1%]; UART=[3,0%];",
     "PeripheralsForTarn5",
     {{"8", "7"}, {"9", "3"}, {"10", "1"}, {"11", "0"}}},
    {"[BB HW MPSS] CXO_Shutdown=[40%,100];", "MPSSValue", {{"8", "40"}, {"9", "100"}}},
    {"[Telephony] signal=-80; call_status=Ringing; airplane_mode=NO;", "TelephonyStatus", {{"8", "Ringing"}}},
    {"[Sleep] event=did_sleep;", "SleepStatusTrue", {}},
    {"[Wake] reason=rtc_alarm;", "WakeReason", {{"8", "rtc_alarm"}}},
    {"[BB Event] EventCode=EVENT_WCDMA_RRC_STATE; prevState=FACH; currState=Disconnected; rate=0;",
     "BBEvent",
     {{"8", "FACH"}, {"9", "Disconnected"}}},
    {"[Assertion] id=4; state=created; process=soundhubd; pid=80; name=com.brindle.audio.VAD Aggregate Device UID;",
     "AudioAssertionCreated",
     {}},
    {"[Assertion] id=4; state=released; process=soundhubd; pid=80; name=com.brindle.audio.VAD Aggregate Device UID;",
     "AudioAssertionReleased",
     {}},
    {"[Assertion] id=9; state=held; process=wlanhubd; pid=81; name=ap1;", "WifiAssertionCreated", {{"8", "held"}}},
    {"[Assertion] id=9; state=released; process=wlanhubd; pid=81; name=ap1;", "WifiAssertionReleased", {}},
    {"[Assertion] id=9; state=held; process=locationd; pid=82; name=ap1;", "", {}},
    {"[Process] name=launchdeck; cpu=1.5;", "", {}},
};

class Patterns : public ::testing::Test {
protected:
    Patterns() { p.addSearchStringsToDictionary(table); }
    Dictionary match(const std::string& line) { return p.getMatchedResultsFor(line, table); }
    jxtest::TestRoot root;
    jxtest::LogCapture log;
    JXBasebandPostProcessing p;
    Dictionary table;
};

TEST_F(Patterns, EachLineMatchesItsRowAndOnlyWithAFractionOfASecond) {
    for (const LineCase& c : kLines) {
        Dictionary result = match(std::string(kStamp) + c.body + "\n");
        if (!*c.row) {
            EXPECT_TRUE(result.empty()) << c.body;
            continue;
        }
        EXPECT_EQ(result["matchedFor"], c.row) << c.body;
        for (const auto& [group, text] : c.groups) EXPECT_EQ(result[group], text) << c.body << " group " << group;
        for (const char* timestampGroup : {"1", "2", "3", "4", "5", "6", "7"})
            EXPECT_FALSE(result.count(timestampGroup));

        // Without the fraction the timestamp group has no range: no event, and a message.
        log.messages();
        const std::size_t before = log.count("Exception: getMatchedResults> if-match condition");
        Dictionary bare = match(std::string(kStampWithoutFraction) + c.body + "\n");
        EXPECT_FALSE(bare.count("matchedFor")) << c.body;
        EXPECT_EQ(log.count("Exception: getMatchedResults> if-match condition"), before + 1) << c.body;
    }
}

TEST_F(Patterns, TheLineTimeIsLocalTimePlusTheFraction) {
    Dictionary result = match("11/14/2026 10:20:30.250 [Display] active=YES; brightness=0.5\n");
    std::tm tm{};
    tm.tm_year = 126, tm.tm_mon = 10, tm.tm_mday = 14, tm.tm_hour = 10, tm.tm_min = 20, tm.tm_sec = 30;
    tm.tm_isdst = -1;
    const double expected = static_cast<double>(std::mktime(&tm)) + 0.25;
    EXPECT_EQ(result["epochDateTime"], jx::formatString("%f", expected));
    EXPECT_EQ(result["dateTime"], jx::describeDateUTC(jx::Date{expected - 0.25}) + " (.250)");

    // A two-digit year lies in the formatter's century; a date that does not parse counts as 0 s.
    EXPECT_EQ(match("11/14/26 10:20:30.250 [Sleep] event=did_sleep;\n")["epochDateTime"],
              jx::formatString("%f", expected));
    EXPECT_EQ(match("13/14/2026 10:20:30.250 [Sleep] event=did_sleep;\n")["epochDateTime"], "0.250000");
}

TEST_F(Patterns, DispatchByTagFindsWhatTryingEveryRowFinds) {
    JXBasebandPostProcessing everyRow;
    everyRow.setDispatchesByTag(false);
    std::vector<std::string> lines;
    for (const LineCase& c : kLines) {
        lines.push_back(std::string(kStamp) + c.body + "\n");
        lines.push_back(std::string(kStamp) + c.body);
    }
    // Case-insensitive matching folds case as Unicode does: a sharp s is "ss", the
    // Kelvin sign a "k"; the tag must be found for such lines as well.
    lines.push_back(
        "11/14/2026 10:20:30.250 [assertion] state=created; process=SOUNDHUBD; x; "
        "name=com.brindle.audio.VAD Aggregate Device UID\n");
    lines.push_back(
        "11/14/2026 10:20:30.250 [A\xc3\x9f"
        "ertion] state=held; process=wlanhubd; name=ap1\n");
    lines.push_back(
        "11/14/2026 10:20:30.250 [Wa\xe2\x84\xaa"
        "e] reason=button;\n");
    lines.push_back("11/14/2026 10:20:30.250 [BB HW MP\xc3\x9f] CXO_Shutdown=[40%,100];\n");
    lines.push_back("11/14/2026 10:20:30.250 [Display]] active=NO; brightness=0\n");
    lines.push_back("[Display] 11/14/2026 10:20:30.250 [Display] active=NO; brightness=0\n");
    lines.push_back("11/14/2026 10:20:30.250");
    lines.push_back("");
    std::size_t matched = 0;
    for (const std::string& line : lines) {
        Dictionary a = match(line), b = everyRow.getMatchedResultsFor(line, table);
        EXPECT_EQ(a, b) << line;
        matched += a.count("matchedFor");
    }
    EXPECT_GE(matched, 2 * 16u + 4u);
}

TEST_F(Patterns, ALineThatNeedsExponentialBacktrackingIsGivenUp) {
    // The number groups accept any character between digits: a long run of digits
    // that fails at its end would take the engine years to refute.
    const std::string line = std::string(kStamp) + "[BB HW Peripherals] USB=[1,2,3%]; SPI=[6,1%]; UART=[1,0%]; GPS=[0," +
                             std::string(60, '5') + "#" + std::string(60, '3') + "x%]; GPS_DPO=[0,2%];\n";
    EXPECT_TRUE(match(line).empty());
    EXPECT_TRUE(log.contains("BBPowerTool -- Peripherals gave up on a line that needs too much backtracking"));
}

TEST_F(Patterns, EventsAtTheSameTimeAreKeptATenthOfAMillisecondApart) {
    Dictionary events;
    p.addKey("1700000000.250000", "first", events);
    p.addKey("1700000000.250000", "second", events);
    p.addKey("1700000000.250100", "third", events);
    p.addKey("1700000000.250000", "fourth", events);
    EXPECT_EQ(events, (Dictionary{{"1700000000.2500", "first"},
                                  {"1700000000.2501", "second"},
                                  {"1700000000.2502", "third"},
                                  {"1700000000.2503", "fourth"}}));
}

TEST_F(Patterns, MatchedLinesBecomeEvents) {
    struct {
        std::vector<std::string> bodies;
        std::vector<std::string> events;
    } cases[] = {
        {{"[BB HW Log] LogCode=0x1; Duration=300;", "[BB HW RPM] XO_Shutdown=[10%,1]; VDD_Min=[20%,2]",
          "[BB HW APPS] CXO_Shutdown=[90%,5];",
          "[BB HW Peripherals] USB=[1,2,3.5%]; SPI=[3,1%]; UART=[3,12%]; GPS=[0,7%]; GPS_DPO=[0,12%];"},
         {"ARMUtility=70.000000;ARMUtilityDuration=300.000000;APPSValue=10.000000;PERIPHERALSValue=12.000000;"}},
        // A sample uses what came since the last one; what is missing is "(null)".
        {{"[BB HW Peripherals] USB=[1,2,3%]; SPI=[3,1%]; UART=[3,0%]; GPS=[0,0%]; GPS_DPO=[0,0%];"},
         {"ARMUtility=(null);ARMUtilityDuration=(null);APPSValue=(null);PERIPHERALSValue=3.000000;"}},
        {{"[BB HW RPM] XO_Shutdown=[80%,1]; VDD_Min=[30%,2]",
          "[BB HW Peripherals] USB=[1,2,3%]; SPI=[3,1%]; UART=[3,0%]; GPS=[0,0%]; GPS_DPO=[0,0%];"},
         {"ARMUtility=-10.000000;ARMUtilityDuration=(null);APPSValue=(null);PERIPHERALSValue=3.000000;"}},
        {{"[BB HW Log] Duration=120;", "[BB HW MPSS] CXO_Shutdown=[40.7%,100];"},
         {"MPSSUtility=59;MPSSUtilityDuration=120.000000;"}},
        {{"[Display] active=yes; brightness=0.5", "[Display] active=No; brightness=0",
          "[Display] active=maybe; brightness=0"},
         {"DisplayStatus=Active", "DisplayStatus=Inactive"}},
        {{"[Telephony] call_status=ringing; airplane_mode=NO", "[Telephony] call_status=Sending; airplane_mode=NO",
          "[Telephony] call_status=Held; airplane_mode=NO", "[Telephony] call_status=INACTIVE; airplane_mode=NO"},
         {"VoiceCallStatus=Active", "VoiceCallStatus=Active", "VoiceCallStatus=Inactive"}},
        {{"[Battery] charging_state=Active; charging_current=500",
          "[Battery] charging_state=inactive; charging_current=0", "[Battery] charging_state=full; charging_current=0"},
         {"BATTERY_CHARGING_ACTIVE", "BATTERY_CHARGING_INACTIVE"}},
        {{"[Sleep] event=did_sleep;", "[Wake] reason=usb;",
          "[BB Event] EventCode=EVENT_WCDMA_RRC_STATE; prevState=DCH; currState=disconnected; rate=0",
          "[BB Event] EventCode=EVENT_WCDMA_RRC_STATE; prevState=Idle; currState=FACH; rate=0"},
         {"APSleepStatus=sleep", "APSleepStatus=awake;reason=usb", "WcdmaConnectedState=NO",
          "WcdmaConnectedState=YES"}},
        {{"[Assertion] state=created; process=soundhubd; name=com.brindle.audio.VAD Aggregate Device UID",
          "[Assertion] state=released; process=soundhubd; name=com.brindle.audio.VAD Aggregate Device UID",
          "[Assertion] state=created; process=wlanhubd; name=ap1",
          "[Assertion] state=released; process=wlanhubd; name=ap1"},
         {"audioAssertionHeld=YES", "audioAssertionHeld=NO", "PersonalWifiHotspot=YES", "PersonalWifiHotspot=NO"}},
        {{"[BB HW Peripherals] GPS=[0,7%]; USB=[1,3%]; SPI=[3,1%]; UART=[3,0%];",
          "[BB HW Processor] system_State=[12.5%,3];"},
         {}},
    };
    for (const auto& c : cases) {
        JXBasebandPostProcessing fresh;
        Dictionary events;
        jxtest::SampleLog lines;
        for (const std::string& body : c.bodies) {
            const std::string line = jxtest::SampleLog::stamp(lines.now()) + " " + body + "\n";
            lines.advance(1);
            fresh.dispatchMatchedResult(fresh.getMatchedResultsFor(line, table), events);
        }
        std::vector<std::string> texts;
        for (const auto& [time, text] : events) texts.push_back(text);
        EXPECT_EQ(texts, c.events) << c.bodies.front();
    }
}

}  // namespace
