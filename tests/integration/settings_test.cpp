// Settings as the real binaries meet them: broken files are kept and said, odd
// values are warned about, and the administrator's file counts for every setting.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <vector>

#include "platform/PropertyList.h"
#include "tests/integration/Process.h"
#include "tests/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;

const std::string kPrefs = "/var/mobile/Library/Preferences/com.brindle.joulix.plist";
const std::string kManaged = "/Library/Managed Preferences/mobile/com.brindle.joulix.plist";

// A dictionary holding one key whose value is the given number of arrays, each
// holding the next: as XML text, and as a binary list built object by object.
std::string nestedXML(int depth) {
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict><key>JXRunLoopDebug</key>";
    for (int i = 0; i < depth; ++i) text += "<array>";
    for (int i = 0; i < depth; ++i) text += "</array>";
    return text + "</dict></plist>\n";
}

std::string nestedBinary(std::uint32_t depth) {
    // Objects: 0 the dictionary, 1 its key, 2.. the arrays, each referring to the next.
    auto be = [](std::string& out, std::uint64_t v, int width) {
        for (int i = width - 1; i >= 0; --i) out += static_cast<char>((v >> (8 * i)) & 0xFF);
    };
    const std::uint32_t count = depth + 2;
    std::string out = "bplist00";
    std::vector<std::uint64_t> offsets;
    offsets.push_back(out.size());
    out += '\xD1';  // a dictionary of one pair: key ref, value ref
    be(out, 1, 4);
    be(out, 2, 4);
    offsets.push_back(out.size());
    out += '\x5E';  // an ASCII string of 14 bytes
    out += "JXRunLoopDebug";
    for (std::uint32_t i = 0; i < depth; ++i) {
        offsets.push_back(out.size());
        if (i + 1 < depth) {
            out += '\xA1';
            be(out, 3 + i, 4);
        } else {
            out += '\xA0';
        }
    }
    const std::uint64_t table = out.size();
    for (std::uint64_t o : offsets) be(out, o, 4);
    out += std::string(6, '\0');
    out += '\x04';  // offset size
    out += '\x04';  // reference size
    be(out, count, 8);
    be(out, 0, 8);
    be(out, table, 8);
    return out;
}

class SettingsTest : public jxtest::BinariesTest {
protected:
    int once(std::string* err = nullptr) {
        auto p = joulix({"--once"});
        auto status = p->wait(60);
        if (err) *err = p->err();
        return status.value_or(-1);
    }
};

// A preferences file that does not read is said (path and why) and left as it is, by
// the daemon and by joulixctl, whatever is in its place.
TEST_F(SettingsTest, AnUnreadableFileIsSaidAndNeverWrittenOver) {
    ASSERT_EQ(ctl({"defaults", "write", "JXRunLoopDebug", "-bool", "YES"}), 0);
    const std::string good = root.readFile(kPrefs);
    struct {
        const char* what;
        std::function<void()> make;
        const char* why;
    } cases[] = {
        {"truncated", [&] { root.writeFile(kPrefs, good.substr(0, good.size() / 2)); }, "not an XML or binary property list"},
        {"binary garbage", [&] { root.writeFile(kPrefs, std::string("\0\xff\x13garbage\0", 11)); },
         "not an XML or binary property list"},
        {"a directory", [&] { fs::create_directory(root(kPrefs)); }, "it is a directory"},
        {"50 MB of text", [&] { root.writeFile(kPrefs, std::string(50 << 20, 'x')); }, "larger than 4 MB"},
        // A stack overflow in every reader before: parsing, converting and freeing recurse.
        {"50,000 nested arrays", [&] { root.writeFile(kPrefs, nestedXML(50000)); }, "collections nested deeper than 64"},
        {"50,000 nested arrays, binary", [&] { root.writeFile(kPrefs, nestedBinary(50000)); },
         "collections nested deeper than 64"},
        {"a FIFO", [&] { ::mkfifo(root(kPrefs).c_str(), 0644); }, "it is not a regular file"},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.what);
        fs::remove_all(root(kPrefs));
        c.make();
        const bool isFile = fs::is_regular_file(root(kPrefs));
        const fs::file_type type = fs::symlink_status(root(kPrefs)).type();
        const std::string before = isFile ? root.readFile(kPrefs) : "";

        std::string err;
        ASSERT_EQ(once(&err), 0) << jxtest::tail(err);
        EXPECT_NE(err.find(root(kPrefs) + " cannot be read as settings (" + c.why), std::string::npos) << jxtest::tail(err);

        EXPECT_EQ(ctl({"defaults", "write", "JXStartDelay", "-bool", "NO"}, nullptr, &err), 1);
        EXPECT_NE(err.find("nothing was written"), std::string::npos) << err;
        EXPECT_NE(err.find("mv '" + root(kPrefs) + "' '" + root(kPrefs) + ".corrupt'"), std::string::npos) << err;
        EXPECT_EQ(ctl({"defaults", "delete", "JXRunLoopDebug"}), 1);
        EXPECT_EQ(ctl({"defaults", "read"}), 0);  // said, and shown without it
        if (isFile) EXPECT_TRUE(root.readFile(kPrefs) == before);
        else EXPECT_EQ(fs::symlink_status(root(kPrefs)).type(), type);
    }
}

TEST_F(SettingsTest, TheDomainIsAReverseDNSName) {
    std::string err;
    for (const char* bad : {"../../x", "x", "a..b", "a/b.c", ".a.b", "a.b.", "com.brindle.jou lix"}) {
        EXPECT_EQ(ctl({"--domain", bad, "defaults", "write", "K", "V"}, nullptr, &err), 2) << bad;
        EXPECT_NE(err.find("is no domain"), std::string::npos) << bad;
    }
    EXPECT_FALSE(fs::exists(root("/x.plist")));
    EXPECT_FALSE(fs::exists(root("/var/x.plist")));
    EXPECT_EQ(ctl({"--domain", "org.example-1.app_2", "defaults", "write", "K", "V"}), 0);
}

// Written as asked, but said when the daemon will read it otherwise.
TEST_F(SettingsTest, WritesTheDaemonReadsOtherwiseAreWarnedAbout) {
    struct {
        std::vector<std::string> args;
        const char* warning;  // nullptr: none
    } cases[] = {
        {{"JXRotateJoulix", "-string", "12 hour"}, nullptr},
        {{"JXRotateJoulix", "-int", "3"}, nullptr},
        {{"JXRotateJoulix", "-string", "5 fortnight"}, "the unit 'fortnight' is none of minute, hour, day"},
        {{"JXRotateJoulix", "-string", "-3 hour"}, "a negative period gives no future rollover"},
        {{"JXRotateJoulix", "-int", "-2"}, "a negative period gives no future rollover"},
        {{"JXRotateJoulix", "-string", "-1"}, "-1 is not supported"},
        {{"JXRotateJoulix", "-string", "daily"}, "'daily' reads as 0, which turns rotation off"},
        {{"JXRotateJoulix", "-string", "0"}, "0 turns rotation off"},
        {{"JXRotateJoulix", "-string", "4294967296 minute"}, "the period is longer than a day"},
        {{"JXRotateJoulix", "-float", "1.5"}, nullptr},
        {{"JXRotateJoulix", "-array", "1", "day"}, "a rotation is a number of days"},
        {{"JXLoggingMode", "full"}, "'full' is no number: the daemon reads it as 0 (use -int)"},
        {{"JXLoggingMode", "-int", "70000"}, "the mode is a 16-bit number: the daemon reads 4464"},
        {{"JXLoggingMode", "-int", "1"}, nullptr},
        {{"JXLinkFaultkeeper", "on"}, "'on' is no boolean: the daemon reads it as NO"},
        {{"JXLinkFaultkeeper", "YES"}, nullptr},
        {{"JXJoulixArchiveDays", "two weeks"}, "it reads as 0 seconds"},
        {{"JXRotateJoulx", "1 day"}, "'JXRotateJoulx' is neither a setting nor a logger the daemon knows"},
        {{"JXThermalLogger", "-dict", "Enabled", "NO"}, nullptr},
        {{"JXProcessMonitorLogger", "-dict", "SamplePeriod", "1e-9"}, "SamplePeriod: it is below one second: sampling once a second"},
        {{"JXProcessMonitorLogger", "-dict", "SamplePeriod", "0"}, nullptr},
    };
    for (auto& c : cases) {
        std::vector<std::string> args{"defaults", "write"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        std::string err;
        EXPECT_EQ(ctl(args, nullptr, &err), 0) << c.args[0] << " " << c.args.back() << ": " << err;
        if (c.warning) EXPECT_NE(err.find(std::string("warning: ") + c.args[0] + ": " + c.warning), std::string::npos) << err;
        else EXPECT_EQ(err, "") << c.args[0] << " " << c.args.back();
    }
}

TEST_F(SettingsTest, DictAddKeepsTheLoggersOtherKeys) {
    ASSERT_EQ(ctl({"defaults", "write", "JXProcessMonitorLogger", "-dict", "TopCount", "5", "SamplePeriod", "30"}), 0);
    ASSERT_EQ(ctl({"defaults", "write", "JXProcessMonitorLogger", "-dict-add", "SamplePeriod", "60", "Enabled", "YES"}), 0);
    std::string out;
    ASSERT_EQ(ctl({"defaults", "read", "JXProcessMonitorLogger"}, &out), 0);
    auto stored = jx::readPropertyListFile(root(kPrefs));
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->objectForKey("JXProcessMonitorLogger"),
              jx::Value(jx::Dictionary{{"TopCount", jx::Value("5")}, {"SamplePeriod", jx::Value("60")}, {"Enabled", jx::Value("YES")}}));
    ASSERT_EQ(ctl({"defaults", "write", "JXLoggingMode", "-int", "1"}), 0);
    std::string err;
    EXPECT_EQ(ctl({"defaults", "write", "JXLoggingMode", "-dict-add", "a", "b"}, nullptr, &err), 1);
    EXPECT_NE(err.find("not a dictionary: nothing was added"), std::string::npos) << err;
}

// The administrator's file switches a logger off like every other setting; the
// store's own value still wins over it.
TEST_F(SettingsTest, AManagedLoggerSettingCountsAndTheStoreWins) {
    fs::create_directories(root("/Library/Managed Preferences/mobile"));
    ASSERT_TRUE(jx::writePropertyListFileAtomically(
        root(kManaged), jx::Value(jx::Dictionary{{"JXConfigLogger", jx::Value(jx::Dictionary{{"Enabled", jx::Value(false)}})}})));
    std::string err;
    ASSERT_EQ(once(&err), 0);
    EXPECT_NE(err.find("Skipping core logger JXConfigLogger"), std::string::npos) << jxtest::tail(err);
    EXPECT_EQ(root.readFile("/var/mobile/Library/Logs/CurrentJoulix.joulix").find("[Config]"), std::string::npos);

    ASSERT_EQ(ctl({"defaults", "write", "JXConfigLogger", "-dict", "Enabled", "YES"}), 0);
    ASSERT_EQ(once(&err), 0);
    EXPECT_NE(err.find("setting up core logger JXConfigLogger"), std::string::npos) << jxtest::tail(err);
}

}  // namespace
