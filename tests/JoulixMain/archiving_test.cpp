// Archiving a rolled log, retention by creation date, the crash-report property
// list, and the log-file check.
#include <gtest/gtest.h>
#include <unicode/timezone.h>
#include <zlib.h>

#include <filesystem>
#include <random>

#include "JoulixMain/JoulixMain.h"
#include "defaults/JXDefaults.h"
#include "platform/CrashReport.h"
#include "platform/FileTimes.h"
#include "platform/JXLogWriter.h"
#include "platform/JXUtilities.h"
#include "platform/PropertyList.h"
#include "platform/SystemLog.h"
#include "tests/JoulixMain/TestLogger.h"
#include "tests/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
const std::string kLog = "/var/mobile/Library/Logs/CurrentJoulix.joulix";
const std::string kArchive = "/var/mobile/Library/Logs/JXArchive";

std::string gunzip(const std::string& path) {
    std::unique_ptr<gzFile_s, int (*)(gzFile)> in(gzopen(path.c_str(), "rb"), gzclose);
    std::string out;
    char buf[65536];
    for (int n; in && (n = gzread(in.get(), buf, sizeof buf)) > 0;) out.append(buf, static_cast<std::size_t>(n));
    return out;
}

class ArchivingTest : public ::testing::Test {
protected:
    void SetUp() override {
        icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("UTC"));
        fs::create_directories(root("/var/mobile/Library/Logs/Faultkeeper"));
        fs::create_directories(root(kArchive));
        controller = JoulixMain::create();
        controller->setLogToFile(true);
        controller->setShouldKeepRunning(true);
    }
    // Moves the fake clock to the given distance from a file's creation.
    void ageOf(const std::string& absolute, double seconds) {
        auto created = jx::fileCreationDate(root(absolute));
        ASSERT_TRUE(created);
        clock.setNow(jx::Date{created->secondsSince1970 + seconds});
    }
    bool exists(const std::string& absolute) { return fs::exists(root(absolute)); }

    jxtest::TestRoot root;
    jxtest::LogCapture log;
    jxtest::FakeClock clock;
    std::shared_ptr<JoulixMain> controller;
};

TEST_F(ArchivingTest, ARolledLogIsCompressedBesideItsNameAndTheLinkGoes) {
    // Incompressible and compressible parts, over several of the compressor's chunks.
    std::string text;
    std::mt19937 random(7);
    for (int i = 0; i < 20000; ++i) text += "11/21/2026 16:20:00.125 [Display] active=YES; brightness=" + std::to_string(random()) + ";\n";
    root.writeFile(kLog, text);

    controller->generateLogGatheringFiles(root("/var/mobile/Library/Logs/Faultkeeper/JX_a.joulix"));
    EXPECT_TRUE(exists(kArchive + "/JX_a.joulix.archive"));
    JoulixMain::archiveQueue().sync([] {});
    EXPECT_EQ(gunzip(root(kArchive + "/JX_a.joulix.gz")), text);
    EXPECT_FALSE(exists(kArchive + "/JX_a.joulix.archive"));
    EXPECT_EQ(fs::hard_link_count(root(kLog)), 1u);

    // Nothing to read, nothing to write to.
    EXPECT_FALSE(controller->archiveLogFile(root("/missing"), "JX_b.joulix", root(kArchive)));
    EXPECT_FALSE(controller->archiveLogFile(root(kLog), "JX_b.joulix", root("/no/such/dir")));
    EXPECT_TRUE(log.contains("cannot create archive file"));
}

TEST_F(ArchivingTest, AnArchivePathThatIsAFileStopsTheHandOff) {
    root.writeFile(kLog, "log\n");
    fs::remove_all(root(kArchive));
    root.writeFile(kArchive, "in the way");
    controller->generateLogGatheringFiles(root("/var/mobile/Library/Logs/Faultkeeper/JX_a.joulix"));
    EXPECT_TRUE(log.contains("Target directory is not a directory"));
    // A second link under the same name fails and is only reported.
    fs::remove(root(kArchive));
    root.writeFile(kArchive + "/JX_a.joulix.archive", "an older one");
    controller->generateLogGatheringFiles(root("/var/mobile/Library/Logs/Faultkeeper/JX_a.joulix"));
    EXPECT_EQ(log.countContaining("cannot create linked file for archive and pList generation : "), 1u);
    JoulixMain::archiveQueue().sync([] {});
    EXPECT_FALSE(exists(kArchive + "/JX_a.joulix.gz"));
}

TEST_F(ArchivingTest, RetentionGoesByCreationAgeAndTheSetting) {
    root.writeFile(kArchive + "/a.joulix.gz", "a");
    root.writeFile(kArchive + "/deep/b.joulix.gz", "b");
    struct Case {
        jx::Value setting;
        double age;
        bool kept;
    } cases[] = {
        {jx::Value(), 14 * 86400.0, true},  // 13 and 15 days are checked with the real daemon
        {jx::Value(), -15 * 86400.0, false},  // in the future: as old as it is far
        {jx::Value("2 hour"), 7199.0, true},
        {jx::Value("2 hour"), 7201.0, false},
        {jx::Value(3), 259199.0, true},
        {jx::Value(3), 259201.0, false},
        {jx::Value(-1), 13 * 86400.0, true},  // negative: fourteen days
        {jx::Value(-1), 15 * 86400.0, false},
    };
    for (const Case& c : cases) {
        JXDefaultsSetValueForKey(JXJoulixArchiveDays, c.setting);
        root.writeFile(kArchive + "/a.joulix.gz", "a");
        root.writeFile(kArchive + "/deep/b.joulix.gz", "b");
        root.writeFile(kArchive + "/fresh.joulix.archive", "c");
        ageOf(kArchive + "/deep/b.joulix.gz", c.age);
        controller->DeleteOldFiles();
        EXPECT_EQ(exists(kArchive + "/deep/b.joulix.gz"), c.kept) << c.setting.description() << " " << c.age;
        EXPECT_FALSE(exists(kArchive + "/fresh.joulix.archive")) << "an .archive link always goes";
        EXPECT_TRUE(exists(kArchive + "/deep")) << "directories stay";
    }
}

TEST_F(ArchivingTest, RetentionPrunesTheFullModeDaysAndWritesThemBack) {
    const jx::Date now = clock.now();
    auto day = [&](double daysAgo) {
        std::lock_guard lock(controller->logTimestampFormatter().monitor());
        std::string stamp = controller->logTimestampFormatter().stringFromDate(jx::Date{now.secondsSince1970 - daysAgo * 86400});
        return stamp.substr(0, 10);
    };
    const std::string old = day(20), recent = day(1);
    JXDefaultsSetValueForKey(JXFullModeBlackList, jx::Value(jx::Array{jx::Value(old), jx::Value(recent), jx::Value("garbage"),
                                                                        jx::Value(old), jx::Value(7)}));
    controller->DeleteOldFiles();
    EXPECT_EQ(JXDefaultsValueForKey(JXFullModeBlackList),
              jx::Value(jx::Array{jx::Value(recent), jx::Value("garbage"), jx::Value(7)}));
}

TEST_F(ArchivingTest, ALockedDeviceArchivesNothingAndKeepsOldArchives) {
    // A log that cannot be secured (no extended attributes under /proc), locked since boot.
    fs::create_symlink("/proc/self/cmdline", root(kLog));
    root.writeFile("/run/joulix/lock-state", "1\n");
    root.writeFile(kArchive + "/old.joulix.gz", "old");
    ageOf(kArchive + "/old.joulix.gz", 30 * 86400.0);
    controller->generateLogGatheringFiles(root("/var/mobile/Library/Logs/Faultkeeper/JX_a.joulix"));
    JoulixMain::archiveQueue().sync([] {});
    EXPECT_FALSE(exists(kArchive + "/JX_a.joulix.archive"));
    EXPECT_FALSE(exists(kArchive + "/JX_a.joulix.gz"));
    EXPECT_TRUE(exists(kArchive + "/old.joulix.gz"));
}

TEST_F(ArchivingTest, CrashReportPropertyListOnlyInDefaultModeWithLinking) {
    root.writeFile("/etc/machine-id", "0123456789abcdef0123456789abcdef\n");
    root.writeFile(kLog, "the log's text\n");
    const std::string rolled = root("/var/mobile/Library/Logs/Faultkeeper/JX_a.joulix");
    const std::string plist = root("/var/mobile/Library/Logs/Faultkeeper/JX_a.plist");

    JXDefaultsSetValueForKey(JXLinkFaultkeeper, jx::Value(true));
    controller->generatePListForLog(root(kLog), rolled);  // mode unset is not 0
    EXPECT_FALSE(fs::exists(plist));

    JXDefaultsSetValueForKey(JXLoggingMode, jx::Value(0));
    // A link planted at the list's name is replaced, never written through.
    jxtest::Victim victim;
    jxtest::plantLink(victim.path(), plist);
    controller->generatePListForLog(root(kLog), rolled);
    EXPECT_EQ(victim.changed(), "");
    EXPECT_EQ(log.countContaining("a symbolic link stood at the name: replaced"), 1u);
    auto written = jx::readPropertyListFile(plist);
    ASSERT_TRUE(written);
    EXPECT_EQ(*written, jx::Value(jx::Dictionary{{kFKProblemReportAppNameKey, jx::Value("Joulix Lite")},
                                                 {kFKProblemReportSystemIDKey, jx::Value("0123456789abcdef0123456789abcdef")},
                                                 {kFKProblemReportProblemTypeKey, jx::Value(178)},
                                                 {"remote_description", jx::Value(rolled)}}));
    JXDefaultsSetValueForKey(JXFaultkeeperPlistWithContent, jx::Value(true));
    controller->generatePListForLog(root(kLog), rolled);
    written = jx::readPropertyListFile(plist);
    ASSERT_TRUE(written);
    EXPECT_EQ(written->objectForKey(kFKProblemReportDescriptionKey), jx::Value("the log's text\n"));
    EXPECT_TRUE(written->objectForKey("remote_description").isNil());
}

class LogFileCheckTest : public ArchivingTest {
protected:
    // The daemon's start of logging: a current log, linked into the crash-report directory.
    void startLogging() {
        JXDefaultsSetValueForKey(JXLinkFaultkeeper, jx::Value(true));
        controller->startLoggingToFile();
        JXUtilities::sharedDispatchQueue().sync([] {});
    }
    std::string linked() {
        for (auto& e : fs::directory_iterator(root("/var/mobile/Library/Logs/Faultkeeper"))) return e.path();
        return {};
    }
    void TearDown() override { JXUtilities::sharedDispatchQueue().sync([this] { controller->stopLoggingAndCloseFile(); }); }
};

TEST_F(LogFileCheckTest, AMissingLinkIsMadeAgainAndRecorded) {
    WrittenLog unused;  // keeps the shared writer away from other tests' files
    startLogging();
    const std::string link = linked();
    ASSERT_FALSE(link.empty());
    controller->logFileCheck();
    JXUtilities::sharedDispatchQueue().sync([] {});
    EXPECT_EQ(root.readFile(kLog).find("state=MultiLinkReset;"), std::string::npos) << "in place: nothing to do";

    fs::remove(link);
    controller->logFileCheck();
    JXUtilities::sharedDispatchQueue().sync([] {});
    JXLogWriter::sharedWriter().blockOnWriteEntries();
    EXPECT_EQ(fs::hard_link_count(root(kLog)), 2u);
    EXPECT_TRUE(fs::equivalent(link, root(kLog)));
    EXPECT_NE(root.readFile(kLog).find("[Log] state=MultiLinkReset;"), std::string::npos);
}

TEST_F(LogFileCheckTest, WithoutALogFileTheCheckOnlySaysSo) {
    controller->logFileCheck();
    JXUtilities::sharedDispatchQueue().sync([] {});
    EXPECT_TRUE(log.contains("logFileCheck: failed to check logFile"));
}

TEST_F(LogFileCheckTest, AStrangerAtTheLinksNameEndsTheProcess) {
    // The dying run starts afresh: the queues' threads do not survive a plain fork.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            jx::setLogToStderr(true);
            startLogging();
            const std::string link = linked();
            fs::remove(link);
            root.writeFile(link.substr(root.path().size()), "someone else's file");
            controller->logFileCheck();
            JXUtilities::sharedDispatchQueue().sync([] {});
        },
        ::testing::ExitedWithCode(1), "Linking log");
}

TEST_F(ArchivingTest, ArmingTwiceMakesOneWatchAndTearingDownTwiceIsHarmless) {
    JXUtilities::setSharedJXRunLoop(jx::RunLoop::current());
    controller->watchCrashReportDirectories(false);
    controller->watchCrashReportDirectories(true);
    controller->watchCrashReportDirectories(true);
    EXPECT_EQ(controller->watchArmings(), 1u);
    controller->watchCrashReportDirectories(false);
    controller->watchCrashReportDirectories(false);
    controller->watchCrashReportDirectories(true);
    EXPECT_EQ(controller->watchArmings(), 2u);
    controller->watchCrashReportDirectories(false);
    JXUtilities::setSharedJXRunLoop(nullptr);
}

}  // namespace
