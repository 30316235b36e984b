#include <gtest/gtest.h>
#include <unicode/timezone.h>

#include <filesystem>

#include "JoulixMain/JoulixMain.h"
#include "defaults/JXDefaults.h"
#include "platform/JXUtilities.h"
#include "platform/Root.h"
#include "tests/support/TestSupport.h"

namespace {

const std::string kLog = "/var/mobile/Library/Logs/CurrentJoulix.joulix";
const std::string kGUID = "0C1E3A52-7F0B-4C8E-9D1A-2B3C4D5E6F70";

class LogFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("UTC"));
        controller = JoulixMain::create();
        ASSERT_TRUE(controller);
        std::filesystem::create_directories(root("/var/mobile/Library/Logs/Faultkeeper"));
    }
    std::string header(const std::string& timestamp, const std::string& build = "12 (6.1.0-27-amd64)",
                       const std::string& guid = kGUID) {
        return "11/21/2026 16:20:00.123 [Joulix] Version=6.01; Build=" + build + "; Timestamp=" + timestamp +
               "; File_GUID=" + guid + "; rotateJoulixKey=Default; loggingMode=Lite; binary=joulix; pid=4242;\n";
    }
    jxtest::TestRoot root;
    std::shared_ptr<JoulixMain> controller;
};

TEST_F(LogFileTest, HeaderIsReadBackOnlyWhenWholeAndExact) {
    struct Case {
        const char* what;
        std::string contents;
        bool ok;
    } cases[] = {
        {"a header", header("2026-11-21-162000"), true},
        {"a header followed by entries", header("2026-11-21-162000") + "11/21/2026 [Display] active=YES;\n", true},
        {"no Build", "[Joulix] Version=6.01; Timestamp=2026-11-21-162000; File_GUID=" + kGUID + ";", false},
        {"no File_GUID", "[Joulix] Build=12; Timestamp=2026-11-21-162000;", false},
        {"File_GUID without its semicolon", "[Joulix] Build=12; Timestamp=2026-11-21-162000; File_GUID=" + kGUID, false},
        {"short timestamp field", header("2026-11-21-16200"), false},
        {"short month", header("2026-1-21-162000"), false},
        {"trailing garbage", header("2026-11-21-162000x"), false},
        {"impossible date", header("2026-02-30-162000"), false},
        {"not UTF-8", header("2026-11-21-162000", "12 (\xff\xfe)"), false},
        {"empty", "", false},
    };
    for (const Case& c : cases) {
        root.writeFile(kLog, c.contents);
        controller->setFileGUID("before");
        std::string build = "untouched";
        jx::Date date{42};
        EXPECT_EQ(controller->readLogFilePrefix(root(kLog), &build, &date), c.ok) << c.what;
        if (c.ok) {
            EXPECT_EQ(build, "12 (6.1.0-27-amd64)") << c.what;
            EXPECT_EQ(date.secondsSince1970, 1795278000) << c.what;  // 2026-11-21 16:20:00 UTC
            EXPECT_EQ(controller->fileGUID(), kGUID) << c.what;
        } else {
            EXPECT_EQ(build, "untouched") << c.what;
            EXPECT_EQ(date.secondsSince1970, 42) << c.what;
        }
    }
    EXPECT_FALSE(controller->readLogFilePrefix(root("/nowhere.joulix"), nullptr, nullptr));
    EXPECT_FALSE(controller->readLogFilePrefix("", nullptr, nullptr));
}

TEST_F(LogFileTest, CharacterCutAtTheEndOfThePrefixDoesNotSpoilTheHeader) {
    std::string contents = header("2026-11-21-162000");
    contents += std::string(511 - contents.size(), '-') + "\xc3\xbc tail\n";  // "ü" straddles byte 512
    root.writeFile(kLog, contents);
    EXPECT_TRUE(controller->readLogFilePrefix(root(kLog), nullptr, nullptr));
}

TEST_F(LogFileTest, RolledNameCarriesTimestampGUIDAndOptionallyTheDeviceName) {
    controller->setFileGUID(kGUID);
    jx::Date date{1394234105};  // 2014-03-07 23:15:05 UTC
    EXPECT_EQ(controller->logFileNameForTimestamp(date), "JX_2014-03-07-231505_" + kGUID + ".joulix");
    JXDefaultsSetValueForKey(JXDeviceNameInFileName, jx::Value(true));
    EXPECT_EQ(controller->logFileNameForTimestamp(date),
              "JX_2014-03-07-231505_" + JXUtilities::deviceName() + "_" + kGUID + ".joulix");
}

TEST_F(LogFileTest, RenameAsideUpToTenCopiesThenDelete) {
    const std::string path = root("/var/mobile/Library/Logs/Faultkeeper/JX_a.joulix");
    EXPECT_FALSE(controller->moveFileAtPath(path));
    for (int k = 1; k <= 10; ++k) {
        root.writeFile("/var/mobile/Library/Logs/Faultkeeper/JX_a.joulix", std::to_string(k));
        EXPECT_TRUE(controller->moveFileAtPath(path));
        EXPECT_FALSE(std::filesystem::exists(path));
        EXPECT_EQ(root.readFile("/var/mobile/Library/Logs/Faultkeeper/JX_a.joulix-" + std::to_string(k)), std::to_string(k));
    }
    jxtest::LogCapture log;
    root.writeFile("/var/mobile/Library/Logs/Faultkeeper/JX_a.joulix", "eleventh");
    EXPECT_TRUE(controller->moveFileAtPath(path));
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_TRUE(log.contains("Had to delete " + path + ", too many copies to rename."));
    EXPECT_EQ(root.readFile("/var/mobile/Library/Logs/Faultkeeper/JX_a.joulix-10"), "10");
}

TEST_F(LogFileTest, MoveTestsTheCurrentLogNotTheSource) {
    root.writeFile("/var/mobile/Library/Logs/other", "x");
    EXPECT_FALSE(controller->moveFileFromPath(root("/var/mobile/Library/Logs/other"), root("/var/mobile/Library/Logs/moved")));
    EXPECT_TRUE(std::filesystem::exists(root("/var/mobile/Library/Logs/other")));
    root.writeFile(kLog, "log");
    EXPECT_TRUE(controller->moveFileFromPath(root("/var/mobile/Library/Logs/other"), root("/var/mobile/Library/Logs/moved")));
    EXPECT_EQ(root.readFile("/var/mobile/Library/Logs/moved"), "x");
}

TEST_F(LogFileTest, LockedOnlyWhenLockedSinceBootWithAFileThatCannotBeSecured) {
    // /proc files exist but take no extended attributes: they cannot be secured.
    const std::string unsecurable = "/proc/self/cmdline";
    EXPECT_TRUE(controller->fileIsUnlockedAtPath(unsecurable, "test"));
    root.writeFile("/run/joulix/lock-state", "1\n");
    EXPECT_FALSE(controller->fileIsUnlockedAtPath(unsecurable, "test"));
    EXPECT_TRUE(controller->fileIsUnlockedAtPath(root("/var/mobile/Library/Logs/absent"), "test"));
    root.writeFile("/run/joulix/lock-state", "2\n");
    EXPECT_TRUE(controller->fileIsUnlockedAtPath(unsecurable, "test"));
}

}  // namespace
