#include <gtest/gtest.h>
#include <unicode/calendar.h>
#include <unicode/timezone.h>

#include "JoulixMain/JoulixMain.h"
#include "defaults/JXDefaults.h"
#include "tests/support/TestSupport.h"

namespace {

// A local time in the zone the test sets, as a Date.
jx::Date local(const char* zone, int y, int mo, int d, int h, int mi, double s) {
    std::unique_ptr<icu::TimeZone> tz(icu::TimeZone::createTimeZone(zone));
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Calendar> cal(icu::Calendar::createInstance(tz.release(), status));
    cal->clear();
    cal->set(y, mo - 1, d, h, mi, static_cast<int>(s));
    return jx::Date{cal->getTime(status) / 1000.0 + (s - static_cast<int>(s))};
}

class RotationTest : public ::testing::Test {
protected:
    void useZone(const char* zone) {
        zone_ = zone;
        icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone(zone));
        controller = JoulixMain::create();
        controller->setLogToFile(true);
    }
    void TearDown() override { icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("UTC")); }

    jxtest::TestRoot root;
    jxtest::LogCapture log;
    jxtest::FakeClock clock;
    std::shared_ptr<JoulixMain> controller;
    const char* zone_ = "UTC";
};

TEST_F(RotationTest, PeriodsOverTheSettingForms) {
    struct Case {
        const char* zone;
        jx::Value setting;
        int now[6];  // y mo d h mi s, local
        double fraction;
        int start[5];   // y mo d h mi
        int rollover[5];
        const char* message;  // expected system-log line, or nullptr
    } cases[] = {
        {"UTC", jx::Value(), {2026, 11, 21, 23, 59, 59}, 0.5, {2026, 11, 21, 0, 0}, {2026, 11, 22, 0, 0}, nullptr},
        {"UTC", jx::Value(), {2026, 11, 22, 0, 0, 0}, 0, {2026, 11, 22, 0, 0}, {2026, 11, 23, 0, 0}, nullptr},
        {"UTC", jx::Value("1 minute"), {2026, 11, 21, 10, 0, 30}, 0, {2026, 11, 21, 10, 0}, {2026, 11, 21, 10, 1}, nullptr},
        {"UTC", jx::Value("90 minute"), {2026, 11, 21, 23, 0, 0}, 0, {2026, 11, 21, 22, 30}, {2026, 11, 22, 0, 0}, nullptr},
        {"UTC", jx::Value("90 minute"), {2026, 11, 21, 1, 29, 59}, 0, {2026, 11, 21, 0, 0}, {2026, 11, 21, 1, 30}, nullptr},
        {"UTC", jx::Value("5 hour"), {2026, 11, 21, 21, 0, 0}, 0, {2026, 11, 21, 20, 0}, {2026, 11, 22, 0, 0}, nullptr},
        {"UTC", jx::Value("5 hour"), {2026, 11, 21, 7, 0, 0}, 0, {2026, 11, 21, 5, 0}, {2026, 11, 21, 10, 0}, nullptr},
        {"UTC", jx::Value("7 day"), {2026, 10, 29, 12, 0, 0}, 0, {2026, 10, 29, 0, 0}, {2026, 11, 1, 0, 0}, nullptr},
        {"UTC", jx::Value(3), {2026, 11, 5, 12, 0, 0}, 0, {2026, 11, 4, 0, 0}, {2026, 11, 7, 0, 0}, nullptr},
        {"UTC", jx::Value("1 day extra words"), {2026, 11, 5, 12, 0, 0}, 0, {2026, 11, 5, 0, 0}, {2026, 11, 6, 0, 0}, nullptr},
        {"UTC", jx::Value("30 hour"), {2026, 11, 21, 12, 0, 0}, 0, {2026, 11, 21, 0, 0}, {2026, 11, 22, 0, 0},
         "the log rollover increment is too large"},
        {"UTC", jx::Value("40 day"), {2026, 11, 21, 12, 0, 0}, 0, {2026, 11, 1, 0, 0}, {2026, 12, 1, 0, 0},
         "the log rollover increment is too large"},
        {"UTC", jx::Value("-1"), {2026, 11, 21, 12, 0, 0}, 0, {2026, 11, 21, 0, 0}, {2026, 11, 22, 0, 0},
         "Unsupported JXRotateJoulix value -1"},
        {"UTC", jx::Value("2 week"), {2026, 11, 21, 12, 0, 0}, 0, {2026, 11, 21, 0, 0}, {2026, 11, 22, 0, 0},
         "Unsupported JXRotateJoulix value 2 week"},
        // Settings whose arithmetic gives no future rollover, or a period cut to zero
        // bits, would roll in a loop: they roll once a day.
        {"UTC", jx::Value("-3 hour"), {2026, 11, 21, 10, 0, 0}, 0, {2026, 11, 21, 0, 0}, {2026, 11, 22, 0, 0},
         "the JXRotateJoulix setting -3 hour gives no future rollover: rolling once a day"},
        {"UTC", jx::Value(-2), {2026, 11, 21, 10, 0, 0}, 0, {2026, 11, 21, 0, 0}, {2026, 11, 22, 0, 0},
         "the JXRotateJoulix setting -2 gives no future rollover: rolling once a day"},
        {"UTC", jx::Value("4294967296 minute"), {2026, 11, 21, 10, 0, 0}, 0, {2026, 11, 21, 0, 0}, {2026, 11, 22, 0, 0},
         "the log rollover increment is too large"},
        {"UTC", jx::Value("-4294967296 hour"), {2026, 11, 21, 10, 0, 0}, 0, {2026, 11, 21, 0, 0}, {2026, 11, 22, 0, 0},
         "the log rollover increment is too large"},
        // A day across the change to summer time lasts 23 hours, across the change back 25.
        {"Europe/Berlin", jx::Value(), {2026, 3, 29, 12, 0, 0}, 0, {2026, 3, 29, 0, 0}, {2026, 3, 30, 0, 0}, nullptr},
        {"Europe/Berlin", jx::Value("1 hour"), {2026, 10, 25, 23, 30, 0}, 0, {2026, 10, 25, 23, 0}, {2026, 10, 26, 0, 0}, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.setting.description() + " at " + std::to_string(c.now[3]) + ":" + std::to_string(c.now[4]));
        useZone(c.zone);
        JXDefaultsSetValueForKey(JXRotateJoulixKey, c.setting);
        clock.setNow(local(c.zone, c.now[0], c.now[1], c.now[2], c.now[3], c.now[4], c.now[5] + c.fraction));
        std::size_t before = c.message ? log.count(c.message) : 0;
        std::optional<jx::Date> start, rollover;
        ASSERT_TRUE(controller->shouldRotateLogFilesWithPeriodStart(&start, &rollover));
        EXPECT_EQ(*start, local(c.zone, c.start[0], c.start[1], c.start[2], c.start[3], c.start[4], 0));
        EXPECT_EQ(*rollover, local(c.zone, c.rollover[0], c.rollover[1], c.rollover[2], c.rollover[3], c.rollover[4], 0));
        if (c.message) {
            EXPECT_EQ(log.count(c.message), before + 1);
        }
    }
    // The lengths across daylight-saving changes are calendar days.
    EXPECT_EQ(local("Europe/Berlin", 2026, 3, 30, 0, 0, 0).secondsSince1970 -
                  local("Europe/Berlin", 2026, 3, 29, 0, 0, 0).secondsSince1970, 23 * 3600);
}

TEST_F(RotationTest, NoRotationWhenOffOrNotLoggingToFile) {
    useZone("UTC");
    for (jx::Value off : {jx::Value("0"), jx::Value(0), jx::Value(""), jx::Value("0 day"), jx::Value("zero")}) {
        JXDefaultsSetValueForKey(JXRotateJoulixKey, off);
        EXPECT_FALSE(controller->shouldRotateLogFilesWithPeriodStart(nullptr, nullptr)) << off.description();
    }
    JXDefaultsSetValueForKey(JXRotateJoulixKey, jx::Value("-3 hour"));
    EXPECT_TRUE(controller->shouldRotateLogFilesWithPeriodStart(nullptr, nullptr));
    EXPECT_FALSE(log.contains("Unsupported JXRotateJoulix value -3 hour"));
    controller->setLogToFile(false);
    EXPECT_FALSE(controller->shouldRotateLogFilesWithPeriodStart(nullptr, nullptr));
}

TEST_F(RotationTest, DateRangeIncludesItsStartOnly) {
    useZone("UTC");
    jx::Date a{1000}, b{2000};
    EXPECT_TRUE(controller->dateInRange(a, a, b));
    EXPECT_TRUE(controller->dateInRange(jx::Date{1999.999}, a, b));
    EXPECT_FALSE(controller->dateInRange(b, a, b));
    EXPECT_FALSE(controller->dateInRange(jx::Date{999.5}, a, b));
}

TEST_F(RotationTest, DurationsInSeconds) {
    useZone("UTC");
    struct {
        jx::Value value;
        std::int32_t seconds;
    } cases[] = {
        {jx::Value("14 day"), 1209600}, {jx::Value(14), 1209600},          {jx::Value("14 fortnight"), 1209600},
        {jx::Value("14"), 1209600},     {jx::Value(""), 0},                {jx::Value("-1 hour"), -1},
        {jx::Value(), -1},              {jx::Value("2 hour"), 7200},       {jx::Value("3 minute"), 180},
        {jx::Value(3), 259200},         {jx::Value(jx::Array{}), -1},      {jx::Value(-1), -1},
        {jx::Value("-2 day"), -172800}, {jx::Value("25000 day"), static_cast<std::int32_t>(25000u * 86400u)},
        {jx::Value(2.9), 172800},       {jx::Value(4294967295LL), -1},
    };
    for (auto& c : cases) EXPECT_EQ(controller->ComputeTimeFromNowFromDefaults(c.value), c.seconds) << c.value.description();
}

}  // namespace
