// JXUtilities: the logger-support library's shared services: identity of the
// process and the system, the shared queues, and the run-loop and registry links.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "platform/RunLoop.h"
#include "platform/SerialQueue.h"
#include "platform/Value.h"

class JXEntry;
class JXLogger;
class JXLoggerClass;

class JXUtilities {
public:
    // The name of the user the process runs as.
    static std::string runningAsUser();
    // The process's name (its command name).
    static std::string processName();
    // A fresh random UUID, "E621E1F8-C36C-495A-93FC-0C247A3E6E5F" style.
    static std::string UUIDString();
    // The operating system build: os-release's version and the kernel release,
    // "12 (6.1.0-27-amd64)". It never contains ";".
    static std::string buildVersion();
    // The device's name (its host name).
    static std::string deviceName();
    // Hands a file to the account "mobile"; without such an account the file keeps
    // its owner and the system log says so once. The result of chown is not used.
    static void chownToMobile(const std::string& path);
    // Whether this is an internal build: os-release's VARIANT_ID is "internal".
    static bool internalBuild();

    // The shared serial work queue, on which log-file work runs.
    static jx::SerialQueue& sharedDispatchQueue();
    // The serial queue that guards the logger registry.
    static jx::SerialQueue& loggerListDispatchQueue();
    // The main queue, on which the rollover timer fires.
    static jx::SerialQueue& mainQueue();
    // The serial queue of a logger class: the logger is made on it and logs on it.
    // One per logger name, for the life of the process.
    static jx::SerialQueue& getQueueForLogger(const JXLoggerClass& loggerClass);
    static jx::SerialQueue& getQueueForLoggerNamed(const std::string& name);

    // The run thread's run loop and thread, recorded for everybody.
    static void setSharedJXRunLoop(std::shared_ptr<jx::RunLoop> loop);
    static std::shared_ptr<jx::RunLoop> sharedJXRunLoop();
    static std::shared_ptr<jx::RunLoop> sharedJXCFRunLoop() { return sharedJXRunLoop(); }
    static void setSharedJXThread(std::thread::id thread);
    static std::thread::id sharedJXThread();
    // The library's initial time snapshot: wall clock and monotonic clock together.
    static void sharedTimeSnapshotInit();
    struct TimeSnapshot {
        jx::Date wallClock;
        double monotonicSeconds = 0;
    };
    static TimeSnapshot sharedTimeSnapshot();

    // The logger registry (nullptr unlinks it) and lookups in it.
    static void linkLoggerList(std::shared_ptr<JXEntry> list);
    static std::shared_ptr<JXLogger> getLoggerForName(const std::string& name);
    // Nothing to close on Linux: no telephony connection is held.
    static void closeSharedTelephonyConnection() {}

    // Posts an in-process notification.
    static void postNotificationName(const std::string& name, const void* object, const jx::Value& userInfo = {});

    // Runs a command line with /bin/sh -c and returns once it has finished: its exit
    // status, 128 + the signal that ended it, or -1 when no shell could be started.
    // Defined with the other shell helpers in platform/Task.cpp.
    static int openTask(const std::string& command);
    // The same with the task's standard output on an open descriptor of the caller's.
    static int openTask(const std::string& command, int standardOutput);

    // The account name of a user id (its number when it has none).
    static std::string lookUpUserName(uid_t uid);

    // Tests name the process as they need; nullopt returns to the real name.
    static void setProcessNameForTesting(std::optional<std::string> name);
};
