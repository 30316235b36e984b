// The log file: its rolled name, the header of a new log, reading the header
// back, opening, linking and closing.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "JoulixMain/JoulixMain.h"
#include "defaults/JXDefaults.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLogger.h"
#include "platform/JXUtilities.h"
#include "platform/Root.h"
#include "platform/SafeFiles.h"
#include "platform/SystemLog.h"

namespace {

// The header format version.
constexpr double kHeaderVersion = 6.01;
// The header is read back from this many bytes at the head of the file.
constexpr std::size_t kPrefixLength = 512;

// The bytes as UTF-8 text; nullopt when they are not UTF-8. A sequence cut off by
// the end of the bytes is an artefact of reading a fixed-size prefix, and is left out.
std::optional<std::string> decodeUTF8Prefix(const std::string& bytes) {
    std::size_t i = 0, n = bytes.size();
    while (i < n) {
        auto c = static_cast<unsigned char>(bytes[i]);
        std::size_t len = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
        if (len == 0 || (len == 2 && c < 0xC2) || (len == 4 && c > 0xF4)) return std::nullopt;
        if (i + len > n) {
            for (std::size_t k = i + 1; k < n; ++k)
                if ((static_cast<unsigned char>(bytes[k]) & 0xC0) != 0x80) return std::nullopt;
            return bytes.substr(0, i);
        }
        for (std::size_t k = 1; k < len; ++k)
            if ((static_cast<unsigned char>(bytes[i + k]) & 0xC0) != 0x80) return std::nullopt;
        if (len == 3) {
            auto c1 = static_cast<unsigned char>(bytes[i + 1]);
            if ((c == 0xE0 && c1 < 0xA0) || (c == 0xED && c1 >= 0xA0)) return std::nullopt;
        } else if (len == 4) {
            auto c1 = static_cast<unsigned char>(bytes[i + 1]);
            if ((c == 0xF0 && c1 < 0x90) || (c == 0xF4 && c1 >= 0x90)) return std::nullopt;
        }
        i += len;
    }
    return bytes;
}

JXValue stringOrNil(const std::optional<std::string>& s) {
    return s ? JXValue::valueWithString(*s) : JXValue::valueWithGeneric(jx::Value(), "", JXValue::kString);
}

}  // namespace

std::string JoulixMain::logFileNameForTimestamp(jx::Date date) {
    std::string timestamp;
    {
        std::lock_guard lock(logTimestampFormatter_->monitor());
        timestamp = logTimestampFormatter_->stringFromDate(date);
    }
    std::string guidPart = fileGUID().value_or("(null)");
    if (JXDefaultsValueExistsForKey(JXDeviceNameInFileName) && JXDefaultsValueForKey(JXDeviceNameInFileName).boolValue())
        guidPart = JXUtilities::deviceName() + "_" + guidPart;
    return "JX_" + timestamp + "_" + guidPart + ".joulix";
}

void JoulixMain::createNewCurrentLogWithTimestamp(jx::Date timestamp) {
    const std::string path = jx::rootPath(kJXCurrentLogPath);
    if (!fileIsUnlockedAtPath(path, "file open")) return;

    std::optional<std::string> oldGUID = fileGUID();
    setFileGUID(JXUtilities::UUIDString());
    if (rotateDebugLogging_) {
        JXEntry debug("Log-CreateNewCurrentLog");
        debug.setObject(stringOrNil(oldGUID), "oldFileGUID");
        debug.setObject(stringOrNil(fileGUID()), "newFileGUID");
        JXLogWriter::sharedWriter().logDebug(debug);
    }

    std::string timestampText;
    {
        std::lock_guard lock(logTimestampFormatter_->monitor());
        timestampText = logTimestampFormatter_->stringFromDate(timestamp);
    }
    JXEntry header("Joulix");
    header.setObject(JXValue::valueWithDouble(kHeaderVersion, "", JXValue::kDouble), "Version");
    header.setObject(JXValue::valueWithString(JXUtilities::buildVersion(), "", JXValue::kString), "Build");
    header.setObject(JXValue::valueWithString(timestampText, "", JXValue::kString), "Timestamp");
    header.setObject(stringOrNil(fileGUID()), "File_GUID");
    header.setObject(JXValue::valueWithString(rotateJoulixDefaultStringValue(), "", JXValue::kString), "rotateJoulixKey");
    header.setObject(JXValue::valueWithString(currentLoggingModeString(), "", JXValue::kString), "loggingMode");
    header.setObject(JXValue::valueWithString(JXUtilities::processName(), "", JXValue::kString), "binary");
    header.setObject(JXValue::valueWithLong(getpid(), "", JXValue::kLong), "pid");
    JXLogWriter::sharedWriter().logAsFirstEntry(header);

    // Whatever stands at the name goes first, and the new log is made exclusively
    // without following a link: a link planted there must never be written through.
    // One that comes back between the two steps is removed once more.
    std::string why;
    jx::FileDescriptor fd;
    for (int attempt = 0; attempt < 3 && !fd.valid(); ++attempt) {
        deleteFileAtPath(path);
        std::optional<jx::TreeEntry> at = jx::openParentOf(path);
        if (!at) {
            why = std::strerror(errno);
            break;
        }
        fd = jx::openRegularFileAt(at->dir.get(), at->name, O_WRONLY | O_CREAT | O_EXCL, 0644, &why);
        if (!fd.valid() && errno != EEXIST) break;
    }
    if (!fd.valid()) {
        jx::systemLogf(jx::kLogError, "Unable to create %s: %s", path.c_str(), why.c_str());
        exitAtOnce(1);
    }
    setFileProtectionForPath(path, "creating log");
    jx::handToMobile(fd.get());
}

bool JoulixMain::readLogFilePrefix(const std::string& path, std::string* buildVersion, jx::Date* logDate) {
    bool result = false;
    std::optional<std::string> prefix, build;
    std::optional<jx::Date> parsed;
    try {
        std::string why;
        jx::FileDescriptor fd = path.empty() ? jx::FileDescriptor() : jx::openRegularFile(path, O_RDONLY, 0, &why);
        if (!fd.valid() && errno != ENOENT && !path.empty())
            jx::systemLogf(jx::kLogNotice, "%s: %s: not read as a log", path.c_str(), why.c_str());
        if (fd.valid()) {
            std::string bytes(kPrefixLength, '\0');
            ssize_t n = ::pread(fd.get(), bytes.data(), kPrefixLength, 0);
            bytes.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
            prefix = decodeUTF8Prefix(bytes);

            build = remainingStringFrom(prefix, "Build=", ";");
            std::optional<std::string> timestamp = build ? remainingStringFrom(prefix, "Timestamp=", ";") : std::nullopt;
            if (timestamp) {
                std::lock_guard lock(logTimestampFormatter_->monitor());
                parsed = logTimestampFormatter_->dateFromString(*timestamp);
            }
            if (parsed) {
                if (auto guid = remainingStringFrom(prefix, "File_GUID=", ";")) {
                    setFileGUID(*guid);
                    result = true;
                }
            }
        }
        if (result) {
            if (buildVersion) *buildVersion = *build;
            if (logDate) *logDate = *parsed;
        }
    } catch (const std::exception& e) {
        jx::systemLogf(jx::kLogError, "joulix.ReadLogFilePrefix:%s failed: %s", path.c_str(), e.what());
        result = false;
    }
    if (rotateDebugLogging_) {
        JXEntry debug("Log-readLogFilePrefix");
        debug.setObject(JXValue::valueWithString(path), "filePath");
        debug.setObject(stringOrNil(build), "build");
        debug.setObject(parsed ? JXValue::valueWithDate(*parsed) : JXValue::valueWithGeneric(jx::Value(), "", JXValue::kDate),
                        "parsedDate");
        debug.setObject(stringOrNil(prefix), "prefix");
        JXLogWriter::sharedWriter().logDebug(debug);
    }
    return result;
}

void JoulixMain::startLoggingToCurrentLog(jx::Date date) {
    const std::string path = jx::rootPath(kJXCurrentLogPath);
    if (!logToFile()) {
        logFile = stdout;
    } else {
        if (!fileIsUnlockedAtPath(path, "file open")) return;
        if (rotateDebugLogging_) jx::systemLog("starting to log to file");
        // Read and write: the torn-line check reads the last byte through the same
        // descriptor. Never through a link, never a FIFO or a device.
        std::string why;
        jx::FileDescriptor fd = jx::openRegularFile(path, O_RDWR | O_APPEND | O_CREAT, 0644, &why);
        if (fd.valid()) logFile = ::fdopen(fd.get(), "a");
        if (!logFile)
            fatalError(jx::formatString("Could not open log file for writing '%s': %s", path.c_str(),
                                        fd.valid() ? std::strerror(errno) : why.c_str()),
                       std::nullopt);
        fd.release();
        int descriptor = fileno(logFile);
        if (descriptor <= 0) fatalError(jx::formatString("fileno returned %d", descriptor), std::nullopt);
        endTornLine(descriptor, path);
        setFileProtectionForPath(path, "file opened");
        if (shouldLinkToFaultkeeper()) {
            linkedLogPath = jx::rootPath(kJXCrashReportDirectory) + "/" + logFileNameForTimestamp(date);
            if (!isSameHardLinkedFileAtPath(path, *linkedLogPath)) {
                moveFileAtPath(*linkedLogPath);
                // The file just opened gets the second name, whatever its first name is by now.
                std::optional<jx::TreeEntry> at = jx::openParentOf(*linkedLogPath);
                if (!at || !jx::linkOpenFile(descriptor, at->dir.get(), at->name))
                    fatalError("Linking log", std::string(std::strerror(errno)));
            }
        }
    }
    JXLogWriter::sharedWriter().setLogFile(logFile);
    JXLogWriter::sharedWriter().setLogFileEnabled(true);
    {
        std::lock_guard lock(fileGUIDMutex_);
        logStarted_ = date;
    }

    // Every logger writes its full state into the new file, marked as belonging to a new log.
    std::shared_ptr<JXEntry> list = _loggerList;
    JXUtilities::loggerListDispatchQueue().async([list] {
        if (!list) return;
        for (const JXValue& v : list->allValues()) {
            auto logger = std::dynamic_pointer_cast<JXLogger>(v.object());
            if (!logger) continue;
            logger->loggerSerialQueue().async([logger] {
                logger->setIsNewLog(true);
                logger->log();
                logger->setIsNewLog(false);
            });
        }
    });
}

void JoulixMain::endTornLine(int fd, const std::string& path) {
    // A process killed between two writes of one batch leaves half a line at the end;
    // the next entry must not be glued onto it. One byte is read, whatever the size.
    struct stat st {};
    char last = '\n';
    if (::fstat(fd, &st) != 0 || st.st_size == 0) return;
    if (::pread(fd, &last, 1, st.st_size - 1) != 1 || last == '\n') return;
    jx::systemLogf(jx::kLogNotice, "%s ended in an unfinished line: ending it before logging on", path.c_str());
    std::fputc('\n', logFile);
    std::fflush(logFile);
}

void JoulixMain::stopLoggingAndCloseFile() {
    JXLogWriter::sharedWriter().setLogFileEnabled(false);
    JXLogWriter::sharedWriter().setLogFile(nullptr);
    setRolloverTimer(std::nullopt);
    if (logFile && logFile != stdout) std::fclose(logFile);
    logFile = nullptr;
}
