#include <gtest/gtest.h>

#include <sys/stat.h>

#include <climits>
#include <filesystem>

#include "platform/PropertyList.h"
#include "tests/support/TestSupport.h"

namespace {

using jx::Value;

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
        {"name", Value("joulix 6.01 <&> \"quoted\"")}, {"empty", Value("")}, {"count", Value(42)},
        {"negative", Value(-5)}, {"min", Value(static_cast<long long>(INT64_MIN))},
        {"max", Value(static_cast<long long>(INT64_MAX))}, {"ratio", Value(-0.125)}, {"on", Value(true)},
        {"off", Value(false)}, {"when", Value(jx::Date{1795000000})}, {"before2001", Value(jx::Date{86400})},
        {"blob", Value(jx::Data{0, 1, 0xfe, 0xff})},
        {"list", Value(jx::Array{Value(1), Value("two"), Value(jx::Array{}), Value(jx::Dictionary{})})},
        {"nested", Value(jx::Dictionary{{"deep", Value(jx::Dictionary{{"x", Value(-1)}})}})},
    });
}

TEST(PropertyList, EveryTypeSurvivesAnXmlRoundTrip) {
    Value v = sample();
    std::string xml = jx::propertyListXML(v);
    ASSERT_NE(xml.find("<plist"), std::string::npos);
    auto back = jx::propertyListFromBytes(xml);
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, v) << back->description();
}

TEST(PropertyList, NilMembersAreLeftOut) {
    EXPECT_EQ(jx::propertyListXML(Value()), "");
    auto back = jx::propertyListFromBytes(jx::propertyListXML(Value(jx::Array{Value(), Value(-1)})));
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, Value(jx::Array{Value(-1)}));
}

TEST(PropertyList, ReadsBinaryPropertyLists) {
    // {key = -5; on = YES; when = 2002-01-01 00:00:00 +0000; r = 2.5}, laid out by hand.
    std::string bytes = fromHex(
        "62706c6973743030"                      // bplist00
        "d40102030405060708"                    // 0: dict of 4, keys 1-4, values 5-8
        "536b6579" "526f6e" "547768656e" "5172"  // 1-4: "key" "on" "when" "r"
        "13fffffffffffffffb"                    // 5: integer -5
        "09"                                    // 6: true
        "33417e133800000000"                    // 7: date, 31536000 s after 2001
        "234004000000000000"                    // 8: real 2.5
        "081115181d1f282932"                    // offsets of objects 0-8
        "000000000000" "01" "01"                // trailer: offset and reference sizes
        "0000000000000009" "0000000000000000" "000000000000003b");
    auto v = jx::propertyListFromBytes(bytes);
    ASSERT_TRUE(v);
    EXPECT_EQ(*v, Value(jx::Dictionary{{"key", Value(-5)},
                                       {"on", Value(true)},
                                       {"when", Value(jx::Date{1009843200})},
                                       {"r", Value(2.5)}}))
        << v->description();
}

// A file that is there but cannot be used says why; only a missing one says nothing.
TEST(PropertyList, GarbageAndMissingFilesGiveNothingAndSayWhy) {
    jxtest::TestRoot root;
    struct {
        std::string_view bytes;
        const char* why;
    } cases[] = {
        {"", "it is empty"},
        {"not a plist", "not an XML or binary property list (11 bytes)"},
        {"<?xml version=\"1.0\"?><plist><dict><key>a</key>", "not an XML or binary property list (46 bytes)"},
        {std::string_view("bplist00\x01\x02", 10), "not an XML or binary property list (10 bytes)"},
        {std::string_view("\0\0\0\xff\xfe", 5), "not an XML or binary property list (5 bytes)"},
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
    EXPECT_FALSE(jx::readPropertyListFile(root.path(), &why));
    EXPECT_EQ(why, "it is a directory");
    ASSERT_EQ(::mkfifo(root("/fifo.plist").c_str(), 0600), 0);
    EXPECT_FALSE(jx::readPropertyListFile(root("/fifo.plist"), &why));  // and does not block
    EXPECT_EQ(why, "it is not a regular file");
}

TEST(PropertyList, AtomicWriteReplacesTheFileAndLeavesNothingBehind) {
    jxtest::TestRoot root;
    std::string path = root("/prefs.plist");
    root.writeFile("/prefs.plist", "old contents");
    ASSERT_TRUE(jx::writePropertyListFileAtomically(path, sample()));
    auto back = jx::readPropertyListFile(path);
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, sample());

    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);

    EXPECT_FALSE(jx::writePropertyListFileAtomically(path, Value()));            // nothing to write
    EXPECT_FALSE(jx::writePropertyListFileAtomically(root("/no/dir/x.plist"), sample()));
    // The rename fails over a directory: the temporary file must go again.
    root.writeFile("/taken.plist/inside", "x");
    EXPECT_FALSE(jx::writePropertyListFileAtomically(root("/taken.plist"), sample()));
    std::filesystem::remove_all(root("/taken.plist"));
    std::vector<std::string> names;
    for (auto& e : std::filesystem::directory_iterator(root.path())) names.push_back(e.path().filename());
    EXPECT_EQ(names, std::vector<std::string>{"prefs.plist"});
    EXPECT_EQ(*jx::readPropertyListFile(path), sample());
}

}  // namespace
