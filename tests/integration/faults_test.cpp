// The real daemon meeting faults and bad settings: it ends at once where it must,
// and never loops, hangs or loses the log where it need not.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <sstream>
#include <thread>

#include <chrono>
#include <fstream>
#include <filesystem>
#include <functional>

#include "tests/integration/Process.h"
#include "tests/support/TestSupport.h"

namespace {

using jxtest::waitFor;
namespace fs = std::filesystem;

const std::string kLogs = "/var/mobile/Library/Logs";
const std::string kLog = kLogs + "/CurrentJoulix.joulix";
const std::string kFaultkeeper = kLogs + "/Faultkeeper";
const std::string kArchive = kLogs + "/JXArchive";

class FaultsTest : public jxtest::BinariesTest {
protected:
    std::size_t entriesIn(const std::string& absolute) {
        if (!fs::is_directory(root(absolute))) return 0;
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(root(absolute)), fs::directory_iterator()));
    }
};

// Every way the log's files can fail for good ends the daemon with status 1 and one
// line saying why, at once: never a hang that a service manager would count as running.
TEST_F(FaultsTest, FatalFileFaultsEndTheProcessWithStatusOne) {
    struct Case {
        const char* what;
        bool daemon;                                     // run as a daemon, else --once
        std::function<void(jxtest::TestRoot&)> before;   // before the start
        std::function<void(jxtest::TestRoot&)> during;   // once the daemon logs
        const char* message;
        // The watch may see the directory go before the restart re-links the log:
        // then its hard assertion ends the process (status 134) instead.
        bool assertionAllowed = false;
    } cases[] = {
        {"a file where the log directory should be", false,
         [](jxtest::TestRoot& r) {
             fs::create_directories(r("/var/mobile/Library"));
             r.writeFile(kLogs, "");
         },
         nullptr, "Unable to create "},
        {"a file where the crash-report directory should be, linking on", false,
         [](jxtest::TestRoot& r) {
             fs::create_directories(r(kLogs));
             r.writeFile(kFaultkeeper, "");
         },
         nullptr, "Linking log: Not a directory"},
        {"the crash-report directory removed under a running daemon, linking on", true, nullptr,
         [](jxtest::TestRoot& r) { fs::remove_all(r(kFaultkeeper)); }, "Linking log: No such file or directory", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        fs::remove_all(root(kLogs));
        fs::remove(root(kLogs));
        ASSERT_EQ(ctl({"defaults", "write", "JXLinkFaultkeeper", "-bool", "YES"}), 0);
        if (c.before) c.before(root);
        auto p = joulix(c.daemon ? std::vector<std::string>{} : std::vector<std::string>{"--once"});
        if (c.during) {
            ASSERT_TRUE(waitFor([&] { return root.readFile(kLog).find("[Joulix]") != std::string::npos; })) << p->err();
            ASSERT_TRUE(waitFor([&] { return entriesIn(kFaultkeeper) == 1; }));
            c.during(root);
        }
        // Generous for sanitizer builds; the note records the time measured.
        auto status = p->wait(5);
        ASSERT_TRUE(status) << "still running: " << jxtest::tail(p->err());
        if (c.assertionAllowed && *status == 134) {
            EXPECT_NE(p->err().find("Assertion failed: ("), std::string::npos) << jxtest::tail(p->err());
            continue;
        }
        EXPECT_EQ(*status, 1) << jxtest::tail(p->err());
        EXPECT_NE(p->err().find(c.message), std::string::npos) << jxtest::tail(p->err());
    }
}

// A rotation whose arithmetic gives a rollover date in the past (a negative n) or a
// period cut to nothing (n beyond 32 bits) would roll the log in a loop.
TEST_F(FaultsTest, RotationWithoutAFutureRolloverDoesNotStorm) {
    for (const char* setting : {"-3 hour", "4294967296 minute"}) {
        SCOPED_TRACE(setting);
        fs::remove_all(root(kLogs));
        ASSERT_EQ(ctl({"defaults", "write", "JXRotateJoulix", "-string", setting}), 0);
        ASSERT_EQ(ctl({"defaults", "write", "JXLinkFaultkeeper", "-bool", "YES"}), 0);
        auto p = joulix({}, "@2026-11-21 10:00:00");
        ASSERT_TRUE(waitFor([&] { return root.readFile(kLog).find("[Joulix]") != std::string::npos; })) << p->err();
        // Two starts' worth of time: a storm rolls hundreds of logs in it.
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        EXPECT_LE(entriesIn(kFaultkeeper), 1u);
        EXPECT_EQ(entriesIn(kArchive), 0u);
        p->signal(SIGTERM);
        ASSERT_EQ(p->wait(10), 0);
    }
}

// A daemon killed between two writes of one batch leaves half a line: the next start
// ends it, so that its first entry is not glued onto the torn one.
TEST_F(FaultsTest, ARestartEndsATornLastLine) {
    ASSERT_EQ(joulix({"--once"})->wait(), 0);
    const std::string header = root.readFile(kLog).substr(0, root.readFile(kLog).find('\n') + 1);
    {
        std::ofstream torn(root(kLog), std::ios::app);
        torn << "11/23/2026 10:00:00.000 [Network] inte";
    }
    auto p = joulix({"--once"});
    ASSERT_EQ(p->wait(), 0);
    const std::string text = root.readFile(kLog);
    EXPECT_EQ(text.substr(0, header.size()), header);
    const std::size_t at = text.find("[Network] inte\n");
    ASSERT_NE(at, std::string::npos) << text;
    // The next line is a whole entry.
    EXPECT_TRUE(std::isdigit(static_cast<unsigned char>(text[at + 15]))) << text.substr(at, 80);
    EXPECT_NE(p->err().find("ended in an unfinished line"), std::string::npos);
}

// Locked since boot, no logger is asked to log: a one-shot run says so and ends
// rather than waiting for them for ever.
TEST_F(FaultsTest, AOneShotRunOnALockedDeviceEnds) {
    root.writeFile("/run/joulix/lock-state", "1\n");
    auto p = joulix({"--once"});
    auto status = p->wait(10);
    ASSERT_TRUE(status) << "still waiting: " << jxtest::tail(p->err());
    EXPECT_EQ(*status, 0);
    EXPECT_NE(p->err().find("the log is locked until the first unlock after boot: nothing was logged"), std::string::npos);
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
    ASSERT_TRUE(waitFor([&] { return root.readFile(kLog).find("[Joulix]") != std::string::npos; })) << p->err();
    ASSERT_TRUE(waitFor([&] { return root.readFile(kLog).find("[Config]") != std::string::npos; })) << p->err();
    {
        // Everything left, in small pieces, so that the last page is full too.
        std::ofstream filler(root(kLogs + "/filler"), std::ios::binary);
        const std::string piece(512, 'f');
        while (filler.write(piece.data(), piece.size()) && filler.flush()) {}
    }
    // Entries while full: samples from every logger until the writer fails (the log's
    // own last page may still take a few), then another, which it keeps with the rest.
    const auto failed = [&] { return p->err().find("log writer: cannot write the log: No space left on device") != std::string::npos; };
    for (int i = 0; i < 100 && !failed(); ++i) {
        const auto before = fs::file_size(root(kLog));
        p->signal(SIGUSR1);
        ASSERT_TRUE(waitFor([&] { return failed() || fs::file_size(root(kLog)) != before; })) << jxtest::tail(p->err());
    }
    ASSERT_TRUE(failed()) << jxtest::tail(p->err());
    p->signal(SIGUSR1);
    fs::remove(root(kLogs + "/filler"));
    p->signal(SIGUSR1);
    ASSERT_TRUE(waitFor([&] { return root.readFile(kLog).find("droppedEntries=") != std::string::npos; })) << jxtest::tail(p->err());
    p->signal(SIGTERM);
    ASSERT_EQ(p->wait(10), 0);
    EXPECT_EQ(jxtest::occurrences(p->err(), "log writer: cannot write the log"), 1u);
    // Every line holds at most one entry: none glued onto the one that was cut.
    const std::regex time(R"(\d\d/\d\d/\d{4} \d\d:\d\d:\d\d\.\d{3} \[)");
    std::istringstream lines(root.readFile(kLog));
    std::size_t count = 0;
    for (std::string line; std::getline(lines, line); ++count)
        EXPECT_LE(std::distance(std::sregex_iterator(line.begin(), line.end(), time), std::sregex_iterator()), 1)
            << "two entries on one line: " << line;
    EXPECT_GT(count, 10u);
}

// A kill during the compression of a rolled log leaves an unfinished archive and the
// link it was read from: the next start removes the one and compresses the log again.
TEST_F(FaultsTest, AKillDuringCompressionIsRepairedAtTheNextStart) {
    if (::access("/bin/gzip", X_OK) != 0) GTEST_SKIP() << "no gzip";
    const std::string name = "JX_2026-11-20-100000_KILLED.joulix";
    // Text that compresses slowly: pseudo-random fields in every line.
    std::string text =
        "11/20/2026 10:00:00.000 [Joulix] Version=6.01; Build=an older build; Timestamp=2026-11-20-100000; "
        "File_GUID=KILLED; rotateJoulixKey=Default; loggingMode=Lite; binary=joulix; pid=1;\n";
    std::uint64_t x = 88172645463325252ull;
    while (text.size() < (32u << 20)) {
        x ^= x << 13, x ^= x >> 7, x ^= x << 17;
        text += "11/20/2026 10:00:01.000 [Process] name=p" + std::to_string(x) + "; cpu_ms=" + std::to_string(x % 100000) + ";\n";
    }
    root.writeFile(kLog, text);
    root.writeFile("/expected", text);
    auto p = joulix();
    ASSERT_TRUE(waitFor([&] { return fs::exists(root(kArchive + "/" + name + ".gz.partial")); }, 60)) << jxtest::tail(p->err());
    p->signal(SIGKILL);
    p->wait();
    ASSERT_FALSE(fs::exists(root(kArchive + "/" + name + ".gz"))) << "compression ended before the kill";

    auto again = joulix({"--once"});
    ASSERT_EQ(again->wait(120), 0) << jxtest::tail(again->err());
    EXPECT_NE(again->err().find(name + ".gz.partial: an archive left unfinished: removed"), std::string::npos);
    EXPECT_NE(again->err().find(name + ".gz: missing: compressing the log again"), std::string::npos);
    EXPECT_FALSE(fs::exists(root(kArchive + "/" + name + ".gz.partial")));
    EXPECT_FALSE(fs::exists(root(kArchive + "/" + name + ".archive")));
    const std::string gz = root(kArchive + "/" + name + ".gz");
    EXPECT_EQ(std::system(("gzip -t '" + gz + "'").c_str()), 0);
    EXPECT_EQ(std::system(("gzip -dc '" + gz + "' | cmp -s - '" + root(kFaultkeeper + "/" + name) + "'").c_str()), 0);
}

}  // namespace
