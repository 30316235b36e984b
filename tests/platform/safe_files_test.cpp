// Opening, removing and walking inside a tree another account may write, and kernel
// attributes kept open between samples.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "platform/Compression.h"
#include "platform/KernelFiles.h"
#include "platform/SafeFiles.h"
#include "tests/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;

TEST(SafeFiles, OnlyARegularFileReachedThroughNoLinkIsOpened) {
    jxtest::TestRoot root;
    jxtest::Victim victim;
    root.writeFile("/d/file", "x");
    fs::create_symlink(victim.path(), root("/d/link"));
    ::mkfifo(root("/d/fifo").c_str(), 0644);
    fs::create_directories(root("/d/dir"));
    fs::create_directories(root("/real"));
    fs::create_directory_symlink(root("/real"), root("/d/linked-dir"));
    struct Case {
        std::string path;
        int flags;
        bool opens;
        const char* why;
    } cases[] = {
        {root("/d/new"), O_WRONLY | O_CREAT | O_EXCL, true, ""},
        {root("/d/link"), O_WRONLY | O_CREAT | O_EXCL, false, "a symbolic link, not a regular file"},
        {root("/d/fifo"), O_RDONLY, false, "a FIFO, not a regular file"},
        {root("/d/dir"), O_RDONLY, false, "a directory, not a regular file"},
        {root("/d/linked-dir/x"), O_WRONLY | O_CREAT, false,
         "a symbolic link or file stands where a directory should be"},
    };
    for (const Case& c : cases) {
        std::string why;
        jx::FileDescriptor fd = jx::openRegularFile(c.path, c.flags, 0644, &why);
        EXPECT_EQ(fd.valid(), c.opens) << c.path;
        EXPECT_EQ(why, c.why) << c.path;
    }
    EXPECT_FALSE(fs::exists(root("/real/x")));
    EXPECT_EQ(victim.changed(), "");
}

TEST(SafeFiles, RemovingAndWalkingNeverLeaveTheTree) {
    jxtest::TestRoot root;
    jxtest::Victim victim;
    root.writeFile("/outside/kept", "k");
    root.writeFile("/tree/a", "a");
    root.writeFile("/tree/sub/b", "b");
    fs::create_directory_symlink(root("/outside"), root("/tree/sub/escape"));
    fs::create_symlink(victim.path(), root("/tree/victim"));

    jx::FileDescriptor tree = jx::openTreeDirectory(root("/tree"));
    ASSERT_TRUE(tree.valid());
    std::vector<std::string> seen;
    jx::forEachFileBelow(tree.get(),
                         [&](int, const std::string&, const std::string& relative) { seen.push_back(relative); });
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, (std::vector<std::string>{"a", "sub/b", "sub/escape", "victim"}));

    EXPECT_TRUE(jx::removePath(root("/tree")));
    EXPECT_FALSE(fs::exists(root("/tree")));
    EXPECT_TRUE(fs::exists(root("/outside/kept")));
    EXPECT_EQ(victim.changed(), "");

    // A planted chain deeper than any tree of ours is left, not walked to the bottom.
    std::string deep = "/chain";
    for (int i = 0; i < 40; ++i) deep += "/d";
    fs::create_directories(root(deep));
    EXPECT_FALSE(jx::removePath(root("/chain")));
    EXPECT_TRUE(fs::exists(root("/chain")));
}

// Each read of an attribute kept open is the file's present text, a
// file that went away answers nothing, and no more stay open than the limit.
TEST(OpenAttributesTest, ReadsAfreshClosesWhatWentAndKeepsToItsLimit) {
    jxtest::TestRoot root;
    root.writeFile("/a", "17\n");
    root.writeFile("/b", "first line\nsecond\n");
    jx::OpenAttributes attributes(1);
    EXPECT_EQ(attributes.number(root("/a")), 17);
    // Past the limit: read the plain way, not kept.
    EXPECT_EQ(attributes.line(root("/b")), "first line");
    EXPECT_EQ(attributes.openCount(), 1u);
    // Rewritten in place, shorter: the kept descriptor reads it anew.
    root.writeFile("/a", "9\n");
    EXPECT_EQ(attributes.number(root("/a")), 9);

    // What was read since the last sweep stays open; the rest is closed at the next.
    attributes.sweep();
    EXPECT_EQ(attributes.openCount(), 1u);
    attributes.sweep();
    EXPECT_EQ(attributes.openCount(), 0u);
    EXPECT_EQ(attributes.number(root("/missing")), std::nullopt);
}

}  // namespace

// The archive repair trusts this check: a compression cut short or a damaged trailer
// must not pass for a whole archive.
TEST(Compression, OnlyAWholeGzipStreamPassesTheCheck) {
    FILE* in = std::tmpfile();
    FILE* out = std::tmpfile();
    ASSERT_TRUE(in && out);
    for (int i = 0; i < 20000; ++i) std::fprintf(in, "11/23/2026 00:00:%02d.000 [Battery] level=%d;\n", i % 60, i);
    std::rewind(in);
    ASSERT_EQ(jx::deflateFileToGzip(in, out, 6), 0);
    std::fflush(out);
    const int fd = fileno(out);
    const off_t size = ::lseek(fd, 0, SEEK_END);
    EXPECT_TRUE(jx::gzipFileChecks(fd));
    char last = 0;
    ASSERT_EQ(::pread(fd, &last, 1, size - 1), 1);
    last ^= 1;  // the length in the trailer no longer matches
    ASSERT_EQ(::pwrite(fd, &last, 1, size - 1), 1);
    EXPECT_FALSE(jx::gzipFileChecks(fd));
    for (off_t cut : {size - 1, size / 2, off_t{10}, off_t{0}}) {
        ASSERT_EQ(::ftruncate(fd, cut), 0);
        EXPECT_FALSE(jx::gzipFileChecks(fd)) << "cut at " << cut;
    }
    std::fclose(in);
    std::fclose(out);
}
