#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <optional>

#include "platform/JXEntry.h"
#include "platform/LogTime.h"
#include "platform/Value.h"

namespace {

using jx::Value;

// Sets the time zone for a scope and puts the previous one back.
class ZoneScope {
public:
    explicit ZoneScope(const char* zone) {
        if (const char* old = std::getenv("TZ")) saved_ = old;
        setenv("TZ", zone, 1);
        tzset();
    }
    ~ZoneScope() {
        if (saved_) setenv("TZ", saved_->c_str(), 1);
        else unsetenv("TZ");
        tzset();
    }

private:
    std::optional<std::string> saved_;
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
        {"42abc", 42, 42}, {"  -17", -17, -17}, {"+8", 8, 8}, {"3.9", 3, 3}, {"abc", 0, 0}, {"", 0, 0},
        {"- 5", 0, 0}, {"007 1", 7, 7}, {"3000000000", 3000000000, INT32_MAX}, {"-3000000000", -3000000000, INT32_MIN},
        {"9223372036854775807", INT64_MAX, INT32_MAX}, {"9223372036854775808", INT64_MAX, INT32_MAX},
        {"-9223372036854775808", INT64_MIN, INT32_MIN}, {"-99999999999999999999", INT64_MIN, INT32_MIN},
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
        {Value(), false, 0, 0.0},          {Value(true), true, 1, 1.0},      {Value(0), false, 0, 0.0},
        {Value(-3), true, -3, -3.0},       {Value(-3.99), true, -3, -3.99},  {Value(0.0), false, 0, 0.0},
        {Value(1e300), true, INT64_MAX, 1e300}, {Value(-1e300), true, INT64_MIN, -1e300},
        {Value("  2.5xyz"), true, 2, 2.5}, {Value("1e3"), true, 1, 1000.0},  {Value("abc"), false, 0, 0.0},
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
        {Value(), "(null)"}, {Value(true), "1"}, {Value(1.0), "1"}, {Value(0.1 + 0.2), "0.30000000000000004"},
        {Value(jx::Date{1795000000.75}), "2026-11-18 11:06:40 +0000"},
        {Value(jx::Data{0xde, 0xad, 0xbe, 0xef, 0x01}), "<deadbeef 01>"},
        {Value(jx::Array{}), "(\n)"},
        {Value(jx::Dictionary{}), "{\n}"},
        {Value(jx::Dictionary{{"key", Value("value")}, {"n", Value(2)}}), "{\n    key = value;\n    n = 2;\n}"},
        // Inside collections, strings other than plain words are quoted, keys too.
        {Value(jx::Array{Value("two words"), Value(""), Value("a\"b"), Value("x/y.z_1")}),
         "(\n    \"two words\",\n    \"\",\n    \"a\\\"b\",\n    x/y.z_1\n)"},
        {Value(jx::Dictionary{{"my key", Value("v")}}), "{\n    \"my key\" = v;\n}"},
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
        {JXValue::valueWithString("5", "mA"), "5mA"}, {JXValue::valueWithLong(250, "ms"), "250ms"},
        {JXValue::valueWithDouble(0.1 + 0.2), "0.30000000000000004"},
        {JXValue::valueWithDouble(3.0, "V"), "3V"}, {JXValue::valueWithBool(true), "YES"},
        {JXValue::valueWithBool(false), "NO"}, {JXValue::valueWithGeneric(Value(false)), "NO"},
        {JXValue::valueWithGeneric(Value(7)), "7"}, {JXValue::valueWithGeneric(Value(), "mA"), "(null)"},
        {JXValue(), "(null)"}, {JXValue::valueWithDate(jx::Date{0}), "1970-01-01 00:00:00 +0000"},
        {JXValue::valueWithGeneric(Value(jx::Date{1795000000.9})), "2026-11-18 11:06:40 +0000"},
        {JXValue::valueWithObject(JXNull::null()), "<null>"},
    };
    for (auto& c : cases) EXPECT_EQ(rendered(c.v), c.text);
}

TEST(JXValue, TimesFollowTheLocalZone) {
    {
        ZoneScope east("UTC-2");  // POSIX sign: two hours east of UTC
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
        {0.0, "01/01/1970 00:00:00.000"}, {1795000000.25, "11/18/2026 11:06:40.250"},
        {1795000000.0996, "11/18/2026 11:06:40.099"},  // cut, not rounded
        {1795000000.9999, "11/18/2026 11:06:40.999"}, {1795000001.0, "11/18/2026 11:06:41.000"},
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
    EXPECT_EQ(e.objectForKey("level")->value(), Value(81));
    EXPECT_FALSE(e.objectForKey("missing"));

    e.removeObjectForKey("level");
    e.setObject(JXValue::valueWithLong(1), "level");  // back, at the end
    EXPECT_EQ(e.renderFields(), "state=charging; external=YES; level=1;");
    EXPECT_EQ(e.keys(), (std::vector<std::string>{"state", "external", "level"}));

    JXEntry copy(e);
    copy.setObject(JXValue::valueWithLong(2), "level");
    EXPECT_EQ(e.renderFields(), "state=charging; external=YES; level=1;");
}

}  // namespace
