// Notifications, signals and triggers.
#include "JoulixMain/JoulixMain.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLogger.h"
#include "platform/JXUtilities.h"
#include "platform/NotificationNames.h"
#include "platform/SystemLog.h"

using Suspension = jx::SystemNotificationCenter::SuspensionBehavior;

void JoulixExitRequested(jx::SystemNotificationCenter*, void* observer, const std::string&, const void*,
                         const jx::Value&) {
    static_cast<JoulixMain*>(observer)->joulixExitRequested();
}

void JoulixLogStatusRequested(jx::SystemNotificationCenter*, void* observer, const std::string&, const void*,
                              const jx::Value&) {
    static_cast<JoulixMain*>(observer)->logStatusRequestFired(nullptr);
}

void HandleLockvaultUnlockedForFirstTime(jx::SystemNotificationCenter*, void* observer, const std::string&,
                                         const void*, const jx::Value&) {
    auto* controller = static_cast<JoulixMain*>(observer);
    jx::systemLog("lockvault unlocked!");
    // The log file can be opened now.
    controller->startLoggingToFile();
    controller->logStateEvent("File Unlocked", std::nullopt, std::nullopt, std::nullopt);
}

void JoulixMain::setupNotifications() {
    if (rotateDebugLogging_) JXLogWriter::sharedWriter().logDebug("Log-SetupNotifications", " SetupNotifications=fired;");
    jx::SystemNotificationCenter& center = jx::SystemNotificationCenter::shared();
    center.addObserver(this, JXExitRequest, JoulixExitRequested, Suspension::DeliverImmediately);
    center.addObserver(this, JXLogStateRequest, JoulixLogStatusRequested, Suspension::DeliverImmediately);
    center.addObserver(this, JXFirstUnlockNotification, HandleLockvaultUnlockedForFirstTime, Suspension::Drop);
    jx::NotificationCenter::defaultCenter().addObserver(
        this, JXConnectedStateNo, [this](const jx::Notification& n) { logFileCheckFired(n); });
}

void JoulixMain::stopNotifications() {
    jx::SystemNotificationCenter& center = jx::SystemNotificationCenter::shared();
    center.removeObserver(this, JXExitRequest);
    center.removeObserver(this, JXLogStateRequest);
    center.removeObserver(this, JXFirstUnlockNotification);
    jx::NotificationCenter::defaultCenter().removeObserver(this);
}

void JoulixMain::joulixExitRequested() {
    setExitRequested(true);
    auto loop = JXUtilities::sharedJXCFRunLoop();
    if (loop) loop->stop();
    setShouldKeepRunning(false);
    // The stop can reach the run thread before the flag turns: wake it once more so
    // that it sees the flag, rather than going back to wait for the next event.
    if (loop) loop->perform([] {});
}

void JoulixMain::logStatusRequestFired(const void*) { triggerAllLoggers("statusRequested"); }

void JoulixMain::triggerAllLoggers(const std::string& reason) {
    jx::systemLogf(jx::kLogNotice, "Received signal(%s), calling log on all loggers", reason.c_str());
    JXUtilities::postNotificationName(JXFlushRadiosNotification, this);
    JXUtilities::postNotificationName(JXCommitRadiosNotification, this);
    logStateEvent(reason, std::nullopt, std::nullopt, std::nullopt);

    JXUtilities::loggerListDispatchQueue().sync([this] {
        if (!_loggerList) return;
        for (const std::string& key : _loggerList->keys()) {
            std::optional<JXValue> v = _loggerList->objectForKey(key);
            if (!v || JXNull::isNull(v->object())) continue;
            auto logger = std::dynamic_pointer_cast<JXLogger>(v->object());
            if (!logger) continue;
            // Each logger logs on its own queue: in parallel with the others, never twice at once.
            logger->loggerSerialQueue().async([logger] { logger->log(); });
        }
    });
}
