#include "analysis/LogReader.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>

#include "platform/Root.h"
#include "tests/support/LogGenerator.h"
#include "tests/support/TestSupport.h"

using namespace jx::analysis;

namespace {

struct Read {
    std::vector<TimeMs> times;
    std::vector<TimeMs> local;
    std::vector<std::string> tags;
    std::map<std::string, std::uint64_t> perTag;
    std::map<std::string, std::uint64_t> wakes;
    std::uint64_t guessed = 0;
    ReadStats stats;
};

Read readAll(std::vector<LogSource> sources) {
    Read out;
    LogReader reader(std::move(sources));
    reader.read([&](const LogRecord& r) {
        out.times.push_back(r.time);
        out.local.push_back(r.localTime);
        out.tags.emplace_back(r.tag);
        ++out.perTag[std::string(r.tag)];
        if (r.tag == "Wake") ++out.wakes[std::string(r.field("reason").value_or("?"))];
        out.guessed += r.guessed;
        return true;
    });
    out.stats = reader.stats();
    return out;
}

// Sets TZ for the test's life: clock-less logs are read in the reader's own zone.
class ZoneTest : public ::testing::Test {
protected:
    void setZone(const char* tz) {
        setenv("TZ", tz, 1);
        tzset();
    }
    void TearDown() override {
        if (saved_)
            setenv("TZ", saved_->c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }
    std::optional<std::string> saved_ =
        std::getenv("TZ") ? std::optional<std::string>(std::getenv("TZ")) : std::nullopt;
    jxtest::TestRoot root;
};

class LogReaderTest : public ZoneTest {
protected:
    LogLocations where() const {
        const std::string logs = root.path() + "/var/mobile/Library/Logs";
        return {logs + "/CurrentJoulix.joulix", logs + "/Faultkeeper", logs + "/JXArchive"};
    }
};

TEST_F(LogReaderTest, ArchivesRolledLogsAndTheCurrentLogReadOnceInOrder) {
    jxtest::LogGeneratorOptions o;
    o.days = 4;
    o.archivedOnly = 1;
    o.archiveRolled = true;  // rolled logs have their archive too: each log must be read once
    o.zeroTailBytes = 3000;
    const jxtest::LogTruth truth = jxtest::generateLogs(root.path(), o);
    ASSERT_EQ(truth.logs, 4u);

    std::vector<LogSource> logs = findLogs(where());
    ASSERT_EQ(logs.size(), 4u);
    EXPECT_TRUE(logs[0].compressed);
    EXPECT_EQ(logs[1].kind, LogSource::Kind::Rolled);
    EXPECT_EQ(logs[3].kind, LogSource::Kind::Current);

    const Read r = readAll(logs);
    EXPECT_EQ(r.stats.records, truth.records);
    EXPECT_EQ(r.perTag, truth.perTag);
    EXPECT_EQ(r.wakes, truth.wakesByReason);
    EXPECT_EQ(r.stats.malformed, truth.malformed);
    EXPECT_EQ(r.stats.zeroBytes, truth.zeroBytes);
    EXPECT_EQ(r.guessed, 0u);
    ASSERT_FALSE(r.times.empty());
    EXPECT_EQ(r.times.front(), truth.firstUtcMs);
    EXPECT_EQ(r.times.back(), truth.lastUtcMs);
    EXPECT_TRUE(std::is_sorted(r.times.begin(), r.times.end()));
}

TEST_F(LogReaderTest, RangeLeavesOutWholeFilesButNoRecordInIt) {
    jxtest::LogGeneratorOptions o;
    o.days = 4;
    const jxtest::LogTruth truth = jxtest::generateLogs(root.path(), o);
    const TimeMs since = truth.firstUtcMs + 2 * 86400000LL + 3600000;
    std::vector<LogSource> logs = findLogs(where());
    const Read all = readAll(logs);
    LogReader reader(logs);
    reader.setRange(since, std::nullopt);
    std::uint64_t inRange = 0;
    reader.read([&](const LogRecord& r) { return inRange += r.time >= since, true; });
    EXPECT_EQ(inRange, static_cast<std::uint64_t>(
                           std::count_if(all.times.begin(), all.times.end(), [&](TimeMs t) { return t >= since; })));
    EXPECT_EQ(reader.stats().files, 2u);  // the first two days are not opened
}

TEST_F(LogReaderTest, DaylightSavingNightKeepsTimeOrderWhileLocalTimesStepBack) {
    jxtest::LogGeneratorOptions o;
    o.days = 2;
    o.offsetSeconds = 7200;  // summer time ends at 03:00 local, 01:00 UTC
    o.offsetChangeUtc = 1792890000;
    o.offsetAfterSeconds = 3600;
    const jxtest::LogTruth truth = jxtest::generateLogs(root.path(), o);
    // Read in a zone that disagrees with the log's: only the [Clock] entries may count.
    setZone("XXX+5");
    const Read r = readAll(findLogs(where()));
    EXPECT_EQ(r.stats.records, truth.records);
    EXPECT_EQ(r.guessed, 0u);
    EXPECT_TRUE(std::is_sorted(r.times.begin(), r.times.end()));
    EXPECT_EQ(r.times.front(), truth.firstUtcMs);
    EXPECT_EQ(r.times.back(), truth.lastUtcMs);
    bool stepsBack = false;
    for (std::size_t i = 1; i < r.local.size(); ++i) stepsBack |= r.local[i] < r.local[i - 1];
    EXPECT_TRUE(stepsBack) << "the generated night should repeat an hour of local time";
}

TEST_F(LogReaderTest, ClockLessLogIsReadInTheReadersZoneAndMarkedGuessed) {
    jxtest::LogGeneratorOptions o;
    o.days = 1;
    o.clockEntries = false;
    o.offsetSeconds = -5 * 3600;
    const jxtest::LogTruth truth = jxtest::generateLogs(root.path(), o);
    setZone("XXX+5");
    const Read r = readAll(findLogs(where()));
    EXPECT_EQ(r.stats.records, truth.records);
    EXPECT_EQ(r.guessed, truth.records);
    EXPECT_EQ(r.times.front(), truth.firstUtcMs);
}

// Writes lines as given (no newline added) into the current log and reads them.
class DamagedLogTest : public LogReaderTest {
protected:
    Read readText(const std::string& text, bool scanned = true) {
        root.writeFile("/var/mobile/Library/Logs/CurrentJoulix.joulix", text);
        LogSource source = LogSource::at(where().current, LogSource::Kind::Current);
        if (scanned) scanLogHead(source);
        return readAll({source});
    }
    const std::string ok =
        "11/21/2026 16:20:00.123 [Clock] utc_s=1795274400.123; offset_s=3600; zone=X; reason=new_log;\n";
    const std::string line = "11/21/2026 16:20:01.000 [Display] active=YES; brightness=0.5;\n";
};

TEST_F(DamagedLogTest, MalformedLinesAreSkippedAndCounted) {
    struct Case {
        const char* what;
        std::string text;
        std::uint64_t records, malformed, zeroBytes;
    };
    const std::vector<Case> cases = {
        {"well formed", ok + line, 2, 0, 0},
        {"only a time (disk full)", ok + "11/21/2026 16:20:01.000\n" + line, 2, 1, 0},
        {"no tag", ok + "11/21/2026 16:20:01.000 Display active=YES;\n" + line, 2, 1, 0},
        {"bad date", ok + "13/21/2026 16:20:01.000 [Display] active=YES;\n" + line, 2, 1, 0},
        {"text", ok + "garbage\n\n" + line, 2, 2, 0},
        {"a field without =", ok + "11/21/2026 16:20:01.000 [Display] active;\n" + line, 2, 1, 0},
        {"cut at the end", ok + line + "11/21/2026 16:20:02.000 [Display] act", 2, 1, 0},
        {"zero-filled tail", ok + line + "11/21/2026 16:20:02.000 [Disp" + std::string(5000, '\0'), 2, 1, 5000},
        {"written on after zeros", ok + "11/21/2026 16:20:02.000 [Disp" + std::string(300, '\0') + line, 2, 1, 300},
        {"zeros after a whole line", ok + std::string(10, '\0') + line, 2, 0, 10},
        {"overlong line", ok + "11/21/2026 16:20:02.000 [X] a=" + std::string(300000, 'x') + ";\n" + line, 2, 1, 0},
        {"debug line without its last ;", ok + "11/21/2026 16:20:02.000 [Log-LogDirectoryEvent] fired=YES\n", 2, 0, 0},
    };
    for (const Case& c : cases) {
        const Read r = readText(c.text);
        EXPECT_EQ(r.stats.records, c.records) << c.what;
        EXPECT_EQ(r.stats.malformed, c.malformed) << c.what;
        EXPECT_EQ(r.stats.zeroBytes, c.zeroBytes) << c.what;
    }
}

TEST_F(DamagedLogTest, FieldsKeepBlanksAndTheirOrder) {
    LogSource source = LogSource::at(where().current, LogSource::Kind::Current);
    root.writeFile("/var/mobile/Library/Logs/CurrentJoulix.joulix",
                   "11/21/2026 16:20:00.123 [Joulix] Version=6.01; Build=12 (6.1.0-27); File_GUID=AB-CD; "
                   "date=2026-11-21 16:20:00 +0100; empty=;\n");
    scanLogHead(source);
    EXPECT_EQ(source.guid, "AB-CD");
    std::vector<std::pair<std::string, std::string>> fields;
    LogReader({source}).read([&](const LogRecord& r) {
        for (const LogField& f : *r.fields) fields.emplace_back(f.name, f.value);
        return true;
    });
    const std::vector<std::pair<std::string, std::string>> expected = {{"Version", "6.01"},
                                                                       {"Build", "12 (6.1.0-27)"},
                                                                       {"File_GUID", "AB-CD"},
                                                                       {"date", "2026-11-21 16:20:00 +0100"},
                                                                       {"empty", ""}};
    EXPECT_EQ(fields, expected);
}

// A log read while it grows, its head not scanned: lines before the first [Clock]
// wait for it and take its offset.
TEST_F(DamagedLogTest, LinesBeforeTheFirstClockOfAGrowingLogTakeItsOffset) {
    setZone("XXX+5");
    const std::string head = "11/21/2026 16:19:59.000 [Joulix] Version=6.01; File_GUID=A;\n";
    const Read r = readText(head + ok + line, false);
    ASSERT_EQ(r.times.size(), 3u);
    EXPECT_EQ(r.guessed, 0u);
    EXPECT_EQ(r.tags[0], "Joulix");
    EXPECT_EQ(r.times[0], r.local[0] - 3600000);
    EXPECT_EQ(r.times[2], r.local[2] - 3600000);
}

TEST(LogTimeTest, IsoTextOfAbsoluteTimes) {
    EXPECT_EQ(isoUtc(0), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(isoUtc(1795274400123), "2026-11-21T15:20:00.123Z");
    EXPECT_EQ(isoUtc(951868800000 - 1), "2000-02-29T23:59:59.999Z");
    EXPECT_EQ(parseLineTime("02/29/2000 23:59:59.999"), 951868800000 - 1);
    EXPECT_EQ(parseLineTime("02/29/2000 23:59:59,999"), std::nullopt);
}

}  // namespace
