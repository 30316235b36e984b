// File protection, the lock-state gate, directory watching and the log-file check.
#include <limits.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "JoulixMain/JoulixMain.h"
#include "platform/FileProtection.h"
#include "platform/JXLogWriter.h"
#include "platform/JXUtilities.h"
#include "platform/Root.h"
#include "platform/SafeFiles.h"
#include "platform/SystemLog.h"

bool JoulixMain::setFileProtectionForPath(const std::string& path, const std::string& withIdentifier) {
    jx::ProtectionError error;
    bool ok = jx::setFileProtectionClass(path, jx::kProtectionCompleteUntilFirstUserAuthentication, &error);
    if (rotateDebugLogging_) {
        if (ok) jx::systemLogf(jx::kLogNotice, "%s is secured", path.c_str());
        else
            jx::systemLogf(jx::kLogNotice, "security fail! identifier=%s path=%s code=%ld domain=%s userInfo=%s",
                           withIdentifier.c_str(), path.c_str(), error.code, error.domain.c_str(), error.userInfo.c_str());
    }
    return ok;
}

bool JoulixMain::fileIsUnlockedAtPath(const std::string& path, const std::string& withIdentifier) {
    const int state = MLVGetDeviceLockState(nullptr);
    const bool exists = doesFileAtPathExist(path);
    const bool secured = setFileProtectionForPath(path, "unlock check - " + withIdentifier);
    if (state == 1 && !secured && exists) {
        if (rotateDebugLogging_)
            jx::systemLogf(jx::kLogNotice, "Lockvault is locked (%s)!! lockstat=%d fileProtectionResult=%s fileExists=%s",
                           withIdentifier.c_str(), 1, "NO", exists ? "YES" : "NO");
        return false;
    }
    if (rotateDebugLogging_)
        jx::systemLogf(jx::kLogNotice, "Lockvault is not locked (%s)!! lockstat=%d fileProtectionResult=%s fileExists=%s",
                       withIdentifier.c_str(), state, secured ? "YES" : "NO", exists ? "YES" : "NO");
    return true;
}

namespace {

// What counts as a change of a watched directory: an entry made, removed, renamed
// away or renamed over, or the directory itself removed or renamed. Writes to the
// files in it and their attributes are not watched, so the daemon's own logging
// never wakes the watch.
constexpr std::uint32_t kWatchMask =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

// A hard assertion: says what failed and where, and ends the process.
#define JX_HARD_ASSERT(expression)                                                                         \
    do {                                                                                                   \
        if (!(expression)) {                                                                               \
            jx::systemLogf(jx::kLogError, "Assertion failed: (%s), function %s, file JoulixMain/JoulixMain, line %d.", \
                           #expression, __func__, __LINE__);                                               \
            std::abort();                                                                                  \
        }                                                                                                  \
    } while (0)

}  // namespace

void LogDirectoryEvent(const std::shared_ptr<jx::FileDescriptor>& descriptor, unsigned long, void* info) {
    static_cast<JoulixMain*>(info)->logDirectoryEventForFileDescriptor(descriptor);
}

void JoulixMain::watchCrashReportDirectories(bool arm) {
    JXUtilities::sharedDispatchQueue().sync([this, arm] {
        if (!arm) {
            std::shared_ptr<jx::RunLoop> loop = JXUtilities::sharedJXCFRunLoop();
            if (kqueueDescriptorSource) {
                if (loop) loop->removeSource(*kqueueDescriptorSource);
                kqueueDescriptorSource.reset();
            }
            if (kqueueDescriptorRef) {
                kqueueDescriptorRef->reset();  // closes the queue, and with it both watches
                kqueueDescriptorRef.reset();
                kQueue = -1;
            }
            currentLogDirectoryDescriptor = -1;
            crashReportDirectoryDescriptor = -1;
            return;
        }
        if (kQueue != -1) return;
        kQueue = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        JX_HARD_ASSERT(kQueue > 0);
        crashReportDirectoryDescriptor =
            ::inotify_add_watch(kQueue, jx::rootPath(kJXCrashReportDirectory).c_str(), kWatchMask);
        JX_HARD_ASSERT(crashReportDirectoryDescriptor > 0);
        currentLogDirectoryDescriptor = ::inotify_add_watch(kQueue, jx::rootPath(kJXLogDirectory).c_str(), kWatchMask);
        JX_HARD_ASSERT(currentLogDirectoryDescriptor > 0);
        ++watchArmings_;

        kqueueDescriptorRef = std::make_shared<jx::FileDescriptor>(kQueue);
        std::shared_ptr<jx::RunLoop> loop = JXUtilities::sharedJXCFRunLoop();
        if (!loop) return;
        std::weak_ptr<jx::FileDescriptor> ref = kqueueDescriptorRef;
        kqueueDescriptorSource = loop->addSource(kQueue, [this, ref] {
            if (auto descriptor = ref.lock()) LogDirectoryEvent(descriptor, 1, this);
        });
    });
}

void JoulixMain::logDirectoryEventForFileDescriptor(const std::shared_ptr<jx::FileDescriptor>& descriptor) {
    JXUtilities::sharedDispatchQueue().async(
        [self = shared_from_this(), descriptor] { self->handleDirectoryEvent(*descriptor); });
    // Queued behind the handler: it reads its event first, then the watch is built afresh.
    watchCrashReportDirectories(false);
    watchCrashReportDirectories(true);
    // Whatever happened between the handler's read and the new watch raised no event:
    // look once more, so that a log deleted in that moment is not missed.
    JXUtilities::sharedDispatchQueue().async([self = shared_from_this()] {
        std::optional<std::string> missing;
        if (!self->doesFileAtPathExist(jx::rootPath(kJXCurrentLogPath))) missing = jx::rootPath(kJXCurrentLogPath);
        else if (self->linkedLogPath && !self->doesFileAtPathExist(*self->linkedLogPath) && self->shouldLinkToFaultkeeper())
            missing = self->linkedLogPath;
        if (missing) self->restartLoggingForMissing(*missing);
    });
}

void JoulixMain::handleDirectoryEvent(const jx::FileDescriptor& descriptor) {
    if (rotateDebugLogging_) JXLogWriter::sharedWriter().logDebug("Log-LogDirectoryEvent", " fired=YES");
    alignas(inotify_event) char buffer[sizeof(inotify_event) + NAME_MAX + 1];
    ssize_t n = ::read(descriptor.get(), buffer, sizeof buffer);
    if (n < static_cast<ssize_t>(sizeof(inotify_event))) return;
    // Only the first event counts: the rebuild that follows drops the rest.
    inotify_event event;
    std::memcpy(&event, buffer, sizeof event);

    std::optional<std::string> path;
    if (event.wd == crashReportDirectoryDescriptor) {
        if (!shouldLinkToFaultkeeper()) return;
        path = linkedLogPath;
    } else {
        path = jx::rootPath(kJXCurrentLogPath);
    }
    if (path && !doesFileAtPathExist(*path)) restartLoggingForMissing(*path);
}

void JoulixMain::restartLoggingForMissing(const std::string& path) {
    // One restart per loss: the event and the look after the rebuild may both see
    // it, and a second restart would reopen and re-link a log that may be going again.
    if (restartQueued_) return;
    restartQueued_ = true;
    startLoggingToFile();
    // Queued behind the restart, so that the entry lands in the log it re-creates
    // rather than in the stream of the one that is gone.
    JXUtilities::sharedDispatchQueue().async([self = shared_from_this(), path] {
        self->restartQueued_ = false;
        JXLogWriter::sharedWriter().logEntry(
            "Log", jx::formatString(" state=LogDirectoryEvent logPath=%s exists=%s", path.c_str(), "FAIL"));
    });
}

bool JoulixMain::isFileDescripterMultiLinked(FILE* file) {
    struct stat st {};
    if (!file || ::fstat(::fileno(file), &st) != 0) return false;
    if (rotateDebugLogging_)
        JXLogWriter::sharedWriter().logDebug("Log-IsFileMultiLinked",
                                             jx::formatString(" linkCount=%d", static_cast<int>(st.st_nlink)));
    return st.st_nlink > 1;
}

void JoulixMain::logFileCheck() {
    JXUtilities::sharedDispatchQueue().async([self = shared_from_this()] {
        const std::string current = jx::rootPath(kJXCurrentLogPath);
        if (!self->logToFile() || !self->logFile || ::fileno(self->logFile) < 1 ||
            !self->fileIsUnlockedAtPath(current, "logFileCheck")) {
            jx::systemLog("logFileCheck: failed to check logFile");
            return;
        }
        if (!self->shouldLinkToFaultkeeper()) return;
        const bool multi = self->isFileDescripterMultiLinked(self->logFile);
        const bool present = self->linkedLogPath && self->doesFileAtPathExist(*self->linkedLogPath);
        if (multi && present) return;
        // A log opened while linking was off has no crash-report name: it gets one at its roll.
        if (!self->linkedLogPath) return;
        // The name is given back to the file being written, whatever stands at its own name.
        std::optional<jx::TreeEntry> at = jx::openParentOf(*self->linkedLogPath);
        if (!at || !jx::linkOpenFile(::fileno(self->logFile), at->dir.get(), at->name))
            self->fatalError("Linking log", std::string(std::strerror(errno)));
        JXLogWriter::sharedWriter().logEntry("Log", " state=MultiLinkReset;");
    });
}

void JoulixMain::logFileCheckFired(const jx::Notification&) {
    if (rotateDebugLogging_) JXLogWriter::sharedWriter().logDebug("Log-logFileCheckFired", " logFileCheckFired=fired;");
    logFileCheck();
}
