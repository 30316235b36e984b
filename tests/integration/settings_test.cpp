// Settings as the real binaries meet them: typed values written, read and deleted,
// broken files kept and said, odd values warned about, and the administrator's file
// counting for every setting.
#include <sys/stat.h>

#include "platform/PropertyList.h"
#include "tests/integration/Process.h"

namespace {

using namespace jxtest;

const std::string kManaged = "/Library/Managed Preferences/mobile/com.brindle.joulix.plist";

// A dictionary holding one key whose value is the given number of arrays, each
// holding the next: as XML text, and as a binary list built object by object.
std::string nestedXML(int depth) {
    std::string text =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict><key>JXRunLoopDebug</key>";
    for (int i = 0; i < depth; ++i) text += "<array>";
    for (int i = 0; i < depth; ++i) text += "</array>";
    return text + "</dict></plist>\n";
}

std::string nestedBinary(std::uint32_t depth) {
    // Objects: 0 the dictionary, 1 its key, 2.. the arrays, each referring to the next.
    auto be = [](std::string& out, std::uint64_t v, int width) {
        for (int i = width - 1; i >= 0; --i) out += static_cast<char>((v >> (8 * i)) & 0xFF);
    };
    std::string out = "bplist00";
    std::vector<std::uint64_t> offsets{out.size()};
    out += '\xD1';  // a dictionary of one pair: key ref, value ref
    be(out, 1, 4);
    be(out, 2, 4);
    offsets.push_back(out.size());
    out += "\x5EJXRunLoopDebug";  // an ASCII string of 14 bytes
    for (std::uint32_t i = 0; i < depth; ++i) {
        offsets.push_back(out.size());
        out += i + 1 < depth ? '\xA1' : '\xA0';
        if (i + 1 < depth) be(out, 3 + i, 4);
    }
    const std::uint64_t table = out.size();
    for (std::uint64_t o : offsets) be(out, o, 4);
    out += std::string(6, '\0') + "\x04\x04";  // offset size, reference size
    be(out, depth + 2, 8);
    be(out, 0, 8);
    be(out, table, 8);
    return out;
}

using SettingsTest = BinariesTest;

TEST_F(SettingsTest, ToolWritesReadsAndDeletesTypedSettings) {
    const struct {
        std::vector<std::string> write;
        jx::Value stored;
        const char* printed;
    } cases[] = {
        {{"JXRotateJoulix", "1 minute"}, jx::Value("1 minute"), "1 minute"},
        {{"JXLoggingMode", "-int", "65543"}, jx::Value(65543), "65543"},
        {{"JXJoulixArchiveDays", "-float", "2.5"}, jx::Value(2.5), "2.5"},
        {{"JXLinkFaultkeeper", "-bool", "NO"}, jx::Value(false), "0"},
        {{"JXFullModeBlackList", "-array", "2026-11-20", "2026-11-21"},
         jx::Value(jx::Array{jx::Value("2026-11-20"), jx::Value("2026-11-21")}),
         "(\n    \"2026-11-20\",\n    \"2026-11-21\"\n)"},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.write[0] + " " + c.write.back());
        write({c.write});
        std::string printed;
        ASSERT_EQ(ctl({"defaults", "read", c.write[0]}, &printed), 0);
        EXPECT_EQ(printed, std::string(c.printed) + "\n");
        auto file = jx::readPropertyListFile(root(kPrefs));
        ASSERT_TRUE(file);
        EXPECT_EQ(file->objectForKey(c.write[0]), c.stored);
    }
    ASSERT_EQ(ctl({"defaults", "delete", "JXLoggingMode"}), 0);
    std::string err;
    EXPECT_EQ(ctl({"defaults", "read", "JXLoggingMode"}, nullptr, &err), 1);
    EXPECT_TRUE(has(err, "does not exist"));
    EXPECT_EQ(ctl({"defaults", "delete", "JXLoggingMode"}), 1);

    // -dict-add keeps a logger's other keys.
    write({{"JXProcessMonitorLogger", "-dict", "TopCount", "5", "SamplePeriod", "30"},
           {"JXProcessMonitorLogger", "-dict-add", "SamplePeriod", "60", "Enabled", "YES"},
           {"JXLoggingMode", "-int", "1"}});
    EXPECT_EQ(ctl({"defaults", "read", "JXProcessMonitorLogger"}), 0);
    EXPECT_EQ(jx::readPropertyListFile(root(kPrefs))->objectForKey("JXProcessMonitorLogger"),
              jx::Value(jx::Dictionary{
                  {"TopCount", jx::Value("5")}, {"SamplePeriod", jx::Value("60")}, {"Enabled", jx::Value("YES")}}));
}

// Another domain is its own file. The administrator's file is read where the store
// says nothing, and switches a logger off like every other setting; the store's own
// value still wins over it.
TEST_F(SettingsTest, ToolReachesOtherDomainsAndTheManagedFileCountsUnlessTheStoreSays) {
    ASSERT_EQ(ctl({"--domain", "com.brindle.launchdeck", "defaults", "write", "SBAutoLockTime", "-int", "60"}), 0);
    EXPECT_TRUE(fs::exists(root("/var/mobile/Library/Preferences/com.brindle.launchdeck.plist")));
    std::string printed;
    EXPECT_EQ(ctl({"defaults", "read", "SBAutoLockTime"}, &printed), 1);

    fs::create_directories(root("/Library/Managed Preferences/mobile"));
    ASSERT_TRUE(jx::writePropertyListFileAtomically(
        root(kManaged),
        jx::Value(jx::Dictionary{{"JXLinkFaultkeeper", jx::Value(true)},
                                 {"JXConfigLogger", jx::Value(jx::Dictionary{{"Enabled", jx::Value(false)}})}})));
    ASSERT_EQ(ctl({"defaults", "read", "JXLinkFaultkeeper"}, &printed), 0);
    EXPECT_EQ(printed, "1\n");
    ASSERT_EQ(ctl({"defaults", "read"}, &printed), 0);
    EXPECT_TRUE(has(printed, "JXLinkFaultkeeper = 1;")) << printed;
    std::string err;
    ASSERT_EQ(once(&err), 0);
    EXPECT_TRUE(has(err, "Skipping core logger JXConfigLogger")) << tail(err);
    EXPECT_FALSE(has(logText(), "[Config]"));
    write({{"JXConfigLogger", "-dict", "Enabled", "YES"}});
    ASSERT_EQ(once(&err), 0);
    EXPECT_TRUE(has(err, "setting up core logger JXConfigLogger")) << tail(err);
    // An administrator's file that does not read is said (by its path as formed, with the doubled slash).
    root.writeFile(kManaged, "garbage");
    ASSERT_EQ(once(&err), 0);
    EXPECT_HAS(err, root("/Library/Managed Preferences/mobile//com.brindle.joulix.plist") +
                        " cannot be read as settings (not an XML or binary property list (7 bytes)): its settings "
                        "are ignored");
}

// A preferences file that does not read is said (path and why) and left as it is, by
// the daemon and by joulixctl, whatever is in its place.
TEST_F(SettingsTest, AnUnreadableFileIsSaidAndNeverWrittenOver) {
    write({{"JXRunLoopDebug", "-bool", "YES"}});
    const std::string good = root.readFile(kPrefs);
    const std::string notAList = "not an XML or binary property list", tooDeep = "collections nested deeper than 64";
    const struct {
        const char* what;
        std::function<void()> make;
        const std::string why;
    } cases[] = {
        {"truncated", [&] { root.writeFile(kPrefs, good.substr(0, good.size() / 2)); }, notAList},
        {"a directory", [&] { fs::create_directory(root(kPrefs)); }, "it is a directory"},
        {"50 MB of text", [&] { root.writeFile(kPrefs, std::string(50 << 20, 'x')); }, "larger than 4 MB"},
        // A stack overflow in every reader before: parsing, converting and freeing recurse.
        {"50,000 nested arrays", [&] { root.writeFile(kPrefs, nestedXML(50000)); }, tooDeep},
        {"50,000 nested arrays, binary", [&] { root.writeFile(kPrefs, nestedBinary(50000)); }, tooDeep},
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
        ASSERT_EQ(once(&err), 0) << tail(err);
        EXPECT_TRUE(has(err, root(kPrefs) + " cannot be read as settings (" + c.why)) << tail(err);
        EXPECT_EQ(ctl({"defaults", "write", "JXStartDelay", "-bool", "NO"}, nullptr, &err), 1);
        EXPECT_HAS(err, "nothing was written", "mv '" + root(kPrefs) + "' '" + root(kPrefs) + ".corrupt'");
        EXPECT_EQ(ctl({"defaults", "delete", "JXRunLoopDebug"}), 1);
        EXPECT_EQ(ctl({"defaults", "read"}), 0);  // said, and shown without it
        if (isFile)
            EXPECT_TRUE(root.readFile(kPrefs) == before);
        else
            EXPECT_EQ(fs::symlink_status(root(kPrefs)).type(), type);
    }
}

// Written as asked, but said when the daemon will read it otherwise.
TEST_F(SettingsTest, WritesTheDaemonReadsOtherwiseAreWarnedAbout) {
    const struct {
        std::vector<std::string> args;
        const char* warning;  // nullptr: none
    } cases[] = {
        {{"JXRotateJoulix", "-string", "12 hour"}, nullptr},
        {{"JXRotateJoulix", "-string", "5 fortnight"}, "the unit 'fortnight' is none of minute, hour, day"},
        {{"JXRotateJoulix", "-string", "-3 hour"}, "a negative period gives no future rollover"},
        {{"JXRotateJoulix", "-string", "daily"}, "'daily' reads as 0, which turns rotation off"},
        {{"JXRotateJoulix", "-string", "4294967296 minute"}, "the period is longer than a day"},
        {{"JXRotateJoulix", "-array", "1", "day"}, "a rotation is a number of days"},
        {{"JXLoggingMode", "full"}, "'full' is no number: the daemon reads it as 0 (use -int)"},
        {{"JXLoggingMode", "-int", "70000"}, "the mode is a 16-bit number: the daemon reads 4464"},
        {{"JXLinkFaultkeeper", "on"}, "'on' is no boolean: the daemon reads it as NO"},
        // An archive age that reads as no time deletes every archive at the next roll.
        {{"JXJoulixArchiveDays", "two weeks"}, "it reads as 0 seconds"},
        {{"JXRotateJoulx", "1 day"}, "'JXRotateJoulx' is neither a setting nor a logger the daemon knows"},
        {{"JXProcessMonitorLogger", "-dict", "SamplePeriod", "1e-9"},
         "SamplePeriod: it is below one second: sampling once a second"},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.args[0] + " " + c.args.back());
        std::vector<std::string> args{"defaults", "write"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        std::string err;
        EXPECT_EQ(ctl(args, nullptr, &err), 0) << err;
        if (c.warning)
            EXPECT_TRUE(has(err, std::string("warning: ") + c.args[0] + ": " + c.warning)) << err;
        else
            EXPECT_EQ(err, "");
        if (c.args[1] == "two weeks") {
            EXPECT_TRUE(has(err, "every archive will be deleted")) << err;
        }
    }
}

}  // namespace
