// The store winning over the administrator's file, which fills its gaps, and other
// domains written by the tool are run with the real binaries.
#include <gtest/gtest.h>

#include <string>

#include "defaults/JXDefaults.h"
#include "platform/PreferencesStore.h"
#include "platform/PropertyList.h"
#include "tests/support/TestSupport.h"

namespace {

const std::string kStoreFile = "/var/mobile/Library/Preferences/com.brindle.joulix.plist";
const std::string kManagedFile = "/Library/Managed Preferences/mobile//com.brindle.joulix.plist";

class DefaultsTest : public ::testing::Test {
protected:
    void writeManaged(const jx::Dictionary& d, const std::string& domain = "com.brindle.joulix") {
        std::string path = JXDefaultsManagedPreferencesPath(domain);
        root.writeFile(path.substr(root.path().size()), "");
        ASSERT_TRUE(jx::writePropertyListFileAtomically(path, jx::Value(d)));
    }
    jxtest::TestRoot root;
};

TEST_F(DefaultsTest, AMissingOrUnreadableManagedFileIsRetriedButALoadedOneIsNeverReloaded) {
    EXPECT_TRUE(JXDefaultsValueForKey(JXLoggerDiscovery).isNil());
    root.writeFile(kManagedFile, "this is not a property list");
    EXPECT_TRUE(JXDefaultsValueForKey(JXLoggerDiscovery).isNil());
    writeManaged({{"JXLoggerDiscovery", jx::Value("dynamic")}});
    EXPECT_EQ(JXDefaultsValueForKey(JXLoggerDiscovery), jx::Value("dynamic"));

    writeManaged({{"JXLoggerDiscovery", jx::Value("static")}, {"JXStartDelay", jx::Value(true)}});
    EXPECT_EQ(JXDefaultsValueForKey(JXLoggerDiscovery), jx::Value("dynamic"));
    EXPECT_TRUE(JXDefaultsValueForKey(JXStartDelay).isNil());
}

TEST_F(DefaultsTest, LoggingModeIsTruncatedToSixteenBits) {
    EXPECT_EQ(JXDefaultsCurrentLoggingMode(), -32768);  // unset
    struct Case {
        jx::Value stored;
        int expected;
    } cases[] = {
        {jx::Value(1), 1},   {jx::Value(65543), 7}, {jx::Value(32768), -32768}, {jx::Value(65535), -1},
        {jx::Value("7"), 7}, {jx::Value(2.9), 2},   {jx::Value(true), 1},       {jx::Value("Full"), 0},
    };
    for (const Case& c : cases) {
        JXDefaultsSetValueForKey(JXLoggingMode, c.stored);
        EXPECT_EQ(JXDefaultsCurrentLoggingMode(), c.expected) << c.stored.description();
    }
}

TEST_F(DefaultsTest, StoreWinsOverManagedFileAndSetDefaultLeavesAnyExistingValueAndWritesReachTheFile) {
    writeManaged({{"JXLinkFaultkeeper", jx::Value(false)}, {"JXLoggerDiscovery", jx::Value("static")}});
    JXDefaultsSetValueForKey(JXRotateJoulixKey, jx::Value("1 hour"));
    // The store wins over the managed file, which fills only the gaps.
    JXDefaultsSetValueForKey(JXLoggerDiscovery, jx::Value("dynamic"));
    EXPECT_EQ(JXDefaultsValueForKey(JXLoggerDiscovery), jx::Value("dynamic"));
    EXPECT_TRUE(JXDefaultsValueExistsForKey(JXLinkFaultkeeper));
    EXPECT_FALSE(JXDefaultsValueExistsForKey(JXDeviceNameInFileName));

    JXDefaultsSetDefaultValueForKey(JXRotateJoulixKey, jx::Value("1 day"));
    JXDefaultsSetDefaultValueForKey(JXLinkFaultkeeper, jx::Value(true));
    JXDefaultsSetDefaultValueForKey(JXDeviceNameInFileName, jx::Value(true));
    EXPECT_EQ(JXDefaultsValueForKey(JXRotateJoulixKey), jx::Value("1 hour"));
    EXPECT_EQ(JXDefaultsCopyValueForKeySync(JXLinkFaultkeeper, true), jx::Value(false));
    EXPECT_EQ(JXDefaultsValueForKey(JXDeviceNameInFileName), jx::Value(true));
    // The managed value was not copied into the store; the others are on disk.
    auto onDisk = jx::readPropertyListFile(root(kStoreFile));
    ASSERT_TRUE(onDisk);
    EXPECT_TRUE(onDisk->objectForKey("JXLinkFaultkeeper").isNil());
    EXPECT_EQ(onDisk->objectForKey("JXDeviceNameInFileName"), jx::Value(true));

    // A nil value removes the key.
    JXDefaultsSetValueForKey(JXRotateJoulixKey, jx::Value());
    EXPECT_FALSE(JXDefaultsValueExistsForKey(JXRotateJoulixKey));
}

TEST_F(DefaultsTest, OtherComponentsDomainsAreReadWithTheirOwnFiles) {
    JXDefaultsSetValueForKeyInDomain("SBAutoLockTime", jx::Value(60), "com.brindle.launchdeck");
    writeManaged({{"BacklightLevel", jx::Value(0.5)}}, "com.brindle.inputdeckd");

    EXPECT_EQ(CopyLaunchdeckPreferenceValue("SBAutoLockTime"), jx::Value(60));
    EXPECT_EQ(CopyInputdeckPreferenceValue("BacklightLevel"), jx::Value(0.5));
    EXPECT_TRUE(JXDefaultsValueForKey("SBAutoLockTime").isNil());
}

TEST(LightLoggers, MembershipIsExactAndCaseSensitive) {
    EXPECT_TRUE(JXDefaultsLoggerRunsLight("JXConfigLogger"));
    for (const char* name : {"jxconfiglogger", "JXConfigLogger ", "JXThermalLogger"})
        EXPECT_FALSE(JXDefaultsLoggerRunsLight(name)) << name;
}

}  // namespace
