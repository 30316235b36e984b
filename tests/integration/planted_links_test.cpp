// The real daemon and joulixctl, running as root, meeting a symbolic link planted by
// the account that owns the log directories at each name they write: the file the
// link points at stays as it was, the planting is said once, and the work goes on.
#include <atomic>
#include <deque>

#include "tests/baseband/SampleLog.h"
#include "tests/integration/Process.h"

namespace {

using namespace jxtest;

const std::string kOldName = "JX_2026-11-20-100000_PLANTED.joulix";
const std::string kOldLog =
    "11/20/2026 10:00:00.000 [Joulix] Version=6.01; Build=an older build; Timestamp=2026-11-20-100000; "
    "File_GUID=PLANTED; rotateJoulixKey=Default; loggingMode=Lite; binary=joulix; pid=1;\n";

class PlantedLinksTest : public BinariesTest {
protected:
    Victim victim;
};

TEST_F(PlantedLinksTest, ALinkAtANameTheDaemonWritesIsNeverWrittenThrough) {
    const std::string rolled = kFaultkeeper + "/" + kOldName, archive = kArchive + "/" + kOldName;
    const struct {
        const char* role;
        std::string at;           // where the link is planted
        bool roll;                // an old log is there to be rolled at the start
        const char* said;         // said once on standard error, when anything
        std::string madeRegular;  // a name that must hold a regular file afterwards
    } cases[] = {
        {"current log", kLog, false, "a symbolic link, not a regular file: not read as a log", kLog},
        {"rolled log's name", rolled, true, "a symbolic link stood at the name: moved aside", rolled},
        {".archive link", archive + ".archive", true,
         "cannot create linked file for archive and pList generation : File exists", kLog},
        {"compressed archive", archive + ".gz", true, "a symbolic link stood at the archive's name: replaced",
         archive + ".gz"},
        {"archive being written", archive + ".gz.partial", true, nullptr, archive + ".gz"},
        {"settings file", kPrefs, false, "is a symbolic link: settings are never read or written through one", kLog},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.role);
        fs::remove_all(root("/var"));
        write({{"JXLinkFaultkeeper", "-bool", "YES"}});
        if (c.roll) root.writeFile(kLog, kOldLog);
        plantLink(victim.path(), root(c.at));
        std::string err;
        ASSERT_EQ(once(&err), 0) << tail(err);
        EXPECT_EQ(victim.changed(), "") << tail(err);
        if (c.said) {
            EXPECT_EQ(occurrences(err, c.said), 1u) << tail(err);
        }
        EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(root(c.madeRegular)))) << c.madeRegular;
        EXPECT_TRUE(has(logText(), "[Joulix]"));
    }
    // joulixctl, as root too, refuses to write settings through the link.
    std::string err;
    EXPECT_NE(ctl({"defaults", "write", "JXRotateJoulix", "2 hour"}, nullptr, &err), 0);
    EXPECT_TRUE(has(err, "symbolic link")) << err;
    EXPECT_EQ(victim.changed(), "");
}

// The post-processor's extract in the shared temporary directory: whatever is at the
// name is removed first, so the attacker plants the link again and again, to win the
// moment between the removal and the extract's creation.
TEST_F(PlantedLinksTest, TheExtractIsNeverWrittenThroughALink) {
    const std::string crash = root(kFaultkeeper + "/"), temporary = root("/var/tmp/Temp_JoulixForBBPowerTool.joulix");
    fs::create_directories(crash);
    writeDatedFile(crash + "JX_2026-11-14-100000_A.joulix", SampleLog().sample(100, 600, 10, 10).text());
    writeDatedFile(crash + "JX_2026-11-15-100000_B.joulix", "11/15/2026 10:00:00.000 [Joulix] x=1;\n");
    plantLink(victim.path(), temporary);
    std::atomic<bool> stop{false};
    std::thread attacker([&] {
        while (!stop) ::symlink(victim.path().c_str(), temporary.c_str());
    });
    std::string err;
    for (int run = 0; run < 5; ++run) ctl({"bbpower"}, nullptr, &err);
    stop = true;
    attacker.join();
    EXPECT_EQ(victim.changed(), "") << err;
}

// The race: the attacker swaps a regular file and a link at every name the next
// archive will take, as fast as it can, while the daemon rolls once a (faked) minute.
TEST_F(PlantedLinksTest, SwappingLinksAtTheArchiveNamesDuringFiftyRollsWritesNothingThrough) {
    if (!haveFakeTime()) GTEST_SKIP() << "libfaketime missing";
    // Each roll's state is said on standard error, where the rolls are counted.
    write({{"JXRotateJoulix", "1 minute"}, {"JXRotateJoulixDebug", "-bool", "YES"}});
    fs::create_directories(root(kArchive));
    auto d = joulix({}, "@2026-11-23 10:00:00 x300");
    ASSERT_TRUE(logShows("File_GUID=")) << d->err();
    std::atomic<bool> stop{false};
    std::thread attacker([&] {
        // The names of the last few logs: a rolled log is compressed a moment after
        // the roll, when the current log already carries the next name.
        std::deque<std::string> recent;
        while (!stop) {
            const std::string head = logText().substr(0, 512);
            auto field = [&](const std::string& key) {
                std::size_t at = head.find(key + "=");
                if (at == std::string::npos) return std::string();
                at += key.size() + 1;
                return head.substr(at, head.find(';', at) - at);
            };
            const std::string name = "JX_" + field("Timestamp") + "_" + field("File_GUID") + ".joulix";
            if (recent.empty() || recent.back() != name) recent.push_back(name);
            if (recent.size() > 3) recent.pop_front();
            for (const std::string& n : recent)
                for (const char* suffix : {".gz", ".gz.partial"}) {
                    const std::string path = root(kArchive + "/" + n + suffix);
                    std::error_code ec;
                    fs::remove(path, ec);
                    fs::create_symlink(victim.path(), path, ec);
                    std::this_thread::yield();
                    fs::remove(path, ec);
                    std::ofstream(path) << "planted";
                }
        }
    });
    // A planted name blocks that roll's archive (the link's name must be new), so the
    // rolls are counted, not the archives.
    const bool rolled = waitFor([&] { return occurrences(d->err(), "state=roll") >= 50; }, 120);
    stop = true;
    attacker.join();
    d->signal(SIGTERM);
    EXPECT_EQ(d->wait(), 0) << tail(d->err());
    EXPECT_TRUE(rolled) << tail(d->err());
    EXPECT_EQ(victim.changed(), "") << tail(d->err());
}

}  // namespace
