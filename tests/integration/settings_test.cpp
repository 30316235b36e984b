// Settings as the real binaries meet them: broken files are kept and said, odd
// values are warned about, and the administrator's file counts for every setting.
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/PropertyList.h"
#include "tests/integration/Process.h"
#include "tests/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;

const std::string kPrefs = "/var/mobile/Library/Preferences/com.brindle.joulix.plist";
const std::string kManaged = "/Library/Managed Preferences/mobile/com.brindle.joulix.plist";

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
        {"50 MB of text", [&] { root.writeFile(kPrefs, std::string(50 << 20, 'x')); }, "not an XML or binary property list"},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.what);
        fs::remove_all(root(kPrefs));
        c.make();
        const bool isFile = fs::is_regular_file(root(kPrefs));
        const std::string before = isFile ? root.readFile(kPrefs) : "";

        std::string err;
        ASSERT_EQ(once(&err), 0) << jxtest::tail(err);
        EXPECT_NE(err.find(root(kPrefs) + " cannot be read as settings (" + c.why), std::string::npos) << jxtest::tail(err);

        EXPECT_EQ(ctl({"defaults", "write", "JXStartDelay", "-bool", "NO"}, nullptr, &err), 1);
        EXPECT_NE(err.find("nothing was written"), std::string::npos) << err;
        EXPECT_NE(err.find("mv '" + root(kPrefs) + "' '" + root(kPrefs) + ".corrupt'"), std::string::npos) << err;
        EXPECT_EQ(ctl({"defaults", "delete", "JXRunLoopDebug"}), 1);
        if (isFile) EXPECT_TRUE(root.readFile(kPrefs) == before);
        else EXPECT_TRUE(fs::is_directory(root(kPrefs)));
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
