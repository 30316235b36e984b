// The [Clock] entry: UTC seconds, offset and zone, whatever zone the log is in.
#include <time.h>

#include <cstdlib>

#include "plugins/builtin/JXBuiltinLoggers.h"
#include "tests/loggers/LoggerTree.h"

namespace {

class ClockLoggerTest : public LoggerTree {
protected:
    void SetUp() override {
        const char* tz = std::getenv("TZ");
        saved_ = tz ? std::optional<std::string>(tz) : std::nullopt;
    }
    void TearDown() override {
        if (saved_) setenv("TZ", saved_->c_str(), 1);
        else unsetenv("TZ");
        tzset();
    }
    std::optional<std::string> saved_;
};

TEST_F(ClockLoggerTest, UtcSecondsOffsetAndZoneOfTheLogsLocalTimes) {
    const struct {
        const char* tz;
        const char* fields;  // after utc_s
    } cases[] = {
        {"UTC", "offset_s=0; zone=UTC; abbreviation=UTC; dst=NO; reason=asked;"},
        {"Asia/Kolkata", "offset_s=19800; zone=Asia/Kolkata; abbreviation=IST; dst=NO; reason=asked;"},
        {":America/Caracas", "offset_s=-14400; zone=America/Caracas; abbreviation=-04; dst=NO; reason=asked;"},
    };
    for (const auto& c : cases) {
        setenv("TZ", c.tz, 1);
        tzset();
        const double before = static_cast<double>(::time(nullptr));
        std::make_shared<JXClockLogger>(etc())->log();
        const std::string line = lines("Clock").back();
        EXPECT_NE(line.find(std::string("; ") + c.fields), std::string::npos) << line;
        const double utc = std::stod(line.substr(line.find("utc_s=") + 6));
        EXPECT_GE(utc, before);
        EXPECT_LT(utc, before + 5);
    }
}

}  // namespace
