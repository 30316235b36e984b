// Values, their renderings in the log, and property lists.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <limits>
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
    const char* yes[] = {"YES", "yes", "Yellow", "true", "T", "1", "9", "  +0001", "-5", "\t\n y", "00Y"};
    const char* no[] = {"0", "000", "NO", "false", "", "   ", "0x1", "+-1", "-0", "?1"};
    for (const char* s : yes) EXPECT_TRUE(Value(s).boolValue()) << '"' << s << '"';
    for (const char* s : no) EXPECT_FALSE(Value(s).boolValue()) << '"' << s << '"';
}

TEST(Value, StringIntegerValueReadsTheLeadingNumberAndSaturates) {
    struct {
        const char* text;
        std::int64_t n;
        std::int32_t i;
    } cases[] = {
        {"  -17", -17, -17},
        {"+8", 8, 8},
        {"3.9", 3, 3},
        {"- 5", 0, 0},
        {"3000000000", 3000000000, INT32_MAX},
        {"-3000000000", -3000000000, INT32_MIN},
        {"9223372036854775808", INT64_MAX, INT32_MAX},
        {"-99999999999999999999", INT64_MIN, INT32_MIN},
    };
    for (auto& c : cases) {
        EXPECT_EQ(Value(c.text).integerValue(), c.n) << '"' << c.text << '"';
        EXPECT_EQ(Value(c.text).intValue(), c.i) << '"' << c.text << '"';
    }
}

TEST(Value, ConversionsOfOtherTypes) {
    struct {
        Value v;
        bool b;
        std::int64_t n;
        double d;
    } cases[] = {
        {Value(), false, 0, 0.0},
        {Value(true), true, 1, 1.0},
        {Value(0.0), false, 0, 0.0},
        {Value(-3.99), true, -3, -3.99},
        {Value(1e300), true, INT64_MAX, 1e300},
        {Value(-1e300), true, INT64_MIN, -1e300},
        {Value("1e3"), true, 1, 1000.0},
        {Value(jx::Array{Value(1)}), false, 0, 0.0},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.v.description());
        EXPECT_EQ(c.v.boolValue(), c.b);
        EXPECT_EQ(c.v.integerValue(), c.n);
        EXPECT_DOUBLE_EQ(c.v.doubleValue(), c.d);
    }
    EXPECT_EQ(Value(std::numeric_limits<double>::quiet_NaN()).integerValue(), 0);
}

TEST(Value, Description) {
    struct {
        Value v;
        const char* text;
    } cases[] = {
        {Value(), "(null)"},
        {Value(true), "1"},
        {Value(1.0), "1"},
        {Value(0.1 + 0.2), "0.30000000000000004"},
        {Value(jx::Date{1795000000.75}), "2026-11-18 11:06:40 +0000"},
        {Value(jx::Array{}), "(\n)"},
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
        {JXValue::valueWithDouble(0.1 + 0.2), "0.30000000000000004"},
        {JXValue::valueWithDouble(3.0, "V"), "3V"},
        {JXValue::valueWithBool(false), "NO"},
        {JXValue::valueWithGeneric(Value(false)), "NO"},
        {JXValue::valueWithGeneric(Value(7)), "7"},
        {JXValue::valueWithGeneric(Value(), "mA"), "(null)"},
        {JXValue::valueWithGeneric(Value(jx::Date{1795000000.9})), "2026-11-18 11:06:40 +0000"},
        {JXValue::valueWithObject(JXNull::null()), "<null>"},
    };
    for (auto& c : cases) EXPECT_EQ(rendered(c.v), c.text);
}

TEST(JXValue, TimesFollowTheLocalZone) {
    {
        ZoneScope east("UTC-2");  // POSIX sign: east
        EXPECT_EQ(rendered(JXValue::valueWithDate(jx::Date{0})), "1970-01-01 02:00:00 +0200");
    }
    {
        ZoneScope west("UTC+5:30");
        EXPECT_EQ(jx::formatLocalDate(jx::Date{0}), "1969-12-31 18:30:00 -0530");
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
    EXPECT_EQ(e.renderFields(), "");
    e.setObject(JXValue::valueWithLong(80), "level");
    e.setObject(JXValue::valueWithString("charging"), "state");
    e.setObject(JXValue::valueWithBool(true), "external");
    e.setObject(JXValue::valueWithLong(81), "level");  // replaced in place
    EXPECT_EQ(e.description(), "[Battery] level=81; state=charging; external=YES;");
    EXPECT_FALSE(e.objectForKey("missing"));

    e.removeObjectForKey("level");
    e.setObject(JXValue::valueWithLong(1), "level");  // back, at the end
    EXPECT_EQ(e.renderFields(), "state=charging; external=YES; level=1;");
    EXPECT_EQ(e.keys(), (std::vector<std::string>{"state", "external", "level"}));
}

std::string fromHex(std::string_view hex) {
    std::string out;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        out += static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16));
    return out;
}

// Every type, with the values libplist stores unusually: negative integers (kept as
// unsigned) and dates (whole seconds since 2001, in 32 bits), before 2001 too.
Value sample() {
    return Value(jx::Dictionary{
        {"name", Value("joulix 6.01 <&> \"quoted\"")},
        {"negative", Value(-5)},
        {"min", Value(static_cast<long long>(INT64_MIN))},
        {"max", Value(static_cast<long long>(INT64_MAX))},
        {"ratio", Value(-0.125)},
        {"when", Value(jx::Date{1795000000})},
        {"before2001", Value(jx::Date{86400})},
        {"blob", Value(jx::Data{0, 1, 0xfe, 0xff})},
        {"list", Value(jx::Array{Value(1), Value("two"), Value(jx::Array{}), Value(jx::Dictionary{})})},
        {"nested", Value(jx::Dictionary{{"deep", Value(jx::Dictionary{{"x", Value(-1)}})}})},
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

TEST(PropertyList, ReadsBinaryPropertyLists) {
    // {key = -5; on = YES; when = 2002-01-01 00:00:00 +0000; r = 2.5}, laid out by hand.
    std::string bytes = fromHex(
        "62706c6973743030"    // bplist00
        "d40102030405060708"  // 0: dict of 4, keys 1-4, values 5-8
        "536b6579"
        "526f6e"
        "547768656e"
        "5172"                // 1-4: "key" "on" "when" "r"
        "13fffffffffffffffb"  // 5: integer -5
        "09"                  // 6: true
        "33417e133800000000"  // 7: date, 31536000 s after 2001
        "234004000000000000"  // 8: real 2.5
        "081115181d1f282932"  // offsets of objects 0-8
        "000000000000"
        "01"
        "01"  // trailer: offset and reference sizes
        "0000000000000009"
        "0000000000000000"
        "000000000000003b");
    EXPECT_EQ(jx::propertyListFromBytes(bytes),
              Value(jx::Dictionary{
                  {"key", Value(-5)}, {"on", Value(true)}, {"when", Value(jx::Date{1009843200})}, {"r", Value(2.5)}}));
}

// A file that is there but cannot be used says why; only a missing one says nothing.
// A directory and a FIFO in a settings file's place are run with the real daemon.
TEST(PropertyList, GarbageAndMissingFilesGiveNothingAndSayWhy) {
    jxtest::TestRoot root;
    struct {
        std::string_view bytes;
        const char* why;
    } cases[] = {
        {"", "it is empty"},
        {"not a plist", "not an XML or binary property list (11 bytes)"},
        {std::string_view("bplist00\x01\x02", 10), "not an XML or binary property list (10 bytes)"},
    };
    std::string why;
    for (const auto& c : cases) {
        EXPECT_FALSE(jx::propertyListFromBytes(c.bytes)) << c.bytes;
        root.writeFile("/bad.plist", std::string(c.bytes));
        EXPECT_FALSE(jx::readPropertyListFile(root("/bad.plist"), &why)) << c.bytes;
        EXPECT_EQ(why, c.why);
    }
    EXPECT_FALSE(jx::readPropertyListFile(root("/missing.plist"), &why));
    EXPECT_EQ(why, "");
}

TEST(PropertyList, AtomicWriteReplacesTheFileAndLeavesNothingBehind) {
    jxtest::TestRoot root;
    std::string path = root("/prefs.plist");
    root.writeFile("/prefs.plist", "old contents");
    ASSERT_TRUE(jx::writePropertyListFileAtomically(path, sample()));
    EXPECT_EQ(jx::readPropertyListFile(path), sample());

    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0644));
    EXPECT_FALSE(jx::writePropertyListFileAtomically(path, Value()));  // nothing to write
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
