// Attributes kept open between samples: each read is the file's present text, a
// file that went away answers nothing, and no more stay open than the limit.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <thread>

#include "platform/KernelFiles.h"
#include "tests/support/TestSupport.h"

namespace {

TEST(OpenAttributesTest, ReadsAfreshClosesWhatWentAndKeepsToItsLimit) {
    jxtest::TestRoot root;
    root.writeFile("/a", "17\n");
    root.writeFile("/b", "first line\nsecond\n");
    root.writeFile("/c", "3");
    jx::OpenAttributes attributes(2);
    EXPECT_EQ(attributes.number(root("/a")), 17);
    EXPECT_EQ(attributes.line(root("/b")), "first line");
    EXPECT_EQ(attributes.file(root("/b")), "first line\nsecond\n");
    // Past the limit: read the plain way, not kept.
    EXPECT_EQ(attributes.number(root("/c")), 3);
    EXPECT_EQ(attributes.openCount(), 2u);

    // Rewritten in place, longer and then shorter: the kept descriptor reads it anew.
    root.writeFile("/a", "123456\n");
    EXPECT_EQ(attributes.number(root("/a")), 123456);
    root.writeFile("/a", "9\n");
    EXPECT_EQ(attributes.number(root("/a")), 9);
    root.writeFile("/a", "garbage\n");
    EXPECT_EQ(attributes.number(root("/a")), std::nullopt);

    // What was not read since the last sweep is closed at the next.
    attributes.sweep();
    EXPECT_EQ(attributes.number(root("/a")), std::nullopt);
    attributes.sweep();
    EXPECT_EQ(attributes.openCount(), 1u);
    std::filesystem::remove(root("/a"));
    EXPECT_EQ(attributes.number(root("/missing")), std::nullopt);
    EXPECT_EQ(attributes.openCount(), 1u);
}

TEST(OpenAttributesTest, AFileThatCannotSeekIsReadStraightOn) {
    jxtest::TestRoot root;
    ASSERT_EQ(::mkfifo(root("/fifo").c_str(), 0600), 0);
    // A writer that leaves at once: the reader sees the text and then the end.
    std::thread writer([&] { root.writeFile("/fifo", "42\n"); });
    EXPECT_EQ(jx::readKernelNumber(root("/fifo")), 42);
    writer.join();
}

}  // namespace
