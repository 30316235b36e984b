// The system log: syslog(3) with ident "joulix", facility daemon; optionally every
// message also goes to standard error as one line ending with the exact text.
#pragma once

#include <string>
#include <string_view>

namespace jx {

enum LogLevel { kLogError = 3, kLogWarning = 4, kLogNotice = 5, kLogInfo = 6, kLogDebug = 7 };

// Tests capture messages through a sink instead of (or besides) syslog.
class LogSink {
public:
    virtual ~LogSink() = default;
    virtual void message(int level, std::string_view text) = 0;
};

void systemLog(int level, std::string_view text);
// Operational messages of the controller go out at notice level.
inline void systemLog(std::string_view text) { systemLog(kLogNotice, text); }
// printf-style convenience.
void systemLogf(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

void setLogToStderr(bool on);
bool logToStderr();
// Installs a sink that sees every message (nullptr removes it). Not owned.
void setLogSink(LogSink* sink);

// printf into a std::string.
std::string formatString(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace jx
