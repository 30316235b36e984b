// Placing logs in the crash-report directory (the small file operations with
// which a log is linked, moved aside and replaced, and whether linking is
// allowed), archiving rolled logs, retention, and the crash-report property list.
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>

#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "JoulixMain/JoulixMain.h"
#include "baseband/JXBasebandPostProcessing.h"
#include "defaults/JXDefaults.h"
#include "platform/Clock.h"
#include "platform/Compression.h"
#include "platform/CrashReport.h"
#include "platform/FileTimes.h"
#include "platform/JXLogWriter.h"
#include "platform/JXUtilities.h"
#include "platform/PropertyList.h"
#include "platform/Root.h"
#include "platform/SystemLog.h"

namespace {

// Renames without replacing: a move onto an existing item fails, as it must here.
int moveNoReplace(const std::string& from, const std::string& to) {
    return ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE);
}

std::string lastPathComponent(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool runningAsRoot() { return strcasecmp(JXUtilities::runningAsUser().c_str(), "root") == 0; }

// The distance between two dates in whole seconds, truncated toward zero, as a
// 32-bit number and made absolute: a date in the future is as old as it is far.
std::int32_t absoluteAge(jx::Date date, jx::Date now) {
    double seconds = std::trunc(now.secondsSince1970 - date.secondsSince1970);
    seconds = std::fabs(seconds);
    if (seconds > static_cast<double>(INT32_MAX)) return INT32_MAX;
    return static_cast<std::int32_t>(seconds);
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

jx::SerialQueue& JoulixMain::archiveQueue() {
    // Made on first use and never destroyed: a task may still run while the process ends.
    static jx::SerialQueue* queue = new jx::SerialQueue("com.brindle.joulix.JXMain.FileArchiveHandling");
    return *queue;
}

void JoulixMain::generateLogGatheringFiles(const std::string& path) {
    const std::string current = jx::rootPath(kJXCurrentLogPath);
    // Locked since boot: the log cannot be read, so there is nothing to archive.
    if (!fileIsUnlockedAtPath(current, "Archive")) return;

    const std::string name = lastPathComponent(path);
    const std::string archiveDir = jx::rootPath(kJXArchiveDirectory);
    struct stat st {};
    if (::stat(archiveDir.c_str(), &st) == 0) {
        if (!S_ISDIR(st.st_mode)) {
            jx::systemLog("Target directory is not a directory");
            return;
        }
    } else {
        std::error_code ec;
        std::filesystem::create_directories(archiveDir, ec);
        if (ec) {
            jx::systemLogf(jx::kLogNotice, "Can't create JXArchive Directory: %s", ec.message().c_str());
            return;
        }
    }
    setFileProtectionForPath(archiveDir, "archiving");
    if (runningAsRoot()) JXUtilities::chownToMobile(archiveDir);

    // A second name for the log just closed: the roll moves the current log away
    // afterwards, and the compression reads this one at its own pace.
    const std::string linked = archiveDir + "/" + name + ".archive";
    if (::link(current.c_str(), linked.c_str()) != 0) {
        jx::systemLogf(jx::kLogNotice, "cannot create linked file for archive and pList generation : %s",
                       std::strerror(errno));
        return;
    }
    archiveQueue().async([self = shared_from_this(), linked, name, archiveDir] {
        self->archiveLogFile(linked, name, archiveDir);
        self->DeleteOldFiles();
        if (self->basebandPostProcessing() && JXDefaultsCurrentLoggingMode() != 0) self->runBasebandPostProcessing();
    });
}

void JoulixMain::runBasebandPostProcessing() {
    jx::systemLog("BBPowerTool -- Executing Now");
    {
        JXBasebandPostProcessing run;
        // The directory as the post-processor takes it: with its trailing slash.
        run.postProcessJoulixsAtPath(jx::rootPath(kJXCrashReportDirectory) + "/", basebandPostProcessingNotify());
    }
    jx::systemLog("BBPowerTool -- Execution Complete");
}

bool JoulixMain::archiveLogFile(const std::string& path, const std::string& toFile, const std::string& atDir) {
    std::unique_ptr<FILE, int (*)(FILE*)> in(std::fopen(path.c_str(), "r"), std::fclose);
    if (!in) return false;
    const std::string archive = atDir + "/" + toFile + ".gz";
    std::unique_ptr<FILE, int (*)(FILE*)> out(std::fopen(archive.c_str(), "w"), std::fclose);
    if (!out) {
        jx::systemLog("cannot create archive file");
        return false;
    }
    // A failed archive stays where it is; the retention pass removes it in time.
    if (jx::deflateFileToGzip(in.get(), out.get(), 9) != 0) {
        jx::systemLog("archive failed");
        return false;
    }
    if (std::fclose(out.release()) != 0) {
        jx::systemLog("archive failed");
        return false;
    }
    if (runningAsRoot()) JXUtilities::chownToMobile(archive);
    return true;
}

void JoulixMain::DeleteOldFiles() {
    std::int32_t maxAge = ComputeTimeFromNowFromDefaults(JXDefaultsValueForKey(JXJoulixArchiveDays));
    if (maxAge < 0) maxAge = 1209600;
    const jx::Date now = jx::Clock::current().now();

    const std::string archiveDir = jx::rootPath(kJXArchiveDirectory);
    std::vector<std::string> doomed;
    std::error_code ec;
    for (std::filesystem::recursive_directory_iterator it(archiveDir, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string relative = it->path().lexically_relative(archiveDir).string();
        const std::string file = archiveDir + "/" + relative;
        std::error_code typeError;
        if (std::filesystem::is_directory(file, typeError)) continue;
        // A file whose creation date cannot be read is as young as can be.
        std::optional<jx::Date> created = jx::fileCreationDate(file);
        const std::int32_t age = created ? absoluteAge(*created, now) : 0;
        if (age > maxAge || it->path().extension() == ".archive") doomed.push_back(file);
    }
    for (const std::string& file : doomed) deleteFileAtPath(file);

    jx::Value listed = JXDefaultsValueForKey(JXFullModeBlackList);
    const jx::Array* days = listed.asArray();
    if (!days) return;
    jx::Array kept = *days;
    std::vector<jx::Value> collected;
    for (const jx::Value& day : *days) {
        const std::string* text = day.asString();
        if (!text) continue;
        std::optional<jx::Date> date;
        {
            std::lock_guard lock(logTimestampFormatter().monitor());
            date = logTimestampFormatter().dateFromString(*text + "-000000");
        }
        // An entry that is not a date is never pruned.
        if (date && absoluteAge(*date, now) > maxAge) collected.push_back(day);
    }
    for (const jx::Value& day : collected) std::erase(kept, day);
    JXDefaultsSetValueForKey(JXFullModeBlackList, jx::Value(kept));
}

void JoulixMain::generatePListForLog(const std::string& path, const std::string& InFaultkeeper) {
    if (JXDefaultsCurrentLoggingMode() != 0 || !shouldLinkToFaultkeeper()) return;
    jx::Dictionary report;
    report[kFKProblemReportAppNameKey] = jx::Value("Joulix Lite");
    report[kFKProblemReportSystemIDKey] = jx::Value(GetSysIDWithDescription(nullptr));
    report[kFKProblemReportProblemTypeKey] = jx::Value(178);
    if (JXDefaultsValueForKey(JXFaultkeeperPlistWithContent).boolValue()) {
        std::ifstream in(path, std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        report[kFKProblemReportDescriptionKey] = jx::Value(text.str());
    } else {
        report["remote_description"] = jx::Value(InFaultkeeper);
    }
    std::string plist = InFaultkeeper;
    const std::size_t slash = plist.find_last_of('/');
    const std::size_t dot = plist.find_last_of('.');
    if (dot != std::string::npos && (slash == std::string::npos || dot > slash + 1)) plist.erase(dot);
    plist += ".plist";
    if (!jx::writePropertyListFileAtomically(plist, jx::Value(report))) return;
    if (runningAsRoot()) JXUtilities::chownToMobile(plist);
}
