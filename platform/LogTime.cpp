#include "platform/LogTime.h"

#include <cmath>
#include <cstdio>
#include <ctime>

namespace jx {

void appendLineTime(std::string& out, Date when) {
    double whole = std::floor(when.secondsSince1970);
    auto seconds = static_cast<std::time_t>(whole);
    int millis = static_cast<int>((when.secondsSince1970 - whole) * 1000.0);
    if (millis > 999) millis = 999;
    // Lines come in bursts within one second: the calendar fields are worked out once per second and thread.
    thread_local std::time_t cachedSecond = -1;
    thread_local char cached[64];
    if (seconds != cachedSecond) {
        std::tm tm{};
        localtime_r(&seconds, &tm);
        std::snprintf(cached, sizeof cached, "%02d/%02d/%04d %02d:%02d:%02d", tm.tm_mon + 1, tm.tm_mday,
                      tm.tm_year + 1900, tm.tm_hour, tm.tm_min, tm.tm_sec);
        cachedSecond = seconds;
    }
    char ms[16];
    std::snprintf(ms, sizeof ms, ".%03d", millis);
    out += cached;
    out += ms;
}

std::string formatLocalDate(Date when) {
    auto seconds = static_cast<std::time_t>(std::floor(when.secondsSince1970));
    std::tm tm{};
    localtime_r(&seconds, &tm);
    char buf[64];
    std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S %z", &tm);
    return buf;
}

}  // namespace jx
