// JXBasebandPostProcessing: the baseband power post-processor. After a roll it
// takes the second-newest power log of the crash-report directory, extracts the
// modem's hardware-statistics and device-state lines, replays them as timestamped
// events, averages the modem's ARM utility over idle intervals into a 101-bin
// histogram, and reports a verdict to the metrics service and the issue tracker.
// One object serves one run at a time; runs must not overlap (the temporary file
// is fixed).
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/FileDescriptor.h"
#include "platform/Value.h"

struct statx;

// The byte search the line reader uses (a category "Additions" on the byte buffer).
struct JXRange {
    std::size_t location;
    std::size_t length;
    bool operator==(const JXRange&) const = default;
};
// The platform's not-found marker: the largest signed machine word.
inline constexpr std::size_t JXNotFound = static_cast<std::size_t>(PTRDIFF_MAX);
// rangeOfData: the first occurrence of needle in the receiver, in one pass without
// backtracking (see baseband/reader.cpp); the length is always the needle's.
JXRange rangeOfData(std::span<const std::uint8_t> receiver, std::span<const std::uint8_t> needle);
inline JXRange rangeOfData(const jx::Data& receiver, const jx::Data& needle) {
    return rangeOfData(std::span<const std::uint8_t>(receiver), std::span<const std::uint8_t>(needle));
}

// The metric functions of the post-processor (baseband/report.cpp).
inline constexpr std::uint32_t kTLMBasebandPowerComponentId = 31;
inline constexpr std::uint32_t kTLMBasebandPowerMetricId = 0x1F0001;
bool TLMSetup();
bool TLMIsMetricEnabled(std::uint32_t metricId);
class TLMMetric;
void TLMSubmitMetric(const TLMMetric* metric, std::uint32_t metricId);
// The dictionary holds "Priority", "CDFPercentileThresholdPoint" and "ARMpdfValues".
void TLMSubmitBasebandPowerMetric(const jx::Value& dictionary);

class JXBasebandPostProcessing {
public:
    // Pattern table, match results, event dictionary and device-state flags: all
    // string to string, kept in ascending key order.
    using Dictionary = std::map<std::string, std::string>;
    using PDF = std::vector<int>;

    static constexpr const char* kNotFound = "NOTFOUND";
    static constexpr const char* kTemporaryJoulix = "/var/tmp/Temp_JoulixForBBPowerTool.joulix";
    static constexpr std::uint64_t kMaximumExtractBytes = 15728640;  // 15 MB; exactly this much passes
    static constexpr std::size_t kReadChunk = 2048;
    static constexpr int kBins = 101;

    JXBasebandPostProcessing();
    ~JXBasebandPostProcessing();
    JXBasebandPostProcessing(const JXBasebandPostProcessing&) = delete;
    JXBasebandPostProcessing& operator=(const JXBasebandPostProcessing&) = delete;

    // The run: directory path ending in "/", and whether a verdict of a potential
    // issue is to be filed as a report.
    void postProcessJoulixsAtPath(const std::string& path, bool postNotification);
    // The sweep: fills the PDF and the counter from the events (nullptr: no events).
    void calculateARMUtilityFor(const Dictionary* events, PDF& ARMUtilityPDF);
    // The verdict: logs the PDF, submits the metric record, sends the report.
    void getResultForARMValues(const PDF& pdf, bool postNotification, const std::string& forJoulix);

    // Selection and extraction.
    std::vector<std::string> getMatchedFilesInDirectory(const std::string& path, const std::string& withFormat);
    std::string getJoulixOfInterest(const std::string& path);
    void getTrimemdJoulixFile(const std::string& path);
    void removeTemporaryJoulix();

    // Line reader.
    void initWithFilePath(const std::string& path);
    std::optional<std::string> readLine();
    void releaseFileObjects();

    // Line patterns and device state.
    void addSearchStringsToDictionary(Dictionary& dictionary);
    Dictionary getMatchedResultsFor(const std::string& line, const Dictionary& searchStrings);
    std::optional<jx::Date> getFormattedDateTimeWithFormat(const std::string& format, const std::string& forString);
    std::string getEpochTimeForDate(std::optional<jx::Date> date, const std::string& withMilliseconds);
    void addKey(const std::string& key, const std::string& value, Dictionary& toDictionary);
    bool isUserUsingThePhone(const Dictionary& flags);
    // Diagnostics kept as no-ops.
    void printSortedDictionary(const Dictionary& dictionary);
    void printDictionary(const Dictionary& dictionary);
    // Stores the event a matched line stands for (or updates the pending sample values).
    void dispatchMatchedResult(const Dictionary& result, Dictionary& events);

    // The issue report.
    void sendNotification(const std::string& description);

    // The temporary file under the root, and the two shell commands run on it.
    static std::string temporaryJoulixPath();
    static std::string extractionCommand(const std::string& joulixPath, const std::string& temporaryPath);
    // The extraction command without its redirection: the daemon makes the output
    // file itself and hands it to the search as its standard output.
    static std::string searchCommand(const std::string& joulixPath);
    static std::string removalCommand(const std::string& temporaryPath);
    // A file's creation date: its birth time, else its modification time; nullopt
    // when its attributes cannot be read. Symbolic links are not followed.
    static std::optional<jx::Date> creationDateOfItemAtPath(const std::string& path);
    // The same from attributes already read: the birth time when the file system
    // keeps one, else the modification time.
    static jx::Date creationDateFromAttributes(const struct statx& attributes);

    // Reader state, for tests and diagnostics.
    bool hasFileHandle() const { return fileHandle.has_value(); }
    std::uint64_t currentOffset() const { return _currentOffset; }
    std::uint64_t totalFileLength() const { return _totalFileLength; }
    int totalNumberOfARMUtilityValuesFiltered() const { return totalNumberOfARMUtilityValues_Filtered; }

    // Whether a line is tried only against the patterns of its bracketed tag (the
    // default) or against every pattern; both give the same results.
    void setDispatchesByTag(bool on) { _dispatchesByTag = on; }
    bool dispatchesByTag() const { return _dispatchesByTag; }

    // How the last run went, for the control tool.
    enum class Outcome { NotRun, Disabled, NotFound, TooLarge, Exception, Completed };
    struct RunSummary {
        Outcome outcome = Outcome::NotRun;
        std::string joulixOfInterest;  // empty until one was chosen
        int priority = -1;             // set when the run completed
        long thresholdPoint = -1;
    };
    const RunSummary& lastRun() const { return summary; }

    // A read-only file handle that, like the platform's, raises when used after
    // closing; the descriptor itself is owned and closed at the latest when it goes.
    class FileHandle {
    public:
        explicit FileHandle(jx::FileDescriptor fd) : fd_(std::move(fd)) {}
        std::uint64_t seekToEndOfFile();
        void seekToFileOffset(std::uint64_t offset);
        // Up to length bytes from the present offset; fewer only at the end of the file.
        std::size_t readDataOfLength(std::uint8_t* buffer, std::size_t length);
        void closeFile();

    private:
        jx::FileDescriptor fd_;
        bool closed_ = false;
    };

    struct CompiledPatterns;

private:
    std::string joulixOfInterestOrThrow(const std::string& path);
    void runOrThrow(const std::string& path, bool postNotification);
    void calculateARMUtilityOrThrow(const Dictionary* events, PDF& ARMUtilityPDF);
    void resultForARMValuesOrThrow(const PDF& pdf, bool postNotification, const std::string& forJoulix);
    const CompiledPatterns& compiledPatternsFor(const Dictionary& searchStrings);
    // Drops the compiled table and the collision search state of addKey.
    void forgetCompiledPatterns();
    std::optional<jx::Date> parseDate(const std::string& format, const std::string& text);

    // Reader state.
    std::optional<FileHandle> fileHandle;
    std::uint64_t _currentOffset = 0;
    std::uint64_t _totalFileLength = 0;

    // Run state.
    Dictionary dictSearchStrings;
    Dictionary dictMatchedResultsFromSearchStrings;
    int totalNumberOfARMUtilityValues_Filtered = 0;
    bool _dispatchesByTag = true;
    RunSummary summary;

    // The sample being assembled from the lines before a [BB HW Peripherals] line.
    std::optional<std::string> pendingARMUtility;
    std::optional<std::string> pendingDuration;
    std::optional<std::string> pendingAPPSValue;

    // Where the collision search of addKey stopped for each time, for the one
    // dictionary it was last used on.
    static constexpr std::uint64_t kMaximumCollisionSteps = 1000000;
    std::unordered_map<double, std::uint64_t> collisionNext;
    const Dictionary* collisionDictionary = nullptr;
    std::size_t collisionDictionarySize = 0;

    // Patterns compiled once for the table they were made from.
    std::unique_ptr<CompiledPatterns> compiled;
    const Dictionary* compiledRunTable = nullptr;  // the run's table, compiled at its start
    struct DateParser;
    std::unique_ptr<DateParser> dateParser;
};
