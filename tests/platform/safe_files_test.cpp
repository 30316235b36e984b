// Opening, removing and walking inside a tree another account may write.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

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
    ::mknod(root("/d/null").c_str(), S_IFCHR | 0666, ::makedev(1, 3));  // as root only; absent otherwise
    fs::create_directories(root("/real"));
    fs::create_directory_symlink(root("/real"), root("/d/linked-dir"));
    struct Case {
        std::string path;
        int flags;
        bool opens;
        const char* why;
    } cases[] = {
        {root("/d/file"), O_WRONLY | O_APPEND, true, ""},
        {root("/d/new"), O_WRONLY | O_CREAT | O_EXCL, true, ""},
        {root("/d/file"), O_WRONLY | O_CREAT | O_EXCL, false, "File exists"},
        {root("/d/link"), O_WRONLY | O_TRUNC, false, "a symbolic link, not a regular file"},
        {root("/d/link"), O_WRONLY | O_CREAT | O_EXCL, false, "a symbolic link, not a regular file"},
        {root("/d/fifo"), O_RDONLY, false, "a FIFO, not a regular file"},
        {root("/d/dir"), O_RDONLY, false, "a directory, not a regular file"},
        {root("/d/linked-dir/x"), O_WRONLY | O_CREAT, false, "a symbolic link or file stands where a directory should be"},
        {root("/d/file/x"), O_WRONLY | O_CREAT, false, "a symbolic link or file stands where a directory should be"},
    };
    for (const Case& c : cases) {
        std::string why;
        jx::FileDescriptor fd = jx::openRegularFile(c.path, c.flags, 0644, &why);
        EXPECT_EQ(fd.valid(), c.opens) << c.path;
        EXPECT_EQ(why, c.why) << c.path;
    }
    if (fs::exists(root("/d/null"))) {
        std::string why;
        EXPECT_FALSE(jx::openRegularFile(root("/d/null"), O_WRONLY, 0, &why).valid());
        EXPECT_EQ(why, "a device, not a regular file");
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
    jx::forEachFileBelow(tree.get(), [&](int, const std::string&, const std::string& relative) { seen.push_back(relative); });
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, (std::vector<std::string>{"a", "sub/b", "sub/escape", "victim"}));

    EXPECT_TRUE(jx::removePath(root("/tree")));
    EXPECT_FALSE(fs::exists(root("/tree")));
    EXPECT_TRUE(fs::exists(root("/outside/kept")));
    EXPECT_EQ(victim.changed(), "");
    EXPECT_TRUE(jx::removePath(root("/tree")));  // nothing there is no failure

    // A planted chain deeper than any tree of ours is left, not walked to the bottom.
    std::string deep = "/chain";
    for (int i = 0; i < 40; ++i) deep += "/d";
    fs::create_directories(root(deep));
    EXPECT_FALSE(jx::removePath(root("/chain")));
    EXPECT_TRUE(fs::exists(root("/chain")));
}

}  // namespace
