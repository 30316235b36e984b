// The log file: its rolled name, the header of a new log, reading the header
// back, opening, linking and closing.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "JoulixMain/JoulixMain.h"
#include "defaults/JXDefaults.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLogger.h"
#include "platform/JXUtilities.h"
#include "platform/Root.h"
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

    deleteFileAtPath(path);
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        jx::systemLogf(jx::kLogError, "Unable to create %s: %s", path.c_str(), std::strerror(errno));
        exitAtOnce(1);
    }
    ::close(fd);
    setFileProtectionForPath(path, "creating log");
    JXUtilities::chownToMobile(path);
}

bool JoulixMain::readLogFilePrefix(const std::string& path, std::string* buildVersion, jx::Date* logDate) {
    bool result = false;
    std::optional<std::string> prefix, build;
    std::optional<jx::Date> parsed;
    try {
        if (!path.empty() && doesFileAtPathExist(path)) {
            std::ifstream in(path, std::ios::binary);
            std::string bytes(kPrefixLength, '\0');
            in.read(bytes.data(), static_cast<std::streamsize>(kPrefixLength));
            bytes.resize(static_cast<std::size_t>(in.gcount()));
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
        logFile = std::fopen(path.c_str(), "a");
        if (!logFile)
            fatalError(jx::formatString("Could not open log file for writing '%s': %s", path.c_str(), std::strerror(errno)),
                       std::nullopt);
        int fd = fileno(logFile);
        if (fd <= 0) fatalError(jx::formatString("fileno returned %d", fd), std::nullopt);
        endTornLine(fd, path);
        setFileProtectionForPath(path, "file opened");
        if (shouldLinkToFaultkeeper()) {
            linkedLogPath = jx::rootPath(kJXCrashReportDirectory) + "/" + logFileNameForTimestamp(date);
            if (!isSameHardLinkedFileAtPath(path, *linkedLogPath)) {
                moveFileAtPath(*linkedLogPath);
                if (::link(path.c_str(), linkedLogPath->c_str()) != 0) fatalError("Linking log", std::string(std::strerror(errno)));
            }
        }
    }
    JXLogWriter::sharedWriter().setLogFile(logFile);
    JXLogWriter::sharedWriter().setLogFileEnabled(true);

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
    // The stream is open for appending only: the byte is read through a descriptor of its own.
    jx::FileDescriptor reader(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!reader.valid() || ::pread(reader.get(), &last, 1, st.st_size - 1) != 1 || last == '\n') return;
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
