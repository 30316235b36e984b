// Archiving a rolled log, retention by creation date, the crash-report property
// list, and the log-file check.
#include <gtest/gtest.h>

#include <filesystem>

#include "JoulixMain/JoulixMain.h"
#include "defaults/JXDefaults.h"
#include "platform/CrashReport.h"
#include "platform/FileTimes.h"
#include "platform/JXLogWriter.h"
#include "platform/JXUtilities.h"
#include "platform/PropertyList.h"
#include "tests/JoulixMain/TestLogger.h"
#include "tests/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
const std::string kLog = "/var/mobile/Library/Logs/CurrentJoulix.joulix";
const std::string kArchive = "/var/mobile/Library/Logs/JXArchive";
const std::string kRolled = "/var/mobile/Library/Logs/Faultkeeper/JX_a.joulix";

class ArchivingTest : public ControllerTest {
protected:
    void SetUp() override {
        ControllerTest::SetUp();
        fs::create_directories(root(kArchive));
        controller->setShouldKeepRunning(true);
    }
    // Moves the fake clock to the given distance from a file's creation.
    void ageOf(const std::string& absolute, double seconds) {
        auto created = jx::fileCreationDate(root(absolute));
        ASSERT_TRUE(created);
        clock.setNow(jx::Date{created->secondsSince1970 + seconds});
    }
    bool exists(const std::string& absolute) { return fs::exists(root(absolute)); }
    void archive() {
        controller->generateLogGatheringFiles(root(kRolled));
        JoulixMain::archiveQueue().sync([] {});
    }
};

// Archives of rolled logs, a big one too, are made and checked by gzip with the real daemon.
TEST_F(ArchivingTest, NothingToReadOrWriteToOrAFileAtTheArchivePathStopsTheHandOff) {
    root.writeFile(kLog, "log\n");
    EXPECT_FALSE(controller->archiveLogFile(root("/missing"), "JX_b.joulix", root(kArchive)));
    EXPECT_FALSE(controller->archiveLogFile(root(kLog), "JX_b.joulix", root("/no/such/dir")));
    EXPECT_TRUE(log.contains("cannot create archive file"));
    fs::remove_all(root(kArchive));
    root.writeFile(kArchive, "in the way");
    controller->generateLogGatheringFiles(root(kRolled));
    EXPECT_TRUE(log.contains("Target directory is not a directory"));
}

// The default fourteen days are checked with the real daemon (13 and 15 days).
TEST_F(ArchivingTest, RetentionGoesByCreationAgeAndTheSetting) {
    struct Case {
        jx::Value setting;
        double age;
        bool kept;
    } cases[] = {
        {jx::Value(), -15 * 86400.0, false},  // in the future: as old as it is far
        {jx::Value("2 hour"), 7199.0, true},
        {jx::Value("2 hour"), 7201.0, false},
        {jx::Value(-1), 13 * 86400.0, true},  // negative: fourteen days
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.setting.description() + " " + std::to_string(c.age));
        JXDefaultsSetValueForKey(JXJoulixArchiveDays, c.setting);
        root.writeFile(kArchive + "/deep/b.joulix.gz", "b");
        root.writeFile(kArchive + "/fresh.joulix.archive", "c");
        ageOf(kArchive + "/deep/b.joulix.gz", c.age);
        controller->DeleteOldFiles();
        EXPECT_EQ(exists(kArchive + "/deep/b.joulix.gz"), c.kept);
        EXPECT_FALSE(exists(kArchive + "/fresh.joulix.archive")) << "an .archive link always goes";
        EXPECT_TRUE(exists(kArchive + "/deep")) << "directories stay";
    }
}

TEST_F(ArchivingTest, CrashReportPropertyListOnlyInDefaultModeWithLinking) {
    root.writeFile("/etc/machine-id", "0123456789abcdef0123456789abcdef\n");
    root.writeFile(kLog, "the log's text\n");
    const std::string plist = root("/var/mobile/Library/Logs/Faultkeeper/JX_a.plist");
    JXDefaultsSetValueForKey(JXLinkFaultkeeper, jx::Value(true));
    controller->generatePListForLog(root(kLog), root(kRolled));  // mode unset is not 0
    EXPECT_FALSE(fs::exists(plist));

    JXDefaultsSetValueForKey(JXLoggingMode, jx::Value(0));
    // A link planted at the list's name is replaced, never written through.
    jxtest::Victim victim;
    jxtest::plantLink(victim.path(), plist);
    controller->generatePListForLog(root(kLog), root(kRolled));
    EXPECT_EQ(victim.changed(), "");
    EXPECT_EQ(log.countContaining("a symbolic link stood at the name: replaced"), 1u);
    EXPECT_EQ(jx::readPropertyListFile(plist),
              jx::Value(jx::Dictionary{{kFKProblemReportAppNameKey, jx::Value("Joulix Lite")},
                                       {kFKProblemReportSystemIDKey, jx::Value("0123456789abcdef0123456789abcdef")},
                                       {kFKProblemReportProblemTypeKey, jx::Value(178)},
                                       {"remote_description", jx::Value(root(kRolled))}}));
}

// Without a log file the check only says so: run by the real daemon while locked.
class LogFileCheckTest : public ArchivingTest {
protected:
    // The daemon's start of logging: a current log, linked into the crash-report directory.
    std::string startLogging() {
        JXDefaultsSetValueForKey(JXLinkFaultkeeper, jx::Value(true));
        controller->startLoggingToFile();
        JXUtilities::sharedDispatchQueue().sync([] {});
        for (auto& e : fs::directory_iterator(root("/var/mobile/Library/Logs/Faultkeeper"))) return e.path();
        return {};
    }
    void check() {
        controller->logFileCheck();
        JXUtilities::sharedDispatchQueue().sync([] {});
    }
    void TearDown() override {
        JXUtilities::sharedDispatchQueue().sync([this] { controller->stopLoggingAndCloseFile(); });
        ArchivingTest::TearDown();
    }
};

TEST_F(LogFileCheckTest, AMissingLinkIsMadeAgainAndRecorded) {
    WrittenLog unused;  // keeps the shared writer away from other tests' files
    const std::string link = startLogging();
    ASSERT_FALSE(link.empty());
    check();
    EXPECT_EQ(root.readFile(kLog).find("state=MultiLinkReset;"), std::string::npos) << "in place: nothing to do";
    fs::remove(link);
    check();
    JXLogWriter::sharedWriter().blockOnWriteEntries();
    EXPECT_EQ(fs::hard_link_count(root(kLog)), 2u);
    EXPECT_TRUE(fs::equivalent(link, root(kLog)));
    EXPECT_NE(root.readFile(kLog).find("[Log] state=MultiLinkReset;"), std::string::npos);
}

}  // namespace
