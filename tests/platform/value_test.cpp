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

// Sets the time zone for a scope and puts the previous one back.
struct ZoneScope {
    explicit ZoneScope(const char* zone) {
        if (const char* tz = std::getenv("TZ")) saved = tz;
        setenv("TZ", zone, 1);
        tzset();
    }
    ~ZoneScope() {
        if (saved)
            setenv("TZ", saved->c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }
    std::optional<std::string> saved;
};

TEST(Value, StringBoolValue) {
    const char* yes[] = {"yes", "true", "T", "9", "  +0001", "-5", "\t\n y", "00Y"};
    const char* no[] = {"000", "NO", "false", "", "0x1", "+-1", "-0"};
    for (const char* s : yes) EXPECT_TRUE(Value(s).boolValue()) << '"' << s << '"';
    for (const char* s : no) EXPECT_FALSE(Value(s).boolValue()) << '"' << s << '"';
}

TEST(Value, Conversions) {
    struct {
        Value v;
        bool b;
        std::int64_t n;
        double d;
    } cases[] = {
        {Value(), false, 0, 0.0},
        {Value(-3.99), true, -3, -3.99},
        {Value(1e300), true, INT64_MAX, 1e300},
        {Value("1e3"), true, 1, 1000.0},
        {Value("9223372036854775808"), true, INT64_MAX, 9223372036854775808.0},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.v.description());
        EXPECT_EQ(c.v.boolValue(), c.b);
        EXPECT_EQ(c.v.integerValue(), c.n);
        EXPECT_DOUBLE_EQ(c.v.doubleValue(), c.d);
    }
}

TEST(Value, Description) {
    struct {
        Value v;
        const char* text;
    } cases[] = {
        {Value(true), "1"},
        {Value(jx::Data{0xde, 0xad, 0xbe, 0xef, 0x01}), "<deadbeef 01>"},
        // Inside collections, strings other than plain words are quoted, keys too.
        {Value(jx::Array{Value("two words"), Value(""), Value("a\"b"), Value("x/y.z_1")}),
         "(\n    \"two words\",\n    \"\",\n    \"a\\\"b\",\n    x/y.z_1\n)"},
        {Value(jx::Dictionary{{"list", Value(jx::Array{Value("a")})}}), "{\n    list = (\n        a\n    );\n}"},
    };
    for (auto& c : cases) EXPECT_EQ(c.v.description(), c.text);
}

std::string rendered(const JXValue& v) {
    std::string out;
    v.appendTo(out);
    return out;
}

TEST(JXValue, RendersAsTheLogShowsIt) {
    ZoneScope utc("UTC");
    struct {
        JXValue v;
        const char* text;
    } cases[] = {
        {JXValue::valueWithString("5", "mA"), "5mA"},
        {JXValue::valueWithDouble(3.0, "V"), "3V"},
        {JXValue::valueWithGeneric(Value(false)), "NO"},
        {JXValue::valueWithGeneric(Value(), "mA"), "(null)"},
        {JXValue::valueWithGeneric(Value(jx::Date{1795000000.9})), "2026-11-18 11:06:40 +0000"},
        {JXValue::valueWithObject(JXNull::null()), "<null>"},
    };
    for (auto& c : cases) EXPECT_EQ(rendered(c.v), c.text);
}

TEST(JXValue, TimesFollowTheLocalZone) {
    {
        ZoneScope west("UTC+5:30");  // POSIX sign: west
        EXPECT_EQ(rendered(JXValue::valueWithDate(jx::Date{0})), "1969-12-31 18:30:00 -0530");
    }
    ZoneScope utc("UTC");
    struct {
        double seconds;
        const char* text;
    } lines[] = {
        {1795000000.0996, "11/18/2026 11:06:40.099"}, {1795000000.9999, "11/18/2026 11:06:40.999"},  // cut, not rounded
    };
    for (auto& c : lines) {
        std::string out = "x";
        jx::appendLineTime(out, jx::Date{c.seconds});
        EXPECT_EQ(out, std::string("x") + c.text);
    }
}

TEST(JXEntry, FieldsKeepTheirOrderAndPlace) {
    JXEntry e("Battery");
    e.setObject(JXValue::valueWithLong(80), "level");
    e.setObject(JXValue::valueWithBool(true), "external");
    e.setObject(JXValue::valueWithLong(81), "level");  // replaced in place
    EXPECT_EQ(e.description(), "[Battery] level=81; external=YES;");
    e.removeObjectForKey("level");
    e.setObject(JXValue::valueWithLong(1), "level");  // back, at the end
    EXPECT_EQ(e.renderFields(), "external=YES; level=1;");
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

TEST(PropertyList, EveryTypeSurvivesAnXmlRoundTripAndNilMembersAreLeftOut) {
    std::string xml = jx::propertyListXML(sample());
    ASSERT_NE(xml.find("<plist"), std::string::npos);
    EXPECT_EQ(jx::propertyListFromBytes(xml), sample());
    EXPECT_EQ(jx::propertyListXML(Value()), "");
    EXPECT_EQ(jx::propertyListFromBytes(jx::propertyListXML(Value(jx::Array{Value(), Value(-1)}))),
              Value(jx::Array{Value(-1)}));
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
