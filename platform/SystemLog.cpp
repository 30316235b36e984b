#include "platform/SystemLog.h"

#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

namespace jx {
namespace {
std::atomic<LogSink*> gSink{nullptr};
std::atomic<int> gStderr{-1};  // -1: not decided yet, read JOULIX_LOG_STDERR
std::once_flag gOpenOnce;

const char* levelName(int level) {
    switch (level) {
        case kLogError: return "Error";
        case kLogWarning: return "Warning";
        case kLogNotice: return "Notice";
        case kLogInfo: return "Info";
        default: return "Debug";
    }
}

std::string vformat(const char* format, va_list ap) {
    va_list copy;
    va_copy(copy, ap);
    char small[512];
    int n = std::vsnprintf(small, sizeof small, format, copy);
    va_end(copy);
    if (n < 0) return {};
    if (static_cast<size_t>(n) < sizeof small) return std::string(small, static_cast<size_t>(n));
    std::vector<char> big(static_cast<size_t>(n) + 1);
    std::vsnprintf(big.data(), big.size(), format, ap);
    return std::string(big.data(), static_cast<size_t>(n));
}
}  // namespace

bool logToStderr() {
    int v = gStderr.load();
    if (v < 0) {
        const char* env = std::getenv("JOULIX_LOG_STDERR");
        v = env && std::strcmp(env, "1") == 0 ? 1 : 0;
        gStderr.store(v);
    }
    return v == 1;
}

void setLogToStderr(bool on) { gStderr.store(on ? 1 : 0); }
void setLogSink(LogSink* sink) { gSink.store(sink); }

void systemLog(int level, std::string_view text) {
    std::call_once(gOpenOnce, [] { openlog("joulix", LOG_PID, LOG_DAEMON); });
    ::syslog(level, "%.*s", static_cast<int>(text.size()), text.data());
    if (logToStderr()) {
        std::string line = "joulix[" + std::to_string(::getpid()) + "] <" + levelName(level) + ">: ";
        line.append(text);
        line += '\n';
        // One write per message keeps lines from different threads whole.
        ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
        (void)ignored;
    }
    if (LogSink* sink = gSink.load()) sink->message(level, text);
}

void systemLogf(int level, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    std::string s = vformat(format, ap);
    va_end(ap);
    systemLog(level, s);
}

std::string formatString(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    std::string s = vformat(format, ap);
    va_end(ap);
    return s;
}

}  // namespace jx
