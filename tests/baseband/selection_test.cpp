// Choosing the power log and the shell command that extracts it. The line reader's
// lines, whole and in order across its 2048-byte chunks, and its stop at a line that
// is not UTF-8, are its fuzz target's checks (the seeds hold both chunk edges and such a line).
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "baseband/JXBasebandPostProcessing.h"
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

TEST_F(Selection, TheSecondNewestLogIsChosenByCreationDateElseNone) {
    // One log only is checked end to end by the joulixctl bbpower tests.
    EXPECT_EQ(p.getJoulixOfInterest(dir), "NOTFOUND");
    // Only names ending in ".joulix", compared case-sensitively, are candidates.
    make({"b.joulix", "b.JOULIX", "c.joulix.gz", "d.joulix~"});
    EXPECT_EQ(p.getJoulixOfInterest(dir), "NOTFOUND");
    // Two names of one file share its creation date: one candidate.
    ASSERT_EQ(::link((dir + "b.joulix").c_str(), (dir + "e.joulix").c_str()), 0);
    EXPECT_EQ(p.getJoulixOfInterest(dir), "NOTFOUND");
    make({"a.joulix", "c.joulix"});
    EXPECT_EQ(p.getJoulixOfInterest(dir), dir + "a.joulix");
}

TEST_F(Selection, TheExtractionCommandIsTheQuotedTextForPlainPaths) {
    EXPECT_EQ(
        JXBasebandPostProcessing::extractionCommand("/var/mobile/Library/Logs/Faultkeeper/JX_a_b.joulix",
                                                    "/var/tmp/Temp_JoulixForBBPowerTool.joulix"),
        R"(LC_ALL=C grep -a "\[Battery\]\|\[BB HW Log\]\|\[BB HW RPM\]\|\[BB HW APPS\]\|\[BB HW Peripherals\]\|\[BB HW Processor\]\|\[BB HW MPSS\]\|\[Display\]\|\[Telephony\]\|\[Sleep\]\|\[Wake\]\|\[BB Event\]\|\[Assertion\]" "/var/mobile/Library/Logs/Faultkeeper/JX_a_b.joulix" > "/var/tmp/Temp_JoulixForBBPowerTool.joulix")");
    // Hostile names, and the removal of the extract, are run end to end by the joulixctl bbpower tests.
}

TEST_F(Selection, AnUnknownPredicateListsNothing) {
    make({"a.joulix"});
    EXPECT_EQ(p.getMatchedFilesInDirectory(dir, "self ENDSWITH '.joulix'"), std::vector<std::string>{"a.joulix"});
    EXPECT_EQ(p.getMatchedFilesInDirectory(dir, "self BEGINSWITH 'a'"), std::vector<std::string>{"a.joulix"});
    EXPECT_TRUE(p.getMatchedFilesInDirectory(dir, "self MATCHES '.*'").empty());
    EXPECT_TRUE(log.contains("BBPowerTool -- getMatchedFilesInDirectory: Exception"));
}

}  // namespace
