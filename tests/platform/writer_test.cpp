#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "platform/JXLogWriter.h"
#include "platform/TextEncoding.h"
#include "tests/support/TestSupport.h"

namespace {

using Lines = std::vector<std::string>;

// A log file under a private root; declared before the writer so that it outlives it.
class LogFile {
public:
    LogFile(const jxtest::TestRoot& root, const std::string& name)
        : path_(root(name)), file_(std::fopen(path_.c_str(), "w")) {}
    ~LogFile() { std::fclose(file_); }
    FILE* get() const { return file_; }
    // "[Key] rest" of each line, after checking that it starts with the time.
    Lines bodies() const {
        static const std::regex form(R"(\d\d/\d\d/\d{4} \d\d:\d\d:\d\d\.\d{3} (\[.+))");
        std::ifstream in(path_);
        Lines out;
        std::smatch m;
        for (std::string text; std::getline(in, text);)
            if (std::regex_match(text, m, form))
                out.push_back(m[1]);
            else
                ADD_FAILURE() << "malformed line: " << text;
        return out;
    }

private:
    std::string path_;
    FILE* file_;
};

JXEntry entry(const std::string& key, long long n) {
    JXEntry e(key);
    e.setObject(JXValue::valueWithLong(n), "n");
    return e;
}

class WriterTest : public ::testing::Test {
protected:
    void open() {
        writer.setLogFile(file.get());
        writer.setLogFileEnabled(true);
    }
    jxtest::TestRoot root;
    LogFile file{root, "/log.txt"};
    JXLogWriter writer;
};

TEST_F(WriterTest, EntriesWaitInOrderForAFileAndAnEnabledWriter) {
    writer.logEntry(entry("E", 1));
    writer.setLogFileEnabled(true);  // enabled, but no file
    writer.blockOnWriteEntries();    // nothing can be written: returns at once
    writer.setLogFileEnabled(false);
    writer.setLogFile(file.get());  // a file, but disabled
    writer.logAsFirstEntry(entry("Header", 1));
    writer.logEntry(entry("E", 2));
    writer.logAsFirstEntry(entry("Header", 2));  // ahead of everything, the first header too
    writer.blockOnWriteEntries();
    EXPECT_TRUE(file.bodies().empty());
    writer.setLogFileEnabled(true);
    writer.blockOnWriteEntries();
    EXPECT_EQ(file.bodies(), (Lines{"[Header] n=2;", "[Header] n=1;", "[E] n=1;", "[E] n=2;"}));
}

TEST_F(WriterTest, PastThePendingLimitTheOldestOrdinaryEntriesGo) {
    jxtest::LogCapture log;
    writer.setPendingLimit(3);
    writer.logAsFirstEntry(entry("Header", 0));
    for (int i = 1; i <= 6; ++i) writer.logEntry(entry("E", i));
    EXPECT_EQ(writer.droppedCount(), 4u);  // the header counts towards the limit but stays
    open();
    writer.blockOnWriteEntries();
    EXPECT_EQ(file.bodies(), (Lines{"[Header] n=0;", "[LogWriter] droppedEntries=4;", "[E] n=5;", "[E] n=6;"}));
    EXPECT_TRUE(
        log.contains("log writer: 4 entries were dropped while no log file was open or the log could not be written"));
}

TEST_F(WriterTest, SwitchingOffOrOverWritesOutWhatWasQueuedFirst) {
    // No blockOnWriteEntries before reading: the switch alone must have written everything
    // logged before it, however far the writer thread had got.
    writer.setLogFile(file.get());
    std::size_t total = 0;
    for (int round = 0; round < 40; ++round) {
        writer.setLogFileEnabled(true);
        int n = round % 4 == 0 ? 200 : 1 + round % 3;
        for (int i = 0; i < n; ++i) writer.logEntry(entry("E", i));
        writer.setLogFileEnabled(false);
        total += n;
        ASSERT_EQ(file.bodies().size(), total) << "round " << round;
    }
    writer.logEntry(entry("Later", 1));
    writer.blockOnWriteEntries();
    EXPECT_EQ(file.bodies().size(), total);

    // Likewise a switch of files: each gets exactly what was logged while it was current.
    LogFile second(root, "/second.txt");
    const LogFile* files[] = {&file, &second};
    std::size_t counts[] = {total + 1, 0};  // "Later" goes to the first file once enabled
    writer.setLogFileEnabled(true);
    for (int round = 0; round < 40; ++round) {
        int from = round % 2, n = round % 4 == 0 ? 200 : 1 + round % 3;
        for (int i = 0; i < n; ++i) writer.logEntry(entry("E", i));
        writer.setLogFile(files[1 - from]->get());
        counts[from] += n;
        ASSERT_EQ(files[from]->bodies().size(), counts[from]) << "round " << round;
    }
    writer.setLogFile(nullptr);
    EXPECT_EQ(second.bodies().size(), counts[1]);
}

TEST_F(WriterTest, DestructionLeavesEverythingOnDisk) {
    {
        JXLogWriter local;
        local.setLogFile(file.get());
        local.setLogFileEnabled(true);
        for (int i = 0; i < 200; ++i) local.logEntry(entry("E", i));
    }
    EXPECT_EQ(file.bodies().size(), 200u);
}

TEST_F(WriterTest, ManyThreadsLoseNothingAndLinesStayWhole) {
    constexpr int kThreads = 6, kEach = 400;
    const std::string padding(200, 'p');
    open();
    std::atomic<bool> done{false};
    // Meanwhile the file is switched off and on, and waited on, from other threads.
    std::thread toggler([&] {
        for (int i = 0; !done; ++i) {
            writer.setLogFileEnabled(i % 2 == 1);
            std::this_thread::yield();
        }
        writer.setLogFileEnabled(true);
    });
    std::thread waiter([&] {
        while (!done) {
            writer.blockOnWriteEntries();
            std::this_thread::yield();
        }
    });
    std::vector<std::thread> producers;
    for (int t = 0; t < kThreads; ++t)
        producers.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                JXEntry e("T" + std::to_string(t));
                e.setObject(JXValue::valueWithLong(i), "i");
                e.setObject(JXValue::valueWithString(padding), "pad");
                if (i % 2)
                    writer.logEntry(e);
                else
                    writer.logDebug(e);
            }
        });
    for (auto& p : producers) p.join();
    done = true;
    toggler.join();
    waiter.join();
    writer.blockOnWriteEntries();

    Lines lines = file.bodies();
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kEach));
    std::vector<int> next(kThreads, 0);
    for (const auto& line : lines) {
        int t = -1, i = -1, rest = 0;
        ASSERT_EQ(std::sscanf(line.c_str(), "[T%d] i=%d; pad=%n", &t, &i, &rest), 2) << line;
        ASSERT_TRUE(t >= 0 && t < kThreads) << line;
        ASSERT_EQ(line.substr(rest), padding + ";");
        ASSERT_EQ(i, next[t]++) << "thread " << t << " out of order";
    }
}

// Control characters in a value (a process name, a file name) never reach the log as
// they are; the fields around them keep their layout.
TEST_F(WriterTest, LineLayoutAndEscapes) {
    open();
    JXEntry e("Battery");
    e.setObject(JXValue::valueWithLong(80), "level");
    e.setObject(JXValue::valueWithDouble(4.25, "V"), "voltage");
    writer.logEntry(e);
    writer.logEntry("Title", " free text, as given");
    Lines expected{"[Battery] level=80; voltage=4.25V;", "[Title] free text, as given"};
    for (auto [value, written] : {std::pair<std::string, std::string>{"a\tb\nc\r", "a\\tb\\nc\\r"},
                                  {"\x1b[2J\x1b]0;owned\x07", "\\x1b[2J\\x1b]0;owned\\x07"},
                                  {"del\x7f", "del\\x7f"},
                                  {"c1 \xc2\x9b"
                                   "31m",
                                   "c1 \\xc2\\x9b31m"},
                                  {"caf\xc3\xa9 \xe2\x9c\x93", "caf\xc3\xa9 \xe2\x9c\x93"}}) {  // UTF-8 text stays
        JXEntry p("Process");
        p.setObject(JXValue::valueWithString(value), "name");
        p.setObject(JXValue::valueWithLong(1), "pid");
        writer.logEntry(p);
        expected.push_back("[Process] name=" + written + "; pid=1;");
    }
    writer.blockOnWriteEntries();
    EXPECT_EQ(file.bodies(), expected);
}

// Writes cut short by the file-size limit, as by a disk that fills up: the lines wholly
// written stay, the one cut is ended before the next entry and counted as lost, and
// the rest wait for room.
TEST_F(WriterTest, AShortWriteKeepsWholeLinesAndEndsTheCutOne) {
    struct Limit {
        rlimit saved{};
        Limit() {
            ::getrlimit(RLIMIT_FSIZE, &saved);
            std::signal(SIGXFSZ, SIG_IGN);  // a short write, then EFBIG
        }
        ~Limit() { ::setrlimit(RLIMIT_FSIZE, &saved); }
        void set(rlim_t bytes) const {
            rlimit r = saved;
            r.rlim_cur = bytes;
            ::setrlimit(RLIMIT_FSIZE, &r);
        }
    } limit;
    open();
    writer.logEntry(entry("E", 1));
    writer.blockOnWriteEntries();
    const rlim_t line = std::filesystem::file_size(root("/log.txt"));
    writer.setLogFileEnabled(false);
    writer.logEntry(entry("E", 2));
    writer.logEntry(entry("E", 3));
    limit.set(2 * line);  // room for the second line to its last byte
    writer.setLogFileEnabled(true);
    writer.blockOnWriteEntries();
    limit.set(2 * line + 24);  // the third cut after its time
    writer.logEntry(entry("E", 4));
    writer.blockOnWriteEntries();
    limit.set(limit.saved.rlim_cur);
    writer.logEntry(entry("E", 5));
    writer.blockOnWriteEntries();
    std::ifstream in(root("/log.txt"));
    Lines bodies;  // each line after its time
    for (std::string text; std::getline(in, text);)
        bodies.push_back(text.substr(std::min<std::size_t>(text.size(), 24)));
    EXPECT_EQ(bodies, (Lines{"[E] n=1;", "[E] n=2;", "", "[LogWriter] droppedEntries=1;", "[E] n=4;", "[E] n=5;"}));
}

// The composer's JSON: control characters as \u escapes, bytes that are no UTF-8 as U+FFFD.
TEST(TextEncoding, JSONStringsEscapeWhatJSONForbids) {
    std::string out;
    jx::appendJSONString(out, "q\"b\\\n\t\x01\x1b\x1f\x7f caf\xc3\xa9 \xff");
    EXPECT_EQ(out, "\"q\\\"b\\\\\\n\\t\\u0001\\u001b\\u001f\\u007f caf\xc3\xa9 \\ufffd\"");
}

}  // namespace
