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

TEST_F(DefaultsTest, StoreWinsOverManagedFileAndSetDefaultLeavesAnyExistingValueAndWritesReachTheFile) {
    writeManaged({{"JXLinkFaultkeeper", jx::Value(false)}, {"JXLoggerDiscovery", jx::Value("static")}});
    // The store wins over the managed file, which fills only the gaps.
    JXDefaultsSetValueForKey(JXLoggerDiscovery, jx::Value("dynamic"));
    EXPECT_EQ(JXDefaultsValueForKey(JXLoggerDiscovery), jx::Value("dynamic"));
    EXPECT_TRUE(JXDefaultsValueExistsForKey(JXLinkFaultkeeper));
    EXPECT_FALSE(JXDefaultsValueExistsForKey(JXDeviceNameInFileName));

    JXDefaultsSetDefaultValueForKey(JXLinkFaultkeeper, jx::Value(true));
    JXDefaultsSetDefaultValueForKey(JXDeviceNameInFileName, jx::Value(true));
    EXPECT_EQ(JXDefaultsCopyValueForKeySync(JXLinkFaultkeeper, true), jx::Value(false));
    EXPECT_EQ(JXDefaultsValueForKey(JXDeviceNameInFileName), jx::Value(true));
    // The managed value was not copied into the store; the others are on disk.
    const jx::Value onDisk = jx::readPropertyListFile(root(kStoreFile)).value_or(jx::Value());
    EXPECT_EQ(onDisk.objectForKey("JXDeviceNameInFileName"), jx::Value(true));
    EXPECT_TRUE(onDisk.objectForKey("JXLinkFaultkeeper").isNil());
    // A nil value removes the key: the managed file shows through again.
    JXDefaultsSetValueForKey(JXLoggerDiscovery, jx::Value());
    EXPECT_EQ(JXDefaultsValueForKey(JXLoggerDiscovery), jx::Value("static"));
}

}  // namespace
