// The line reader and its byte search.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "baseband/JXBasebandPostProcessing.h"
#include "tests/support/TestSupport.h"

namespace {

std::vector<std::string> readAll(JXBasebandPostProcessing& p) {
    std::vector<std::string> lines;
    while (auto line = p.readLine()) lines.push_back(*line);
    return lines;
}

TEST(RangeOfData, SinglePassWithoutBacktracking) {
    struct {
        std::string haystack, needle;
        std::size_t location;
    } cases[] = {
        {"ab", "ab", 0},        {"xab", "ab", 1},        {"aab", "ab", JXNotFound},  // the broken partial match hides
                                                                                     // the real one
        {"aabab", "ab", 3},     {"a\nb", "\n", 1},       {"\n", "\n", 0},           {"abc", "\n", JXNotFound},
        {"", "\n", JXNotFound}, {"a", "ab", JXNotFound},
    };
    for (const auto& c : cases) {
        jx::Data haystack(c.haystack.begin(), c.haystack.end()), needle(c.needle.begin(), c.needle.end());
        EXPECT_EQ(rangeOfData(haystack, needle), (JXRange{c.location, c.needle.size()}))
            << c.haystack << " / " << c.needle;
    }
}

class LineReader : public ::testing::Test {
protected:
    std::string file(const std::string& contents) {
        root.writeFile("/input.joulix", contents);
        return root("/input.joulix");
    }
    jxtest::TestRoot root;
    jxtest::LogCapture log;
    JXBasebandPostProcessing reader;
};

TEST_F(LineReader, ReturnsEveryLineWithItsNewline) {
    const std::string longLine(5000, 'x');
    struct {
        const char* name;
        std::string contents;
        std::vector<std::string> lines;
    } cases[] = {
        {"last line without newline", "a\nb", {"a\n", "b"}},
        {"empty lines", "\n\n", {"\n", "\n"}},
        {"empty file", "", {}},
        {"a line over several chunks", longLine + "\nnext\n", {longLine + "\n", "next\n"}},
        {"newline last in a chunk", std::string(2047, 'y') + "\nz", {std::string(2047, 'y') + "\n", "z"}},
        {"newline first in the next chunk", std::string(2048, 'y') + "\nz", {std::string(2048, 'y') + "\n", "z"}},
        {"UTF-8 text", "h\xc3\xa9llo\nw\xc3\xb6rld\n", {"h\xc3\xa9llo\n", "w\xc3\xb6rld\n"}},
    };
    for (const auto& c : cases) {
        reader.initWithFilePath(file(c.contents));
        EXPECT_EQ(reader.totalFileLength(), c.contents.size()) << c.name;
        EXPECT_EQ(readAll(reader), c.lines) << c.name;
        EXPECT_EQ(reader.currentOffset(), c.contents.size()) << c.name;
        reader.releaseFileObjects();
    }
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(LineReader, ALineThatIsNotUTF8EndsTheReadingButIsPassed) {
    reader.initWithFilePath(file("good\n\xff\xfe bad\nafter\n"));
    EXPECT_EQ(reader.readLine(), "good\n");
    EXPECT_EQ(reader.readLine(), std::nullopt);
    // The offset moved past the bad line all the same.
    EXPECT_EQ(reader.currentOffset(), 12u);
    EXPECT_EQ(reader.readLine(), "after\n");
}

TEST_F(LineReader, AMissingFileIsAnErrorAndYieldsNothing) {
    reader.initWithFilePath(file("one\ntwo\n"));
    ASSERT_EQ(reader.readLine(), "one\n");
    const std::string missing = root("/no/such.joulix");
    reader.initWithFilePath(missing);
    EXPECT_FALSE(reader.hasFileHandle());
    EXPECT_EQ(reader.readLine(), std::nullopt);
    // The old position and length stay as they were.
    EXPECT_EQ(reader.currentOffset(), 4u);
    EXPECT_EQ(reader.totalFileLength(), 8u);
    const auto entries = log.entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0],
              std::make_pair(3, "BBPowerTool -- initWithFilePath: File Handle Error for File >> " + missing));

    // A directory is no file to read either.
    reader.initWithFilePath(root.path());
    EXPECT_FALSE(reader.hasFileHandle());
}

TEST_F(LineReader, ReadingAfterReleaseRaisesInsideAndYieldsNothing) {
    reader.initWithFilePath(file("one\ntwo\n"));
    ASSERT_EQ(reader.readLine(), "one\n");
    reader.releaseFileObjects();
    EXPECT_EQ(reader.currentOffset(), 0u);
    EXPECT_EQ(reader.readLine(), std::nullopt);
    EXPECT_EQ(log.entries(), (std::vector<std::pair<int, std::string>>{{5, "BBPowerTool -- readLine: Exception"}}));
    // Closing twice is silent.
    reader.releaseFileObjects();
    EXPECT_EQ(log.entries().size(), 1u);
}

TEST_F(LineReader, AFileShortenedWhileOpenEndsTheLineThere) {
    const std::string path = file("first\n" + std::string(100, 'x') + "\nthird\n");
    reader.initWithFilePath(path);
    ASSERT_EQ(reader.readLine(), "first\n");
    ASSERT_EQ(truncate(path.c_str(), 50), 0);
    EXPECT_EQ(reader.readLine(), std::string(44, 'x'));
    EXPECT_EQ(reader.readLine(), std::nullopt);
}

}  // namespace
