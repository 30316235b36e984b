// The controller's life: the singleton, init, the run thread and dealloc.
#include <signal.h>
#include <strings.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <thread>

#include "JoulixMain/JoulixMain.h"
#include "defaults/JXDefaults.h"
#include "platform/Clock.h"
#include "platform/DaemonService.h"
#include "platform/FileProtection.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLogger.h"
#include "platform/JXUtilities.h"
#include "platform/NotificationCenter.h"
#include "platform/NotificationNames.h"
#include "platform/Root.h"
#include "platform/SignalThread.h"
#include "platform/SystemLog.h"

namespace {

// The singleton. The creation itself is not guarded against two first callers,
// as the daemon makes it once from its entry thread; the pointer is, because the
// signal thread and the run thread read and clear it.
std::mutex gSingletonMutex;
std::shared_ptr<JoulixMain> gShared;

// Run threads still alive, for entry code that waits for them.
std::mutex gRunThreadsMutex;
std::condition_variable gRunThreadsDone;
int gRunThreads = 0;

// A setting read the controller's way: YES only when the key has a true value.
bool flagFromDefaults(const char* key) { return JXDefaultsValueExistsForKey(key) && JXDefaultsValueForKey(key).boolValue(); }

}  // namespace

std::shared_ptr<JoulixMain> JoulixMain::sharedJoulixMain() {
    {
        std::lock_guard lock(gSingletonMutex);
        if (gShared) return gShared;
    }
    std::shared_ptr<JoulixMain> made = create();
    std::lock_guard lock(gSingletonMutex);
    if (!gShared) gShared = made;
    return gShared;
}

std::shared_ptr<JoulixMain> JoulixMain::existingSharedJoulixMain() {
    std::lock_guard lock(gSingletonMutex);
    return gShared;
}

bool JoulixMain::haveSharedJoulixMain() {
    std::lock_guard lock(gSingletonMutex);
    return gShared != nullptr;
}

void JoulixMain::stopSharedJoulixMain() {
    std::shared_ptr<JoulixMain> released;
    {
        std::lock_guard lock(gSingletonMutex);
        released.swap(gShared);
    }
    // Released outside the lock: dealloc may run here.
}

bool JoulixMain::shouldRunJoulixDependant() {
    jx::Value v = JXDefaultsCopyValueForKeySync(JXControlRunDependant, true);
    return v.isNil() ? true : v.boolValue();
}

std::shared_ptr<JoulixMain> JoulixMain::create() {
    auto controller = std::make_shared<JoulixMain>(Token{});
    if (!controller->init()) return nullptr;
    return controller;
}

JoulixMain::JoulixMain(Token) {}

bool JoulixMain::init() {
    try {
        setSetupComplete(false);
        setExitRequested(false);

        _loggerList = std::make_shared<JXEntry>();
        JXUtilities::linkLoggerList(_loggerList);

        kQueue = -1;
        crashReportDirectoryDescriptor = -1;
        currentLogDirectoryDescriptor = -1;
        kqueueDescriptorSource.reset();
        kqueueDescriptorRef = nullptr;
        logFile = nullptr;
        linkedLogPath.reset();

        logTimestampFormatter_ = std::make_unique<jx::DateFormatter>("yyyy-MM-dd-HHmmss", "en_US_POSIX");
        rolloverTimer.reset();

        rotateDebugLogging_ = flagFromDefaults(JXRotateJoulixDebug);
        if (rotateDebugLogging_) JXLogWriter::sharedWriter().logDebug("JXDefaults Config", " rotateDebugLogging=YES;");
        runLoopDebugLogging_ = flagFromDefaults(JXRunLoopDebug);
        setBasebandPostProcessing(flagFromDefaults(JXBasebandPostProcessingKey));
        setBasebandPostProcessingNotify(flagFromDefaults(JXBasebandPostProcessingNotifyKey));

        jx::setSignalHandler(SIGUSR1, signalTrigger);
        return true;
    } catch (const std::exception& e) {
        jx::systemLogf(jx::kLogError, "JoulixMain init failed: %s", e.what());
        return false;
    }
}

JoulixMain::~JoulixMain() {
    std::shared_ptr<JXEntry> list = _loggerList;
    JXUtilities::loggerListDispatchQueue().sync([&] {
        JXUtilities::linkLoggerList(nullptr);
        _loggerList.reset();
    });
    list.reset();
    JXUtilities::closeSharedTelephonyConnection();
    logTimestampFormatter_.reset();
    linkedLogPath.reset();
    // From here on a SIGUSR1 finds no controller to deliver to.
    jx::ignoreSignal(SIGUSR1);
}

void JoulixMain::run() {
    {
        std::lock_guard lock(fileGUIDMutex_);
        runningSince_ = jx::Date::now();
    }
    {
        std::lock_guard lock(gRunThreadsMutex);
        ++gRunThreads;
    }
    std::thread([self = shared_from_this()]() mutable {
        self->runThread();
        // The thread's own reference goes last; dealloc runs here unless somebody still holds one.
        self.reset();
        std::lock_guard lock(gRunThreadsMutex);
        if (--gRunThreads == 0) gRunThreadsDone.notify_all();
    }).detach();
}

void JoulixMain::waitForRunThreads() {
    std::unique_lock lock(gRunThreadsMutex);
    gRunThreadsDone.wait(lock, [] { return gRunThreads == 0; });
}

void JoulixMain::fatalError(const std::string& error, const std::optional<std::string>& withReason) {
    if (withReason) jx::systemLog(jx::kLogError, error + ": " + *withReason);
    else jx::systemLog(jx::kLogError, error);
    exitAtOnce(1);
}

void JoulixMain::exitAtOnce(int status) {
    // exit() would run static destructors while the entry thread waits on a
    // condition one of them destroys, and the process would hang instead of
    // ending: flush what was written and leave without them.
    std::fflush(nullptr);
    ::_exit(status);
}

void JoulixMain::runThread() {
    jx::Clock& clock = jx::Clock::current();

    // 1. The start delay, for processes other than the daemon itself.
    if (flagFromDefaults(JXStartDelay) && strcasecmp(JXUtilities::processName().c_str(), "joulix") != 0) {
        jx::systemLog("ready...");
        clock.sleepSeconds(5);
        jx::systemLog("set...");
        clock.sleepSeconds(5);
        jx::systemLog("Go!");
    }

    // 3. This thread and its run loop become the shared ones.
    JXUtilities::setSharedJXRunLoop(jx::RunLoop::current());
    JXUtilities::setSharedJXThread(std::this_thread::get_id());
    JXUtilities::sharedTimeSnapshotInit();

    // 4.
    setFileProtectionForPath(jx::rootPath(kJXCurrentLogPath), "launch");
    setFileProtectionForPath(jx::rootPath(kJXArchiveDirectory), "launch");

    // 5. The first value decides whether the loggers are waited for at the end.
    const bool keepRunningAtStart = shouldKeepRunning();

    // 6-8.
    if (!exitRequested()) setupLoggers();
    startLoggingToFile();
    // A kill during an earlier run's compression is put right before anything else is archived.
    if (logToFile() && MLVGetDeviceLockState(nullptr) != 1)
        archiveQueue().async([self = shared_from_this()] { self->repairArchives(); });
    JXUtilities::sharedDispatchQueue().sync([this] {
        if (rotateDebugLogging_) jx::systemLog("JoulixMain:runThread unblocking after initial startLoggingToFile");
    });

    if (!logToFile() && !shouldKeepRunning()) {
        // 9. A one-shot run.
        setSetupComplete(true);
        jx::SystemNotificationCenter::shared().post(JXStateChanged);
    } else {
        // 10. A daemon run.
        watchCrashReportDirectories(true);
        setupNotifications();
        logFileCheck();
        setSetupComplete(true);
        jx::SystemNotificationCenter::shared().post(JXStateChanged);
        // Set up, and the first entries are on disk: the service manager may say "started".
        JXLogWriter::sharedWriter().blockOnWriteEntries();
        jx::notifyServiceManager("READY=1");
        std::shared_ptr<jx::RunLoop> loop = JXUtilities::sharedJXRunLoop();
        while (shouldKeepRunning() && loop) {
            if (loop->runUntilSourceHandled(-1) == jx::RunLoop::Result::Finished) break;
        }
        jx::notifyServiceManager("STOPPING=1");
        stopNotifications();
        watchCrashReportDirectories(false);
    }

    // 11. Wait until every logger has logged once; no upper bound. A log the lock
    // keeps closed asks no logger to log, so a one-shot run would wait for ever.
    bool logOpen = true;
    JXUtilities::sharedDispatchQueue().sync([&] { logOpen = logFile != nullptr; });
    if (!logOpen && !keepRunningAtStart)
        jx::systemLog(jx::kLogError, "the log is locked until the first unlock after boot: nothing was logged");
    if (!keepRunningAtStart && !exitRequested() && logOpen) {
        for (;;) {
            std::vector<JXValue> loggers = _loggerList ? _loggerList->allValues() : std::vector<JXValue>{};
            if (loggers.empty()) {
                clock.sleepMicroseconds(50000);
                break;
            }
            bool allLogged = true;
            for (const JXValue& v : loggers) {
                auto logger = std::dynamic_pointer_cast<JXLogger>(v.object());
                if (logger && !logger->haveLogged()) allLogged = false;
            }
            clock.sleepMicroseconds(50000);
            if (allLogged) break;
        }
    }

    // 12-16.
    JXUtilities::sharedDispatchQueue().sync([this] { stopLoggingAndCloseFile(); });
    stopSharedJoulixMain();
    JXUtilities::postNotificationName(JXSharedRunLoopStopped, nullptr);
    if (runLoopDebugLogging_) jx::systemLog("***  Joulix runloop stopped!!!  ***");
}

void signalTrigger(int signalNumber) {
    if (signalNumber != SIGUSR1) return;
    // Only a controller that exists is triggered: a signal during shutdown must not make a new one.
    if (std::shared_ptr<JoulixMain> controller = JoulixMain::existingSharedJoulixMain()) controller->triggerAllLoggers(jx::formatString("signal(%d)", signalNumber));
}
