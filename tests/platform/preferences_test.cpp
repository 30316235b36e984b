#include <gtest/gtest.h>

#include <filesystem>

#include "platform/JXUtilities.h"
#include "platform/PreferencesStore.h"
#include "platform/PropertyList.h"
#include "tests/support/TestSupport.h"

namespace {

using jx::Dictionary;
using jx::Value;

constexpr const char* kDomain = "com.brindle.joulix.test";
constexpr const char* kUser = "mobile";
constexpr const char* kFile = "/var/mobile/Library/Preferences/com.brindle.joulix.test.plist";

class PreferencesTest : public ::testing::Test {
protected:
    // What the file holds now, as another process would read it.
    Value onDisk() const {
        auto v = jx::readPropertyListFile(root(kFile));
        return v ? *v : Value();
    }
    // Another writer replacing the file the way writers do: a new file renamed over it.
    void writeBehindTheStoresBack(const Dictionary& d) const {
        std::filesystem::create_directories(std::filesystem::path(root(kFile)).parent_path());
        ASSERT_TRUE(jx::writePropertyListFileAtomically(root(kFile), Value(d)));
    }
    Value get(const char* key) { return store.copyValue(key, kDomain, kUser); }
    void set(const char* key, const Value& v) { store.setValue(key, v, kDomain, kUser); }

    jxtest::TestRoot root;
    jx::FilePreferencesStore store;
};

TEST_F(PreferencesTest, SynchronizeMergesWithWhatIsOnDisk) {
    writeBehindTheStoresBack({{"shared", Value("old")}, {"theirs", Value(1)}});
    EXPECT_EQ(get("shared"), Value("old"));  // cached now
    set("mine", Value(2));
    EXPECT_EQ(get("mine"), Value(2));  // the writer sees its own change before it is written
    set("shared", Value("new"));
    writeBehindTheStoresBack({{"shared", Value("old")}, {"theirs", Value(1)}, {"added", Value(3)}});
    ASSERT_TRUE(store.synchronize(kDomain, kUser));
    EXPECT_EQ(onDisk(), Value(Dictionary{
                            {"shared", Value("new")}, {"theirs", Value(1)}, {"added", Value(3)}, {"mine", Value(2)}}));

    // Two stores with interleaved writes lose neither's keys.
    jx::FilePreferencesStore other;
    set("fromStore", Value(1));
    other.setValue("fromOther", Value(2), kDomain, kUser);
    ASSERT_TRUE(store.synchronize(kDomain, kUser));
    ASSERT_TRUE(other.synchronize(kDomain, kUser));
    EXPECT_EQ(onDisk().objectForKey("fromStore"), Value(1));
    EXPECT_EQ(onDisk().count(), 6u);
    // Once written, the store's own change no longer hides later changes by others.
    writeBehindTheStoresBack({{"mine", Value(9)}});
    EXPECT_EQ(get("mine"), Value(9));
}

// A file that does not read is never written over (as the real binaries show); once
// repaired it takes the pending writes.
TEST_F(PreferencesTest, AMalformedFileIsKeptNotReplaced) {
    const std::string user = JXUtilities::runningAsUser();
    const std::string file = "/var/" + user + "/Library/Preferences/app.plist";
    root.writeFile(file, "garbage");
    store.setValue("k", Value(5), "app", user);
    EXPECT_FALSE(store.synchronizeApp("app"));
    EXPECT_EQ(root.readFile(file), "garbage");
    std::filesystem::remove(root(file));
    ASSERT_TRUE(store.synchronizeApp("app"));
    EXPECT_EQ(jx::readPropertyListFile(root(file)), Value(Dictionary{{"k", Value(5)}}));
    EXPECT_EQ(store.unreadableReason("app", user), std::nullopt);
}

}  // namespace
