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
#include "platform/SafeFiles.h"
#include "platform/SystemLog.h"

namespace {

// Renames without replacing: a move onto an existing item fails, as it must here.
// Both names are taken in directories reached through no link.
int moveNoReplace(const std::string& from, const std::string& to) {
    std::optional<jx::TreeEntry> a = jx::openParentOf(from), b = a ? jx::openParentOf(to) : std::nullopt;
    if (!a || !b) return -1;
    return ::renameat2(a->dir.get(), a->name.c_str(), b->dir.get(), b->name.c_str(), RENAME_NOREPLACE);
}

// The item itself, never what a link at its name points to.
bool lstatInTree(const std::string& path, struct stat* st) {
    std::optional<jx::TreeEntry> at = jx::openParentOf(path);
    return at && ::fstatat(at->dir.get(), at->name.c_str(), st, AT_SYMLINK_NOFOLLOW) == 0;
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
    if (!lstatInTree(path, &a) || !lstatInTree(asAtPath, &b)) return false;
    // Only the inode numbers: both names live in one tree of the same volume.
    return a.st_ino == b.st_ino;
}

bool JoulixMain::doesFileAtPathExist(const std::string& path) {
    struct stat st {};
    return lstatInTree(path, &st);
}

bool JoulixMain::deleteFileAtPath(const std::string& path) {
    if (!doesFileAtPathExist(path)) return false;
    if (!jx::removePath(path)) fatalError("joulix.DeleteFile", std::string(std::strerror(errno)));
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
        if (!jx::removePath(path)) fatalError("removing file", std::string(std::strerror(errno)));
        return true;
    }
    if (moveNoReplace(path, *free) != 0) fatalError("renaming file", std::string(std::strerror(errno)));
    struct stat st {};
    if (lstatInTree(*free, &st) && !S_ISREG(st.st_mode))
        jx::systemLogf(jx::kLogNotice, "%s: %s stood at the name: moved aside to %s", path.c_str(),
                       jx::nonRegularKind(st.st_mode).c_str(), free->c_str());
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
    jx::FileDescriptor archive = jx::openTreeDirectory(archiveDir);
    if (!archive.valid() && errno == ENOENT) archive = jx::openTreeDirectory(archiveDir, true);
    if (!archive.valid()) {
        if (errno == ENOTDIR || errno == ELOOP) jx::systemLog("Target directory is not a directory");
        else jx::systemLogf(jx::kLogNotice, "Can't create JXArchive Directory: %s", std::strerror(errno));
        return;
    }
    setFileProtectionForPath(archiveDir, "archiving");
    if (runningAsRoot()) jx::handToMobile(archive.get());

    // A second name for the log just closed: the roll moves the current log away
    // afterwards, and the compression reads this one at its own pace. The name is
    // given to the very file checked to be a regular log, and must be new.
    const std::string linked = archiveDir + "/" + name + ".archive";
    std::string why;
    jx::FileDescriptor log = jx::openRegularFile(current, O_RDONLY, 0, &why);
    if (!log.valid()) {
        jx::systemLogf(jx::kLogNotice, "cannot create linked file for archive and pList generation : %s: %s",
                       current.c_str(), why.c_str());
        return;
    }
    if (!jx::linkOpenFile(log.get(), archive.get(), name + ".archive")) {
        jx::systemLogf(jx::kLogNotice, "cannot create linked file for archive and pList generation : %s",
                       std::strerror(errno));
        return;
    }
    archiveQueue().async([self = shared_from_this(), linked, name, archiveDir] {
        // A failed compression is not tried again at once (a full disk would fail it
        // twice): its link is kept, and the next pass compresses it again.
        if (!self->archiveLogFile(linked, name, archiveDir)) self->linksKept_.insert(name);
        self->repairArchives(name);
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
    std::string why;
    jx::FileDescriptor inFd = jx::openRegularFile(path, O_RDONLY, 0, &why);
    if (!inFd.valid()) {
        if (errno != ENOENT) jx::systemLogf(jx::kLogNotice, "%s: %s: not archived", path.c_str(), why.c_str());
        return false;
    }
    jx::FileDescriptor dir = jx::openTreeDirectory(atDir);
    // The archive is written under a name of its own, made exclusively, and takes its
    // real name only once complete: whatever stood at that name (a link planted
    // there included) is replaced, never written through.
    const std::string archive = toFile + ".gz", partial = toFile + ".gz.partial";
    jx::FileDescriptor outFd;
    if (dir.valid() && jx::removeAt(dir.get(), partial))
        outFd = jx::openRegularFileAt(dir.get(), partial, O_WRONLY | O_CREAT | O_EXCL, 0644, &why);
    std::unique_ptr<FILE, int (*)(FILE*)> in(inFd.valid() ? ::fdopen(inFd.get(), "r") : nullptr, std::fclose);
    std::unique_ptr<FILE, int (*)(FILE*)> out(outFd.valid() ? ::fdopen(outFd.get(), "w") : nullptr, std::fclose);
    if (in) inFd.release();
    if (out) outFd.release();
    if (!in || !out) {
        jx::systemLog("cannot create archive file");
        if (dir.valid()) jx::removeAt(dir.get(), partial);
        return false;
    }
    bool ok = jx::deflateFileToGzip(in.get(), out.get(), 9) == 0 && std::fflush(out.get()) == 0 &&
              ::fsync(fileno(out.get())) == 0;
    if (ok && runningAsRoot()) jx::handToMobile(fileno(out.get()));
    ok = std::fclose(out.release()) == 0 && ok;
    struct stat st {};
    if (ok && ::fstatat(dir.get(), archive.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISREG(st.st_mode))
        jx::systemLogf(jx::kLogNotice, "%s/%s: %s stood at the archive's name: replaced", atDir.c_str(), archive.c_str(),
                       jx::nonRegularKind(st.st_mode).c_str());
    if (!ok || ::renameat(dir.get(), partial.c_str(), dir.get(), archive.c_str()) != 0) {
        jx::systemLog("archive failed");
        jx::removeAt(dir.get(), partial);
        return false;
    }
    return true;
}

void JoulixMain::repairArchives(const std::string& justArchived) {
    const std::string archiveDir = jx::rootPath(kJXArchiveDirectory);
    jx::FileDescriptor dir = jx::openTreeDirectory(archiveDir);
    if (!dir.valid()) return;
    std::vector<std::string> partial, linked;
    jx::forEachFileBelow(dir.get(), [&](int, const std::string& name, const std::string& relative) {
        if (relative != name) return;  // the daemon writes only at the top
        if (name.ends_with(".gz.partial")) partial.push_back(name);
        else if (name.ends_with(".archive")) linked.push_back(name.substr(0, name.size() - 8));
    });
    for (const std::string& name : partial) {
        jx::systemLogf(jx::kLogNotice, "%s/%s: an archive left unfinished: removed", archiveDir.c_str(), name.c_str());
        ::unlinkat(dir.get(), name.c_str(), 0);
    }
    for (const std::string& name : linked) {
        if (name == justArchived) continue;
        std::string why;
        jx::FileDescriptor gz = jx::openRegularFileAt(dir.get(), name + ".gz", O_RDONLY, 0, &why);
        bool whole = gz.valid() && jx::gzipFileChecks(gz.get());
        if (!whole) {
            jx::systemLogf(jx::kLogNotice, "%s/%s.gz: %s: compressing the log again", archiveDir.c_str(), name.c_str(),
                           gz.valid() ? "broken" : "missing");
            whole = archiveLogFile(archiveDir + "/" + name + ".archive", name, archiveDir);
        }
        // Until a compression succeeds, the link is the log's only copy here: it stays.
        if (whole) {
            linksKept_.erase(name);
            ::unlinkat(dir.get(), (name + ".archive").c_str(), 0);
        } else {
            linksKept_.insert(name);
        }
    }
}

void JoulixMain::DeleteOldFiles() {
    std::int32_t maxAge = ComputeTimeFromNowFromDefaults(JXDefaultsValueForKey(JXJoulixArchiveDays));
    if (maxAge < 0) maxAge = 1209600;
    const jx::Date now = jx::Clock::current().now();

    // Walked through descriptors without following a link: deletion stays inside.
    const std::string archiveDir = jx::rootPath(kJXArchiveDirectory);
    jx::FileDescriptor dir = jx::openTreeDirectory(archiveDir);
    if (dir.valid()) {
        jx::forEachFileBelow(dir.get(), [&](int parent, const std::string& name, const std::string&) {
            // A file whose creation date cannot be read is as young as can be.
            std::optional<jx::Date> created = jx::fileCreationDateAt(parent, name);
            const std::int32_t age = created ? absoluteAge(*created, now) : 0;
            const bool link = name.ends_with(".archive") && !linksKept_.count(name.substr(0, name.size() - 8));
            if ((age > maxAge || link) && ::unlinkat(parent, name.c_str(), 0) != 0 && errno != ENOENT)
                fatalError("joulix.DeleteFile", std::string(std::strerror(errno)));
        });
    }

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
        std::string text, why;
        jx::FileDescriptor in = jx::openRegularFile(path, O_RDONLY, 0, &why);
        if (!in.valid()) jx::systemLogf(jx::kLogNotice, "%s: %s: not read into the report", path.c_str(), why.c_str());
        char buffer[65536];
        for (ssize_t n; in.valid() && (n = ::read(in.get(), buffer, sizeof buffer)) > 0;)
            text.append(buffer, static_cast<std::size_t>(n));
        report[kFKProblemReportDescriptionKey] = jx::Value(text);
    } else {
        report["remote_description"] = jx::Value(InFaultkeeper);
    }
    std::string plist = InFaultkeeper;
    const std::size_t slash = plist.find_last_of('/');
    const std::size_t dot = plist.find_last_of('.');
    if (dot != std::string::npos && (slash == std::string::npos || dot > slash + 1)) plist.erase(dot);
    plist += ".plist";
    // Handed to "mobile" before it takes its name: a chown by name afterwards could
    // be sent through a link put in its place.
    jx::writePropertyListFileAtomically(plist, jx::Value(report), runningAsRoot());
}
