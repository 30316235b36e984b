// The line reader: the extract is read one line at a time in 2048-byte chunks, so
// that a file of up to 15 MB is never held whole. Each call seeks back to the
// first byte not yet returned: what was read past the newline is read again by
// the next call instead of being carried over.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "baseband/JXBasebandPostProcessing.h"
#include "platform/SystemLog.h"
#include "platform/TextEncoding.h"

JXRange rangeOfData(std::span<const std::uint8_t> receiver, std::span<const std::uint8_t> needle) {
    const std::size_t n = needle.size();
    // Never asked for: an empty needle is found nowhere.
    if (n == 0) return {JXNotFound, 0};
    std::size_t matched = 0;
    std::size_t start = JXNotFound;
    for (std::size_t i = 0; i < receiver.size(); ++i) {
        if (receiver[i] == needle[matched]) {
            ++matched;
            if (start == JXNotFound) start = i;
            if (matched >= n) return {start, n};
        } else {
            // Keep the single pass: the byte at i is not tried again as the start of
            // a match, so "aab" hides "ab". The reader only looks for "\n", where it is exact.
            matched = 0;
            start = JXNotFound;
        }
    }
    return {JXNotFound, n};
}

namespace {
[[noreturn]] void raise(const char* what) { throw std::system_error(errno, std::generic_category(), what); }
[[noreturn]] void raiseClosed() { throw std::system_error(EBADF, std::generic_category(), "file handle closed"); }
}  // namespace

std::uint64_t JXBasebandPostProcessing::FileHandle::seekToEndOfFile() {
    if (closed_) raiseClosed();
    off_t end = ::lseek(fd_.get(), 0, SEEK_END);
    if (end < 0) raise("seek to end");
    return static_cast<std::uint64_t>(end);
}

void JXBasebandPostProcessing::FileHandle::seekToFileOffset(std::uint64_t offset) {
    if (closed_) raiseClosed();
    if (::lseek(fd_.get(), static_cast<off_t>(offset), SEEK_SET) < 0) raise("seek");
}

std::size_t JXBasebandPostProcessing::FileHandle::readDataOfLength(std::uint8_t* buffer, std::size_t length) {
    if (closed_) raiseClosed();
    std::size_t got = 0;
    while (got < length) {
        ssize_t n = ::read(fd_.get(), buffer + got, length - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) raise("read");
        if (n == 0) break;
        got += static_cast<std::size_t>(n);
    }
    return got;
}

void JXBasebandPostProcessing::FileHandle::closeFile() {
    if (closed_) raiseClosed();
    closed_ = true;
    fd_.reset();
}

void JXBasebandPostProcessing::initWithFilePath(const std::string& path) {
    try {
        fileHandle.reset();
        jx::FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
        // Only a regular file is a log: a directory or a pipe put in its place is no file to read.
        struct stat st {};
        if (fd.valid() && (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))) fd.reset();
        if (!fd.valid()) {
            jx::systemLogf(jx::kLogError, "BBPowerTool -- initWithFilePath: File Handle Error for File >> %s",
                           path.c_str());
            return;
        }
        fileHandle.emplace(std::move(fd));
        _currentOffset = 0;
        _totalFileLength = fileHandle->seekToEndOfFile();
    } catch (...) {
        jx::systemLog(jx::kLogNotice, "BBPowerTool -- initWithFilePath: Exception");
    }
}

std::optional<std::string> JXBasebandPostProcessing::readLine() {
    if (!fileHandle) return std::nullopt;
    if (_currentOffset >= _totalFileLength) return std::nullopt;
    try {
        std::string accumulator;
        static const std::uint8_t delimiter[] = {'\n'};
        std::uint8_t chunk[kReadChunk];
        fileHandle->seekToFileOffset(_currentOffset);
        for (;;) {
            if (_currentOffset >= _totalFileLength) break;
            std::size_t got = fileHandle->readDataOfLength(chunk, kReadChunk);
            if (got == 0) {
                // The file was shortened since it was opened: end here, as at its end.
                _currentOffset = _totalFileLength;
                if (accumulator.empty()) return std::nullopt;
                break;
            }
            JXRange found = rangeOfData(std::span<const std::uint8_t>(chunk, got), delimiter);
            if (found.location != JXNotFound) got = found.location + found.length;
            accumulator.append(reinterpret_cast<const char*>(chunk), got);
            _currentOffset += got;
            if (found.location != JXNotFound) break;
        }
        // A line that is not UTF-8 has no text: the caller takes it for the end.
        if (!jx::isValidUTF8(accumulator)) return std::nullopt;
        return accumulator;
    } catch (...) {
        jx::systemLog(jx::kLogNotice, "BBPowerTool -- readLine: Exception");
        return std::nullopt;
    }
}

void JXBasebandPostProcessing::releaseFileObjects() {
    try {
        if (fileHandle) fileHandle->closeFile();
        _currentOffset = 0;
    } catch (...) {
        // Closing twice changes nothing worth saying.
    }
}
