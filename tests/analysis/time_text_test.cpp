#include "analysis/TimeText.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace {

using jx::analysis::parseTimeText;
using jx::analysis::TimeMs;

TEST(TimeTextTest, EverySpellingOfATime) {
    const char* saved = std::getenv("TZ");
    const std::string kept = saved ? saved : "";
    // Central European time with its summer rule, spelled out: no zone files needed.
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    const TimeMs now = 1795274400000;  // 2026-11-21T15:20:00Z, 16:20 local
    struct Case {
        const char* text;
        std::optional<TimeMs> expected;
    };
    const Case cases[] = {
        {"now", now},
        {"-2h", now - 7200000},
        {"-30m", now - 1800000},
        {"-1d", now - 86400000},
        {"-90s", now - 90000},
        {"-1w", now - 7 * 86400000LL},
        {"-1h30m", now - 5400000},
        {"2026-11-21 16:20", now},
        {"2026-11-21 16:20:05", now + 5000},
        {"2026-11-21T16:20", now},
        {"2026-07-01 12:00", 1782900000000},  // summer: two hours east
        {"2026-11-21", 1795215600000},        // local midnight
        {"2026-11-21T15:20:00Z", now},
        {"2026-11-21 15:20:00.250Z", now + 250},
        {"2026-11-21T16:20:00+01:00", now},
        {"2026-11-21T16:20:00+01", now},
        {"2026-11-21T10:20:00-0500", now},
        {"", std::nullopt},
        {"yesterday", std::nullopt},
        {"-", std::nullopt},
        {"-2", std::nullopt},
        {"-2x", std::nullopt},
        {"-h", std::nullopt},
        {"2026-11-21 25:00", std::nullopt},
        {"2026-13-01", std::nullopt},
        {"2026-11-21 16", std::nullopt},
        {"21/11/2026", std::nullopt},
        {"2026-11-21T16:20:00+1", std::nullopt},
        {"2026-11-21T16:20:00Zjunk", std::nullopt},
        {"2026-11-21T16:20:00.Z", std::nullopt},
    };
    for (const Case& c : cases) EXPECT_EQ(parseTimeText(c.text, now), c.expected) << "'" << c.text << "'";
    if (saved)
        setenv("TZ", kept.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

}  // namespace
