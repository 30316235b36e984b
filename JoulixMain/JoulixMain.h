// JoulixMain: the controller of the logging daemon. One object per process owns
// the logger registry, the current log file and a run thread on which the
// daemon's timers, notifications and callbacks are delivered.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "platform/DateFormatter.h"
#include "platform/FileDescriptor.h"
#include "platform/JXEntry.h"
#include "platform/NotificationCenter.h"
#include "platform/RunLoop.h"
#include "platform/SerialQueue.h"
#include "platform/Value.h"

// The fixed paths of the system, before the root is put in front of them.
extern const char* const kJXCurrentLogPath;          // "/var/mobile/Library/Logs/CurrentJoulix.joulix"
extern const char* const kJXLogDirectory;            // "/var/mobile/Library/Logs"
extern const char* const kJXCrashReportDirectory;    // "/var/mobile/Library/Logs/Faultkeeper"
extern const char* const kJXArchiveDirectory;        // "/var/mobile/Library/Logs/JXArchive"
extern const char* const kJXPluginDirectory;         // "/System/Library/JoulixPlugins/"

class JoulixMain : public std::enable_shared_from_this<JoulixMain> {
    struct Token {};

public:
    // Class operations.
    static std::shared_ptr<JoulixMain> sharedJoulixMain();
    static bool haveSharedJoulixMain();
    // The singleton if there is one; never makes one (for signal handlers).
    static std::shared_ptr<JoulixMain> existingSharedJoulixMain();
    static void stopSharedJoulixMain();
    static bool shouldRunJoulixDependant();
    // For entry code: returns once every run thread started by run has ended.
    static void waitForRunThreads();

    // init: nullptr when the controller cannot be made (see create).
    static std::shared_ptr<JoulixMain> create();
    explicit JoulixMain(Token);
    ~JoulixMain();  // dealloc
    JoulixMain(const JoulixMain&) = delete;
    JoulixMain& operator=(const JoulixMain&) = delete;

    // Lifecycle.
    void run();
    void runThread();
    [[noreturn]] void fatalError(const std::string& error, const std::optional<std::string>& withReason);
    // Ends the process from any thread: flushes the standard streams, runs no destructor.
    [[noreturn]] static void exitAtOnce(int status);

    // Properties.
    std::optional<std::string> fileGUID() const;
    void setFileGUID(std::optional<std::string> guid);
    bool setupComplete() const { return _setupComplete.load(); }
    void setSetupComplete(bool v) { _setupComplete.store(v); }
    std::shared_ptr<JXEntry> loggerList() const { return _loggerList; }
    bool logToFile() const { return _logToFile.load(); }
    void setLogToFile(bool v) { _logToFile.store(v); }
    bool shouldKeepRunning() const { return _shouldKeepRunning.load(); }
    void setShouldKeepRunning(bool v) { _shouldKeepRunning.store(v); }
    bool exitRequested() const { return _exitRequested.load(); }
    void setExitRequested(bool v) { _exitRequested.store(v); }
    bool basebandPostProcessing() const { return _bbPostProcessing.load(); }
    void setBasebandPostProcessing(bool v) { _bbPostProcessing.store(v); }
    bool basebandPostProcessingNotify() const { return _bbPostProcessingNotify.load(); }
    void setBasebandPostProcessingNotify(bool v) { _bbPostProcessingNotify.store(v); }
    bool rotateDebugLogging() const { return rotateDebugLogging_; }
    bool runLoopDebugLogging() const { return runLoopDebugLogging_; }

    // Logging modes.
    static std::string currentLoggingModeString();
    std::int16_t currentLoggerMode();
    std::int16_t currentRunningMode();
    void blackListTodayAsFullMode();
    std::string rotateJoulixDefaultStringValue();
    std::optional<std::string> remainingStringFrom(const std::optional<std::string>& text,
                                                   const std::string& byRemovingPrefix,
                                                   const std::string& byRemovingSuffix);

    // Logger registry.
    void setupLoggers();
    void addLoggerByName(const std::string& name);
    // SIGHUP: reads again the settings that may change while the daemon runs (the
    // debug flags, which loggers are enabled), then every logger samples anew and
    // with that takes its own settings again (sample period, top counts).
    void reloadSettings();
    // Notifications, signals and triggers.
    void setupNotifications();
    void stopNotifications();
    void joulixExitRequested();
    void logStatusRequestFired(const void* ignored);
    // A status request from the bus: at most one trigger a second, the others folded into it.
    void coalesceStatusRequest();
    void triggerAllLoggers(const std::string& reason);
    // Log file: naming, header, opening and closing.
    std::string logFileNameForTimestamp(jx::Date date);
    void createNewCurrentLogWithTimestamp(jx::Date timestamp);
    bool readLogFilePrefix(const std::string& path, std::string* buildVersion, jx::Date* logDate);
    void startLoggingToCurrentLog(jx::Date date);
    void stopLoggingAndCloseFile();

    // Rotation schedule and rollover timer.
    enum class RotationUnit { Minute, Hour, Day };
    struct RotationSetting {
        std::int64_t n;
        RotationUnit unit;
    };
    // The rotation setting read and checked; an unsupported one is reported and gives one day.
    RotationSetting rotationSetting();
    // What the daemon will make of a rotation value other than the user may think
    // (rolls daily instead, turns rotation off, is cut short); nothing when it is plain.
    static std::optional<std::string> rotationSettingProblem(const jx::Value& value);
    void startLoggingToFile();
    bool shouldRotateLogFilesWithPeriodStart(std::optional<jx::Date>* periodStart,
                                             std::optional<jx::Date>* withRolloverDate);
    // The period around now that a setting gives, by the calendar arithmetic alone
    // (periodStart, rolloverDate); nothing when the calendar fails.
    std::optional<std::pair<jx::Date, jx::Date>> periodForSetting(RotationSetting setting, jx::Date now);
    bool dateInRange(jx::Date date, jx::Date startInclusive, jx::Date endExclusive);
    void logStateEvent(const std::string& state, std::optional<jx::Date> existingLogDate,
                       std::optional<jx::Date> periodStart, std::optional<jx::Date> rolloverDate);
    void setRolloverTimer(std::optional<jx::Date> date);
    void rolloverTimerFired(const void* ignored);
    static std::int32_t ComputeTimeFromNowFromDefaults(const jx::Value& value);

    // Placing logs in the crash-report directory.
    bool isSameHardLinkedFileAtPath(const std::string& path, const std::string& asAtPath);
    bool doesFileAtPathExist(const std::string& path);
    bool deleteFileAtPath(const std::string& path);
    bool moveFileFromPath(const std::string& path, const std::string& toPath);
    bool moveFileAtPath(const std::string& path);
    bool shouldLinkToFaultkeeper();
    void generateLogGatheringFiles(const std::string& path);
    bool archiveLogFile(const std::string& path, const std::string& toFile, const std::string& atDir);
    void DeleteOldFiles();
    // What a kill during compression leaves behind is put right: an unfinished
    // archive is removed, and a log whose archive is missing or broken is compressed
    // again before its link may go. At start-up and before each retention pass; the log
    // that pass has just compressed (or failed to) is left to it.
    void repairArchives(const std::string& justArchived = "");
    // The daemon's state for `joulixctl status`, as one JSON text: since when it runs,
    // its log (path, size, GUID, start), mode, loggers loaded (with each one's last
    // sample) and not found, the next rollover, the archives and its own CPU time.
    // It tells nothing of what the log holds. Safe to call from any thread.
    std::string statusJSON();
    // Logs whose compression failed: their .archive links are kept (archive queue only).
    std::set<std::string> linksKept_;
    void generatePListForLog(const std::string& path, const std::string& InFaultkeeper);
    // The serial queue on which compression, retention and post-processing run.
    static jx::SerialQueue& archiveQueue();

    // Protection and watching.
    bool setFileProtectionForPath(const std::string& path, const std::string& withIdentifier);
    bool fileIsUnlockedAtPath(const std::string& path, const std::string& withIdentifier);
    void watchCrashReportDirectories(bool arm);
    void logDirectoryEventForFileDescriptor(const std::shared_ptr<jx::FileDescriptor>& descriptor);
    bool isFileDescripterMultiLinked(FILE* file);
    void logFileCheck();
    void logFileCheckFired(const jx::Notification& notification);

    unsigned watchArmings() const { return watchArmings_.load(); }

    // The shared timestamp formatter; every use holds its monitor.
    jx::DateFormatter& logTimestampFormatter() { return *logTimestampFormatter_; }

private:
    bool init();
    // The work startLoggingToFile hands to the shared queue.
    void startLoggingToFileWork();
    // Reads and handles one directory event, on the shared queue.
    void handleDirectoryEvent(const jx::FileDescriptor& descriptor);
    // A watched log found missing: logging starts again and the log says why.
    void restartLoggingForMissing(const std::string& path);
    // One post-processing run over the crash-report directory, on the archive queue.
    void runBasebandPostProcessing();

    // Instance state, in the order the controller declares it.
    std::shared_ptr<JXEntry> _loggerList;
    FILE* logFile = nullptr;
    std::unique_ptr<jx::DateFormatter> logTimestampFormatter_;
    std::optional<std::string> linkedLogPath;
    std::optional<jx::Date> rolloverTimer;
    int kQueue = -1;
    int crashReportDirectoryDescriptor = -1;
    int currentLogDirectoryDescriptor = -1;
    std::optional<jx::RunLoop::SourceId> kqueueDescriptorSource;
    // The queue's descriptor object: closing it (on tear-down) closes the queue.
    std::shared_ptr<jx::FileDescriptor> kqueueDescriptorRef;
    // How often the watch has been armed, for tests and benchmarks that count rebuilds.
    std::atomic<unsigned> watchArmings_{0};
    // Status requests: when the last trigger ran, and whether one is due with how many folded into it.
    std::mutex statusMutex_;
    std::chrono::steady_clock::time_point lastStatusTrigger_{};
    bool statusPending_ = false;
    unsigned long statusFolded_ = 0;
    // Ends an unfinished last line of a log opened for appending.
    void endTornLine(int fd, const std::string& path);
    // A restart for a missing log is queued (touched on the shared queue only).
    bool restartQueued_ = false;
    // Re-read on SIGHUP while other threads read them.
    std::atomic<bool> rotateDebugLogging_{false};
    std::atomic<bool> runLoopDebugLogging_{false};
    std::atomic<bool> _bbPostProcessing{false};
    std::atomic<bool> _bbPostProcessingNotify{false};
    std::atomic<bool> _logToFile{false};
    std::atomic<bool> _shouldKeepRunning{false};
    mutable std::mutex fileGUIDMutex_;
    std::optional<std::string> _fileGUID;
    // What the status query tells, kept where it is decided (guarded by the GUID's mutex).
    std::optional<jx::Date> logStarted_, nextRollover_;
    std::set<std::string> loggersNotFound_;
    jx::Date runningSince_{};
    std::atomic<bool> _setupComplete{false};
    std::atomic<bool> _exitRequested{false};
};

// The SIGUSR1 handler: with SIGUSR1, every logger logs now.
void signalTrigger(int signalNumber);

// The run loop's callback of the directory watch; info is the controller.
void LogDirectoryEvent(const std::shared_ptr<jx::FileDescriptor>& descriptor, unsigned long callbackTypes, void* info);

// The handlers of the system-wide notifications; the observer is the controller.
void JoulixExitRequested(jx::SystemNotificationCenter* center, void* observer, const std::string& name,
                         const void* object, const jx::Value& userInfo);
void JoulixLogStatusRequested(jx::SystemNotificationCenter* center, void* observer, const std::string& name,
                              const void* object, const jx::Value& userInfo);
void HandleLockvaultUnlockedForFirstTime(jx::SystemNotificationCenter* center, void* observer,
                                         const std::string& name, const void* object, const jx::Value& userInfo);

// The logger names the controller sets up: the full static list and the core list.
extern const char* const kJXStaticLoggerList[36];
extern const char* const kJXCoreLoggerList[18];
// This system's own measuring loggers, set up in every mode after the core list.
extern const char* const kJXMeasuringLoggerList[6];
