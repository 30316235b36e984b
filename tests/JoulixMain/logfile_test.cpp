// The controller's settings, modes, rotation periods and log files.
#include <gtest/gtest.h>
#include <unicode/calendar.h>

#include <cstdio>

#include "JoulixMain/JoulixMain.h"
#include "defaults/JXDefaults.h"
#include "tests/JoulixMain/TestLogger.h"
#include "tests/support/TestSupport.h"

namespace {

const std::string kLog = "/var/mobile/Library/Logs/CurrentJoulix.joulix";
const std::string kRolled = "/var/mobile/Library/Logs/Faultkeeper/JX_a.joulix";
const std::string kGUID = "0C1E3A52-7F0B-4C8E-9D1A-2B3C4D5E6F70";

std::string header(const std::string& timestamp, const std::string& build = "12 (6.1.0-27-amd64)") {
    return "11/21/2026 16:20:00.123 [Joulix] Version=6.01; Build=" + build + "; Timestamp=" + timestamp +
           "; File_GUID=" + kGUID + "; rotateJoulixKey=Default; loggingMode=Lite; binary=joulix; pid=4242;\n";
}

using LogFileTest = ControllerTest;
using RotationTest = ControllerTest;

// A whole header, and one pushed past the first 512 bytes, are read by the real daemon.
TEST_F(LogFileTest, HeaderIsReadBackOnlyWhenWholeAndExact) {
    std::string cut = header("2026-11-21-162000");
    cut += std::string(511 - cut.size(), '-') + "\xc3\xbc tail\n";  // "ü" straddles byte 512: no harm
    struct Case {
        const char* what;
        std::string contents;
        bool ok;
    } cases[] = {
        {"a character cut at the end of the prefix", cut, true},
        {"no Build", "[Joulix] Version=6.01; Timestamp=2026-11-21-162000; File_GUID=" + kGUID + ";", false},
        {"trailing garbage", header("2026-11-21-162000x"), false},
        {"impossible date", header("2026-02-30-162000"), false},
        {"not UTF-8", header("2026-11-21-162000", "12 (\xff\xfe)"), false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        root.writeFile(kLog, c.contents);
        controller->setFileGUID("before");
        std::string build = "untouched";
        jx::Date date{42};
        EXPECT_EQ(controller->readLogFilePrefix(root(kLog), &build, &date), c.ok);
        EXPECT_EQ(build, c.ok ? "12 (6.1.0-27-amd64)" : "untouched");
        EXPECT_EQ(date.secondsSince1970, c.ok ? 1795278000 : 42);  // 2026-11-21 16:20:00 UTC
        EXPECT_EQ(controller->fileGUID(), c.ok ? kGUID : "before");
    }
    EXPECT_FALSE(controller->readLogFilePrefix(root("/nowhere.joulix"), nullptr, nullptr));
}

TEST_F(LogFileTest, RenameAsideUpToTenCopiesThenDelete) {
    const std::string path = root(kRolled);
    EXPECT_FALSE(controller->moveFileAtPath(path));
    for (int k = 1; k <= 11; ++k) {
        root.writeFile(kRolled, std::to_string(k));
        EXPECT_TRUE(controller->moveFileAtPath(path));
    }
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(root.readFile(kRolled + "-1"), "1");
    EXPECT_EQ(root.readFile(kRolled + "-10"), "10");
    EXPECT_TRUE(log.contains("Had to delete " + path + ", too many copies to rename."));
}

// A local time "yyyy-mm-dd hh:mm[:ss.s]" in the zone, as a Date.
jx::Date local(const char* zone, const char* text) {
    int y, mo, d, h, mi;
    double s = 0;
    EXPECT_GE(std::sscanf(text, "%d-%d-%d %d:%d:%lf", &y, &mo, &d, &h, &mi, &s), 5) << text;
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Calendar> cal(icu::Calendar::createInstance(icu::TimeZone::createTimeZone(zone), status));
    cal->clear();
    cal->set(y, mo - 1, d, h, mi, static_cast<int>(s));
    return jx::Date{cal->getTime(status) / 1000.0 + (s - static_cast<int>(s))};
}

// "1 minute" and the settings without a future rollover are run in the real daemon too.
TEST_F(RotationTest, PeriodsOverTheSettingForms) {
    struct Case {
        jx::Value setting;
        const char *now, *start, *rollover;
        const char* message = nullptr;  // expected system-log line
        const char* zone = "UTC";
    } cases[] = {
        {jx::Value(), "2026-11-21 23:59:59.5", "2026-11-21 00:00", "2026-11-22 00:00"},
        {jx::Value(), "2026-11-22 00:00:00", "2026-11-22 00:00", "2026-11-23 00:00"},
        {jx::Value("90 minute"), "2026-11-21 23:00", "2026-11-21 22:30", "2026-11-22 00:00"},
        {jx::Value("5 hour"), "2026-11-21 21:00", "2026-11-21 20:00", "2026-11-22 00:00"},
        {jx::Value("7 day"), "2026-10-29 12:00", "2026-10-29 00:00", "2026-11-01 00:00"},
        {jx::Value(3), "2026-11-05 12:00", "2026-11-04 00:00", "2026-11-07 00:00"},
        {jx::Value("40 day"), "2026-11-21 12:00", "2026-11-01 00:00", "2026-12-01 00:00",
         "the log rollover increment is too large"},
        {jx::Value("2 week"), "2026-11-21 12:00", "2026-11-21 00:00", "2026-11-22 00:00",
         "Unsupported JXRotateJoulix value 2 week"},
        // A day across the change to summer time lasts 23 hours, across the change back 25.
        {jx::Value(), "2026-03-29 12:00", "2026-03-29 00:00", "2026-03-30 00:00", nullptr, "Europe/Berlin"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.setting.description() + " at " + c.now);
        useZone(c.zone);
        JXDefaultsSetValueForKey(JXRotateJoulixKey, c.setting);
        clock.setNow(local(c.zone, c.now));
        std::size_t before = c.message ? log.count(c.message) : 0;
        std::optional<jx::Date> start, rollover;
        ASSERT_TRUE(controller->shouldRotateLogFilesWithPeriodStart(&start, &rollover));
        EXPECT_EQ(*start, local(c.zone, c.start));
        EXPECT_EQ(*rollover, local(c.zone, c.rollover));
        EXPECT_EQ(log.count(c.message ? c.message : "none"), c.message ? before + 1 : 0);
    }
}

TEST_F(RotationTest, NoRotationWhenOffOrNotLoggingToFile) {
    for (jx::Value off : {jx::Value(0), jx::Value("0 day"), jx::Value("zero")}) {
        JXDefaultsSetValueForKey(JXRotateJoulixKey, off);
        EXPECT_FALSE(controller->shouldRotateLogFilesWithPeriodStart(nullptr, nullptr)) << off.description();
    }
    JXDefaultsSetValueForKey(JXRotateJoulixKey, jx::Value("1 hour"));
    controller->setLogToFile(false);
    EXPECT_FALSE(controller->shouldRotateLogFilesWithPeriodStart(nullptr, nullptr));
}

TEST_F(RotationTest, DateRangeIncludesItsStartOnlyAndDurationsAreInSeconds) {
    jx::Date a{1000}, b{2000};
    EXPECT_TRUE(controller->dateInRange(a, a, b));
    EXPECT_FALSE(controller->dateInRange(b, a, b));
    struct {
        jx::Value value;
        std::int32_t seconds;
    } cases[] = {
        {jx::Value("14 fortnight"), 1209600},
        {jx::Value(""), 0},
        {jx::Value("-1 hour"), -1},
        {jx::Value("25000 day"), static_cast<std::int32_t>(25000u * 86400u)},
        {jx::Value(2.9), 172800},
    };
    for (auto& c : cases)
        EXPECT_EQ(controller->ComputeTimeFromNowFromDefaults(c.value), c.seconds) << c.value.description();
}

}  // namespace
