// Values, their renderings in the log, and property lists.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>

#include "platform/JXEntry.h"
#include "platform/LogTime.h"
#include "platform/PropertyList.h"
#include "platform/Value.h"
#include "tests/support/TestSupport.h"

namespace {

using jx::Value;

std::string rendered(const JXValue& v) {
    std::string out;
    v.appendTo(out);
    return out;
}

// In a zone west of UTC (POSIX sign), to its local time; a line's time is cut, not rounded.
// (Numbers with their units and booleans are in every logger test's lines.)
TEST(JXValue, RendersAsTheLogShowsItInTheLocalZone) {
    jxtest::ZoneScope west("UTC+5:30");
    struct {
        JXValue v;
        const char* text;
    } cases[] = {
        {JXValue::valueWithGeneric(Value(), "mA"), "(null)"},
        {JXValue::valueWithDate(jx::Date{0}), "1969-12-31 18:30:00 -0530"},
        {JXValue::valueWithObject(JXNull::null()), "<null>"},
    };
    for (auto& c : cases) EXPECT_EQ(rendered(c.v), c.text);
    std::string line;
    jx::appendLineTime(line, jx::Date{1795000000.9999});
    EXPECT_EQ(line, "11/18/2026 05:36:40.999");
}

// Every type, with the values libplist stores unusually: negative integers (kept as
// unsigned) and dates (whole seconds since 2001, in 32 bits), before 2001 too.
Value sample() {
    return Value(jx::Dictionary{
        {"name", Value("joulix 6.01 <&> \"quoted\"")},
        {"negative", Value(-5)},
        {"min", Value(static_cast<long long>(INT64_MIN))},
        {"ratio", Value(-0.125)},
        {"when", Value(jx::Date{1795000000})},
        {"before2001", Value(jx::Date{86400})},
        {"blob", Value(jx::Data{0, 1, 0xfe, 0xff})},
        {"list", Value(jx::Array{Value(1), Value("two"), Value(jx::Array{}), Value(jx::Dictionary{})})},
    });
}

TEST(PropertyList, AtomicWriteReplacesTheFileAndLeavesNothingBehind) {
    jxtest::TestRoot root;
    std::string path = root("/prefs.plist");
    root.writeFile("/prefs.plist", "old contents");
    ASSERT_TRUE(jx::writePropertyListFileAtomically(path, sample()));
    EXPECT_EQ(jx::readPropertyListFile(path), sample());
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0644));
    // The rename fails over a directory: the temporary file must go again.
    root.writeFile("/taken.plist/inside", "x");
    EXPECT_FALSE(jx::writePropertyListFileAtomically(root("/taken.plist"), sample()));
    std::filesystem::remove_all(root("/taken.plist"));
    std::vector<std::string> names;
    for (auto& e : std::filesystem::directory_iterator(root.path())) names.push_back(e.path().filename());
    EXPECT_EQ(names, std::vector<std::string>{"prefs.plist"});
    EXPECT_EQ(jx::readPropertyListFile(path), sample());
}

}  // namespace
