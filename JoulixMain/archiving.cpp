// Placing logs in the crash-report directory: the small file operations with
// which a log is linked, moved aside and replaced, and whether linking is allowed.
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "JoulixMain/JoulixMain.h"
#include "defaults/JXDefaults.h"
#include "platform/JXLogWriter.h"
#include "platform/JXUtilities.h"
#include "platform/Root.h"
#include "platform/SystemLog.h"

namespace {

// Renames without replacing: a move onto an existing item fails, as it must here.
int moveNoReplace(const std::string& from, const std::string& to) {
    return ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE);
}

}  // namespace

bool JoulixMain::isSameHardLinkedFileAtPath(const std::string& path, const std::string& asAtPath) {
    if (path.empty() || asAtPath.empty()) return false;
    struct stat a {}, b {};
    if (::stat(path.c_str(), &a) != 0 || ::stat(asAtPath.c_str(), &b) != 0) return false;
    // Only the inode numbers: both names live in one tree of the same volume.
    return a.st_ino == b.st_ino;
}

bool JoulixMain::doesFileAtPathExist(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

bool JoulixMain::deleteFileAtPath(const std::string& path) {
    if (!doesFileAtPathExist(path)) return false;
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
    if (ec) fatalError("joulix.DeleteFile", ec.message());
    return true;
}

bool JoulixMain::moveFileFromPath(const std::string& path, const std::string& toPath) {
    // The current log is tested, not the source: the only caller moves the current log.
    if (!doesFileAtPathExist(jx::rootPath(kJXCurrentLogPath))) return false;
    if (moveNoReplace(path, toPath) != 0) fatalError("joulix.MoveFile", std::string(std::strerror(errno)));
    return true;
}

bool JoulixMain::moveFileAtPath(const std::string& path) {
    if (!doesFileAtPathExist(path)) return false;
    std::optional<std::string> free;
    for (unsigned long k = 1; k <= 10 && !free; ++k) {
        std::string candidate = path + "-" + std::to_string(k);
        if (!doesFileAtPathExist(candidate)) free = candidate;
    }
    if (!free) {
        jx::systemLogf(jx::kLogNotice, "Had to delete %s, too many copies to rename.", path.c_str());
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
        if (ec) fatalError("removing file", ec.message());
        return true;
    }
    if (moveNoReplace(path, *free) != 0) fatalError("renaming file", std::string(std::strerror(errno)));
    return true;
}

bool JoulixMain::shouldLinkToFaultkeeper() {
    const bool haveSetting = JXDefaultsValueExistsForKey(JXLinkFaultkeeper);
    const bool settingValue = haveSetting && JXDefaultsValueForKey(JXLinkFaultkeeper).boolValue();
    const bool internal = JXUtilities::internalBuild();
    const std::int16_t mode = JXDefaultsCurrentLoggingMode();
    bool linking = false;
    std::optional<std::string> reason;
    if (haveSetting) {
        linking = settingValue;
        reason = "JXLinkFaultkeeper";
    } else if (internal) {
        linking = true;
        reason = "internalBuild";
    } else if (mode != 0) {
        linking = true;
        reason = "CurrentLoggingMode";
    }
    if (rotateDebugLogging_) {
        JXEntry debug("Rotate Debug - shouldLinkToFaultkeeper");
        debug.setObject(JXValue::valueWithBool(settingValue, "", JXValue::kBool), "JXLinkFaultkeeper");
        debug.setObject(JXValue::valueWithBool(internal, "", JXValue::kBool), "internalBuild");
        debug.setObject(JXValue::valueWithString(currentLoggingModeString(), "", JXValue::kString), "CurrentLoggingMode");
        if (reason) debug.setObject(JXValue::valueWithString(*reason, "", JXValue::kString), "reason");
        debug.setObject(JXValue::valueWithBool(linking, "", JXValue::kBool), "linking");
        JXLogWriter::sharedWriter().logDebug(debug);
    }
    return linking;
}

// Archiving, retention and the post-processor arrive with the archiving work;
// the roll already hands the rolled path here.
void JoulixMain::generateLogGatheringFiles(const std::string&) {}
