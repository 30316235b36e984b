#include <gtest/gtest.h>

#include "JoulixMain/JoulixMain.h"
#include "defaults/JXDefaults.h"
#include "platform/JXUtilities.h"
#include "tests/JoulixMain/TestLogger.h"
#include "tests/support/TestSupport.h"

namespace {

class ModesTest : public ::testing::Test {
protected:
    void SetUp() override {
        controller = JoulixMain::create();
        ASSERT_TRUE(controller);
    }
    void TearDown() override { JXUtilities::setProcessNameForTesting(std::nullopt); }

    jxtest::TestRoot root;
    std::shared_ptr<JoulixMain> controller;
};

TEST_F(ModesTest, LoggingModeNames) {
    EXPECT_EQ(controller->currentLoggingModeString(), "Lite");  // unset
    EXPECT_EQ(controller->rotateJoulixDefaultStringValue(), "Default");
    struct {
        long long stored;
        const char* name;
    } cases[] = {{0, "Lite"}, {32768, "Lite"}, {1, "Full"}, {65537, "Full"}, {2, "Full"}, {-1, "Full"}, {65536, "Lite"}};
    for (auto& c : cases) {
        JXDefaultsSetValueForKey(JXLoggingMode, jx::Value(c.stored));
        EXPECT_EQ(controller->currentLoggingModeString(), c.name) << c.stored;
    }
}

TEST_F(ModesTest, LoggerAndRunningModesFollowTheRegistryAndTheProcessName) {
    struct RunningCase {
        const char* process;
        int expected[3];  // by logger mode 0, 1, 2
    } running[] = {{"joulix", {2, 1, 4}}, {"JOULIX", {2, 1, 4}}, {"powertool", {0, 3, 4}}};

    auto check = [&](int loggerMode) {
        EXPECT_EQ(controller->currentLoggerMode(), loggerMode);
        for (auto& r : running) {
            JXUtilities::setProcessNameForTesting(r.process);
            EXPECT_EQ(controller->currentRunningMode(), r.expected[loggerMode]) << r.process << " mode " << loggerMode;
        }
    };
    check(2);  // nothing registered
    registerLogger(*controller, "JXConfigLogger");
    registerLogger(*controller, "JXDisplayLogger");
    controller->loggerList()->setObject(JXValue::valueWithObject(JXNull::null()), "JXCameraLogger");
    check(0);  // core loggers only: a null placeholder does not count
    registerLogger(*controller, "JXThermalLogger");
    check(1);
}

TEST_F(ModesTest, FullModeDayListKeepsTodayOnceAndLast) {
    std::string today;
    {
        std::lock_guard lock(controller->logTimestampFormatter().monitor());
        today = controller->logTimestampFormatter().stringFromDate(jx::Date::now()).substr(0, 10);
    }
    JXDefaultsSetValueForKey(JXFullModeBlackList,
                             jx::Value(jx::Array{jx::Value(today), jx::Value("2026-01-02"), jx::Value(today)}));
    controller->blackListTodayAsFullMode();
    controller->blackListTodayAsFullMode();
    EXPECT_EQ(JXDefaultsValueForKey(JXFullModeBlackList), jx::Value(jx::Array{jx::Value("2026-01-02"), jx::Value(today)}));

    // An unset or wrong-typed list starts afresh.
    JXDefaultsSetValueForKey(JXFullModeBlackList, jx::Value("garbage"));
    controller->blackListTodayAsFullMode();
    EXPECT_EQ(JXDefaultsValueForKey(JXFullModeBlackList), jx::Value(jx::Array{jx::Value(today)}));
}

}  // namespace
