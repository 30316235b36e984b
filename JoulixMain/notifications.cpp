// Notifications, signals and triggers.
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <mutex>
#include <vector>

#include "JoulixMain/JoulixMain.h"
#include "platform/Clock.h"
#include "platform/WallClockTimer.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLogger.h"
#include "platform/JXUtilities.h"
#include "platform/NotificationNames.h"
#include "platform/SystemLog.h"

using Suspension = jx::SystemNotificationCenter::SuspensionBehavior;

namespace {

const char* const kSteeringGroup = "joulix";

// Whether a user belongs to the group that may steer the daemon.
bool inSteeringGroup(uid_t uid) {
    std::vector<char> buffer(16384);
    group gr{};
    group* grp = nullptr;
    if (::getgrnam_r(kSteeringGroup, &gr, buffer.data(), buffer.size(), &grp) != 0 || !grp) return false;
    const gid_t steering = grp->gr_gid;
    passwd pw{};
    passwd* pwp = nullptr;
    std::vector<char> pwBuffer(16384);
    if (::getpwuid_r(uid, &pw, pwBuffer.data(), pwBuffer.size(), &pwp) != 0 || !pwp) return false;
    if (pw.pw_gid == steering) return true;
    int count = 64;
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    if (::getgrouplist(pw.pw_name, pw.pw_gid, groups.data(), &count) < 0) {
        groups.resize(static_cast<std::size_t>(count));
        if (::getgrouplist(pw.pw_name, pw.pw_gid, groups.data(), &count) < 0) return false;
    }
    groups.resize(static_cast<std::size_t>(count));
    return std::find(groups.begin(), groups.end(), steering) != groups.end();
}

// Refusals are said at growing intervals (1 s, doubling up to 5 minutes) with the
// number left unsaid, so that a flood of foreign posts cannot flood the system log.
std::mutex gRefusalMutex;
std::chrono::steady_clock::time_point gNextRefusalMessage{};
std::chrono::seconds gRefusalInterval{1};
unsigned long gRefusalsUnsaid = 0;

void sayRefusal(const std::string& name, std::optional<uid_t> uid) {
    std::lock_guard lock(gRefusalMutex);
    const auto now = std::chrono::steady_clock::now();
    if (now < gNextRefusalMessage) {
        ++gRefusalsUnsaid;
        return;
    }
    const std::string who = uid ? "user " + std::to_string(*uid) : std::string("a sender the bus did not name");
    jx::systemLogf(jx::kLogWarning,
                   "refused %s from %s: only root, the daemon's user and the group %s may steer it (%lu more refused "
                   "since the last message)",
                   name.c_str(), who.c_str(), kSteeringGroup, gRefusalsUnsaid);
    gRefusalsUnsaid = 0;
    gNextRefusalMessage = now + gRefusalInterval;
    gRefusalInterval = std::min<std::chrono::seconds>(gRefusalInterval * 2, std::chrono::seconds(300));
}

// The system bus lets every local user send signals: the daemon acts only for root,
// its own user and the members of the steering group, whatever the bus's policy.
bool fromTrustedSender(const std::string& name, const jx::Value& userInfo) {
    std::optional<uid_t> uid;
    jx::Value v = userInfo.objectForKey(jx::kSenderUIDKey);
    if (v.isNumber()) uid = static_cast<uid_t>(v.integerValue());
    if (uid && (*uid == 0 || *uid == ::geteuid() || inSteeringGroup(*uid))) return true;
    sayRefusal(name, uid);
    return false;
}

}  // namespace

void JoulixExitRequested(jx::SystemNotificationCenter*, void* observer, const std::string& name, const void*,
                         const jx::Value& userInfo) {
    if (!fromTrustedSender(name, userInfo)) return;
    // Said before the controller winds down (its own state entries stop then), so that
    // a stop asked for is not taken for a crash.
    jx::Value uid = userInfo.objectForKey(jx::kSenderUIDKey);
    JXLogWriter::sharedWriter().logEntry(
        "Log", " state=stopping; reason=exit request" + (uid.isNil() ? std::string() : " from uid " + uid.description()) + ";");
    static_cast<JoulixMain*>(observer)->joulixExitRequested();
}

void JoulixLogStatusRequested(jx::SystemNotificationCenter*, void* observer, const std::string& name, const void*,
                              const jx::Value& userInfo) {
    if (!fromTrustedSender(name, userInfo)) return;
    static_cast<JoulixMain*>(observer)->coalesceStatusRequest();
}

void HandleLockvaultUnlockedForFirstTime(jx::SystemNotificationCenter*, void* observer, const std::string& name,
                                         const void*, const jx::Value& userInfo) {
    if (!fromTrustedSender(name, userInfo)) return;
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

void JoulixMain::coalesceStatusRequest() {
    using namespace std::chrono;
    const auto now = steady_clock::now();
    std::optional<double> dueIn;
    {
        std::lock_guard lock(statusMutex_);
        if (statusPending_) {
            ++statusFolded_;
            return;
        }
        const auto since = now - lastStatusTrigger_;
        if (since >= seconds(1)) {
            lastStatusTrigger_ = now;
        } else {
            // One trigger a second at most: the rest of the second's requests fold into one.
            statusPending_ = true;
            statusFolded_ = 0;
            dueIn = duration<double>(seconds(1) - since).count();
        }
    }
    if (!dueIn) {
        logStatusRequestFired(nullptr);
        return;
    }
    const double due = jx::Clock::current().now().secondsSince1970 + *dueIn;
    std::weak_ptr<JoulixMain> weak = weak_from_this();
    jx::scheduleAtWallClock(static_cast<long>(due), static_cast<long>((due - std::floor(due)) * 1e9),
                            JXUtilities::mainQueue(), [weak] {
                                auto self = weak.lock();
                                if (!self) return;
                                unsigned long folded = 0;
                                {
                                    std::lock_guard lock(self->statusMutex_);
                                    self->statusPending_ = false;
                                    self->lastStatusTrigger_ = std::chrono::steady_clock::now();
                                    folded = self->statusFolded_;
                                }
                                jx::systemLogf(jx::kLogNotice,
                                               "status requests faster than one a second: %lu folded into one trigger",
                                               folded + 1);
                                self->logStatusRequestFired(nullptr);
                            });
}

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
