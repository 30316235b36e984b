// The real daemon meeting faults and bad settings: it ends at once where it must,
// and never loops, hangs or loses the log where it need not.
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <regex>

#include "tests/integration/Process.h"

namespace {

using namespace jxtest;

using FaultsTest = BinariesTest;

// Every way the log's files can fail for good ends the daemon with status 1 and one
// line saying why, at once: never a hang that a service manager would count as running.
TEST_F(FaultsTest, FatalFileFaultsEndTheProcessWithStatusOne) {
    const struct {
        const char* what;
        std::function<void()> make;  // the root before a one-shot start; none: a daemon runs, and then...
        const char* message;
    } cases[] = {
        {"a file where the log directory should be",
         [&] {
             fs::create_directories(root("/var/mobile/Library"));
             root.writeFile(kLogs, "");
         },
         "Unable to create "},
        {"a file where the crash-report directory should be, linking on",
         [&] {
             fs::create_directories(root(kLogs));
             root.writeFile(kFaultkeeper, "");
         },
         "Linking log: Not a directory"},
        {"the crash-report directory removed under a running daemon, linking on", nullptr,
         "Linking log: No such file or directory"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        fs::remove_all(root(kLogs));
        write({{"JXLinkFaultkeeper", "-bool", "YES"}});
        if (c.make) c.make();
        auto p = joulix(c.make ? std::vector<std::string>{"--once"} : std::vector<std::string>{});
        if (!c.make) {
            ASSERT_TRUE(logShows("[Joulix]")) << p->err();
            ASSERT_TRUE(waitFor([&] { return names(kFaultkeeper).size() == 1; }));
            fs::remove_all(root(kFaultkeeper));
        }
        // Generous for sanitizer builds.
        auto status = p->wait(5);
        ASSERT_TRUE(status) << "still running: " << tail(p->err());
        // The watch may see the directory go before the restart re-links the log: then
        // its hard assertion ends the process (status 134) instead.
        const bool asserted = !c.make && *status == 134;
        EXPECT_EQ(*status, asserted ? 134 : 1) << tail(p->err());
        EXPECT_HAS(p->err(), asserted ? "Assertion failed: (" : c.message);
    }
}

// A rotation whose arithmetic gives a rollover date in the past (a negative n) or a
// period cut to nothing (n beyond 32 bits) would roll the log in a loop.
TEST_F(FaultsTest, RotationWithoutAFutureRolloverDoesNotStorm) {
    for (const char* setting : {"-3 hour", "4294967296 minute"}) {
        SCOPED_TRACE(setting);
        fs::remove_all(root(kLogs));
        write({{"JXRotateJoulix", "-string", setting}, {"JXLinkFaultkeeper", "-bool", "YES"}});
        auto p = joulix({}, "@2026-11-21 10:00:00");
        ASSERT_TRUE(logShows("[Joulix]")) << p->err();
        // Two starts' worth of time: a storm rolls hundreds of logs in it.
        EXPECT_FALSE(waitFor([&] { return names(kFaultkeeper).size() > 1 || !names(kArchive).empty(); }, 1.5));
    }
}

// A full log file system: the writer says so once, and when space comes back it ends
// the line it was cutting, marks how many entries were lost, and goes on. A real
// small file system under the log, filled and emptied under the running daemon.
TEST_F(FaultsTest, AFullDiskIsSaidAndNoEntryIsGluedToAnother) {
    fs::create_directories(root(kLogs));
    if (::mount("joulix-full", root(kLogs).c_str(), "tmpfs", 0, "size=256k") != 0)
        GTEST_SKIP() << "cannot mount a small file system: " << std::strerror(errno);
    struct Unmount {
        std::string at;
        ~Unmount() { ::umount2(at.c_str(), MNT_DETACH); }
    } unmount{root(kLogs)};
    auto p = joulix();
    ASSERT_TRUE(logShows("[Joulix]")) << p->err();
    ASSERT_TRUE(logShows("[Config]")) << p->err();
    {
        // Everything left, in small pieces, so that the last page is full too.
        std::ofstream filler(root(kLogs + "/filler"), std::ios::binary);
        const std::string piece(512, 'f');
        while (filler.write(piece.data(), piece.size()) && filler.flush()) {
        }
    }
    // Entries while full: samples from every logger until the writer fails (the log's
    // own last page may still take a few), then another, which it keeps with the rest.
    const auto failed = [&] { return has(p->err(), "log writer: cannot write the log: No space left on device"); };
    for (int i = 0; i < 100 && !failed(); ++i) {
        const auto before = fs::file_size(root(kLog));
        p->signal(SIGUSR1);
        ASSERT_TRUE(waitFor([&] { return failed() || fs::file_size(root(kLog)) != before; })) << tail(p->err());
    }
    ASSERT_TRUE(failed()) << tail(p->err());
    p->signal(SIGUSR1);
    fs::remove(root(kLogs + "/filler"));
    p->signal(SIGUSR1);
    ASSERT_TRUE(logShows("droppedEntries=")) << tail(p->err());
    p->signal(SIGTERM);
    ASSERT_EQ(p->wait(10), 0);
    EXPECT_EQ(occurrences(p->err(), "log writer: cannot write the log"), 1u);
    // Every line holds at most one entry: none glued onto the one that was cut.
    const std::regex time(R"(\d\d/\d\d/\d{4} \d\d:\d\d:\d\d\.\d{3} \[)");
    const auto all = lines(logText());
    for (const std::string& line : all)
        EXPECT_LE(std::distance(std::sregex_iterator(line.begin(), line.end(), time), std::sregex_iterator()), 1)
            << "two entries on one line: " << line;
    EXPECT_GT(all.size(), 10u);
}

// A kill during the compression of a rolled log leaves an unfinished archive and the
// link it was read from: the next start removes the one and compresses the log again.
TEST_F(FaultsTest, AKillDuringCompressionIsRepairedAtTheNextStart) {
    if (::access("/bin/gzip", X_OK) != 0) GTEST_SKIP() << "no gzip";
    const std::string name = "JX_2026-11-20-100000_KILLED.joulix", archive = root(kArchive + "/" + name);
    // Text that compresses slowly: pseudo-random fields in every line.
    std::string text =
        "11/20/2026 10:00:00.000 [Joulix] Version=6.01; Build=an older build; Timestamp=2026-11-20-100000; "
        "File_GUID=KILLED; rotateJoulixKey=Default; loggingMode=Lite; binary=joulix; pid=1;\n";
    for (std::uint64_t x = 88172645463325252ull; text.size() < (32u << 20);) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        text += "11/20/2026 10:00:01.000 [Process] name=p" + std::to_string(x) +
                "; cpu_ms=" + std::to_string(x % 100000) + ";\n";
    }
    root.writeFile(kLog, text);
    auto p = joulix();
    ASSERT_TRUE(waitFor([&] { return fs::exists(archive + ".gz.partial"); }, 60)) << tail(p->err());
    p->signal(SIGKILL);
    p->wait();
    ASSERT_FALSE(fs::exists(archive + ".gz")) << "compression ended before the kill";

    std::string err;
    ASSERT_EQ(once(&err, 120), 0) << tail(err);
    EXPECT_HAS(err, name + ".gz.partial: an archive left unfinished: removed",
               name + ".gz: missing: compressing the log again");
    EXPECT_FALSE(fs::exists(archive + ".gz.partial"));
    EXPECT_FALSE(fs::exists(archive + ".archive"));
    EXPECT_EQ(std::system(("gzip -t '" + archive + ".gz'").c_str()), 0);
    EXPECT_EQ(
        std::system(("gzip -dc '" + archive + ".gz' | cmp -s - '" + root(kFaultkeeper + "/" + name) + "'").c_str()), 0);
}

}  // namespace
