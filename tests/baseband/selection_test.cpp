// Choosing the power log, the shell commands that extract it, and the shell task.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "baseband/JXBasebandPostProcessing.h"
#include "platform/JXUtilities.h"
#include "platform/Task.h"
#include "tests/baseband/SampleLog.h"
#include "tests/support/TestSupport.h"

namespace {

class Selection : public ::testing::Test {
protected:
    Selection() { std::filesystem::create_directories(dir); }
    // Files made one after another, each with a later creation date.
    void make(std::initializer_list<const char*> names) {
        for (const char* name : names) jxtest::writeDatedFile(dir + name, "x\n");
    }
    jxtest::TestRoot root;
    jxtest::LogCapture log;
    JXBasebandPostProcessing p;
    const std::string dir = root("/var/mobile/Library/Logs/Faultkeeper/");
};

TEST_F(Selection, TheSecondNewestLogIsChosenWhateverTheNames) {
    make({"c.joulix", "b.joulix", "a.joulix"});
    EXPECT_EQ(p.getJoulixOfInterest(dir), dir + "b.joulix");
}

TEST_F(Selection, WithoutTwoCandidatesThereIsNone) {
    EXPECT_EQ(p.getJoulixOfInterest(dir), "NOTFOUND");
    make({"a.joulix"});
    EXPECT_EQ(p.getJoulixOfInterest(dir), "NOTFOUND");
    // Only names ending in ".joulix", compared case-sensitively, are candidates.
    make({"b.JOULIX", "c.joulix.gz", "d.joulix~"});
    EXPECT_EQ(p.getJoulixOfInterest(dir), "NOTFOUND");
    // Two names of one file share its creation date: one candidate.
    ASSERT_EQ(::link((dir + "a.joulix").c_str(), (dir + "e.joulix").c_str()), 0);
    EXPECT_EQ(p.getJoulixOfInterest(dir), "NOTFOUND");
    EXPECT_EQ(p.getJoulixOfInterest(root("/var/mobile/Library/Logs/Missing/")), "NOTFOUND");
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(Selection, APathWithoutItsSlashEndsTheRunByTheExceptionPath) {
    make({"x.joulix", "y.joulix"});
    std::string noSlash = dir.substr(0, dir.size() - 1);
    EXPECT_EQ(p.getJoulixOfInterest(noSlash), "NOTFOUND");
    EXPECT_TRUE(log.contains("BBPowerTool -- getJoulixOfInterest: Exception"));
    p.postProcessJoulixsAtPath(noSlash, true);
    EXPECT_TRUE(log.contains("BBPowerTool -- Exception"));
    EXPECT_EQ(p.lastRun().outcome, JXBasebandPostProcessing::Outcome::Exception);
}

TEST_F(Selection, TheCreationDateIsTheBirthTimeElseTheModificationTime) {
    // A file rewritten later keeps its birth time where the file system has one.
    make({"a.joulix"});
    auto created = JXBasebandPostProcessing::creationDateOfItemAtPath(dir + "a.joulix");
    ASSERT_TRUE(created);
    struct timespec later[2] = {{0, UTIME_OMIT}, {4000000000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, (dir + "a.joulix").c_str(), later, 0), 0);
    auto after = JXBasebandPostProcessing::creationDateOfItemAtPath(dir + "a.joulix");
    struct statx kept {};
    ASSERT_EQ(::statx(AT_FDCWD, (dir + "a.joulix").c_str(), 0, STATX_BTIME, &kept), 0);
    if (kept.stx_mask & STATX_BTIME) {
        EXPECT_EQ(after, created);
    } else {
        EXPECT_EQ(after, jx::Date{4000000000.0});
    }
    EXPECT_EQ(JXBasebandPostProcessing::creationDateOfItemAtPath(dir + "gone.joulix"), std::nullopt);
}

TEST_F(Selection, TheExtractionCommandIsTheQuotedTextForPlainPaths) {
    EXPECT_EQ(
        JXBasebandPostProcessing::extractionCommand("/var/mobile/Library/Logs/Faultkeeper/JX_a_b.joulix",
                                                    "/var/tmp/Temp_JoulixForBBPowerTool.joulix"),
        R"(LC_ALL=C grep -a "\[Battery\]\|\[BB HW Log\]\|\[BB HW RPM\]\|\[BB HW APPS\]\|\[BB HW Peripherals\]\|\[BB HW Processor\]\|\[BB HW MPSS\]\|\[Display\]\|\[Telephony\]\|\[Sleep\]\|\[Wake\]\|\[BB Event\]\|\[Assertion\]" "/var/mobile/Library/Logs/Faultkeeper/JX_a_b.joulix" > "/var/tmp/Temp_JoulixForBBPowerTool.joulix")");
    EXPECT_EQ(JXBasebandPostProcessing::removalCommand("/var/tmp/Temp_JoulixForBBPowerTool.joulix"),
              "rm -rf /var/tmp/Temp_JoulixForBBPowerTool.joulix");
    EXPECT_TRUE(JXBasebandPostProcessing::extractionCommand("/a/\"$(x)`y`\\.joulix", "/t")
                    .ends_with(R"( "/a/\"\$(x)\`y\`\\.joulix" > "/t")"));
    EXPECT_EQ(JXBasebandPostProcessing::removalCommand("/r o/o't"), R"(rm -rf '/r o/o'\''t')");
}

TEST(Task, RunsTheShellAndWaits) {
    EXPECT_EQ(JXUtilities::openTask("exit 3"), 3);
    EXPECT_EQ(JXUtilities::openTask("kill -TERM $$"), 128 + SIGTERM);
    // The task's standard input is empty, not the caller's.
    EXPECT_EQ(JXUtilities::openTask("test -z \"$(cat)\""), 0);
    EXPECT_EQ(jx::shellWord("/plain/path-1.x"), "/plain/path-1.x");
}

TEST_F(Selection, AnUnknownPredicateListsNothing) {
    make({"a.joulix"});
    EXPECT_EQ(p.getMatchedFilesInDirectory(dir, "self ENDSWITH '.joulix'"), std::vector<std::string>{"a.joulix"});
    EXPECT_EQ(p.getMatchedFilesInDirectory(dir, "self BEGINSWITH 'a'"), std::vector<std::string>{"a.joulix"});
    EXPECT_TRUE(p.getMatchedFilesInDirectory(dir, "self MATCHES '.*'").empty());
    EXPECT_TRUE(log.contains("BBPowerTool -- getMatchedFilesInDirectory: Exception"));
}

}  // namespace
