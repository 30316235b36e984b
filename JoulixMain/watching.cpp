// File protection, the lock-state gate, directory watching and the log-file check.
#include "JoulixMain/JoulixMain.h"
#include "platform/JXLogWriter.h"
#include "platform/FileProtection.h"
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

// The directory watch and the log-file check arrive with the watching work.
void JoulixMain::watchCrashReportDirectories(bool) {}
void JoulixMain::logFileCheck() {}

void JoulixMain::logFileCheckFired(const jx::Notification&) {
    if (rotateDebugLogging_) JXLogWriter::sharedWriter().logDebug("Log-logFileCheckFired", " logFileCheckFired=fired;");
    logFileCheck();
}
