#include "analysis/TimeText.h"

#include <chrono>

#include <cctype>
#include <ctime>

namespace jx::analysis {

namespace {

// Reads exactly n digits at pos.
bool number(std::string_view t, std::size_t& pos, std::size_t n, int* out) {
    if (pos + n > t.size()) return false;
    int v = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const char c = t[pos + i];
        if (!std::isdigit(static_cast<unsigned char>(c))) return false;
        v = v * 10 + (c - '0');
    }
    pos += n;
    *out = v;
    return true;
}

bool expect(std::string_view t, std::size_t& pos, char c) {
    if (pos >= t.size() || t[pos] != c) return false;
    ++pos;
    return true;
}

std::optional<TimeMs> relative(std::string_view t, TimeMs now) {
    // -1h30m: groups of a count and a unit.
    std::size_t pos = 1;
    TimeMs total = 0;
    if (pos >= t.size()) return std::nullopt;
    while (pos < t.size()) {
        long long n = 0;
        const std::size_t start = pos;
        while (pos < t.size() && std::isdigit(static_cast<unsigned char>(t[pos])) && pos - start < 9)
            n = n * 10 + (t[pos++] - '0');
        if (pos == start || pos >= t.size()) return std::nullopt;
        long long unit;
        switch (t[pos++]) {
            case 's':
                unit = 1000;
                break;
            case 'm':
                unit = 60 * 1000;
                break;
            case 'h':
                unit = 3600 * 1000;
                break;
            case 'd':
                unit = 86400 * 1000;
                break;
            case 'w':
                unit = 7 * 86400 * 1000LL;
                break;
            default:
                return std::nullopt;
        }
        total += n * unit;
    }
    return now - total;
}

}  // namespace

std::optional<TimeMs> parseTimeText(std::string_view t, TimeMs now) {
    if (t == "now") return now;
    if (!t.empty() && t[0] == '-') return relative(t, now);
    std::size_t pos = 0;
    int y, mo, d, h = 0, mi = 0, s = 0, ms = 0;
    if (!number(t, pos, 4, &y) || !expect(t, pos, '-') || !number(t, pos, 2, &mo) || !expect(t, pos, '-') ||
        !number(t, pos, 2, &d))
        return std::nullopt;
    if (pos < t.size()) {
        if (t[pos] != ' ' && t[pos] != 'T') return std::nullopt;
        ++pos;
        if (!number(t, pos, 2, &h) || !expect(t, pos, ':') || !number(t, pos, 2, &mi)) return std::nullopt;
        if (pos < t.size() && t[pos] == ':') {
            ++pos;
            if (!number(t, pos, 2, &s)) return std::nullopt;
            if (pos < t.size() && (t[pos] == '.' || t[pos] == ',')) {
                ++pos;
                int scale = 100, digitsRead = 0;
                while (pos < t.size() && std::isdigit(static_cast<unsigned char>(t[pos]))) {
                    if (scale > 0) ms += (t[pos] - '0') * scale;
                    scale /= 10;
                    ++pos, ++digitsRead;
                }
                if (digitsRead == 0) return std::nullopt;
            }
        }
    }
    if (mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || s > 60) return std::nullopt;
    const TimeMs wall =
        ((daysFromCivil(y, static_cast<unsigned>(mo), static_cast<unsigned>(d)) * 24 + h) * 60 + mi) * 60000LL +
        s * 1000LL + ms;
    if (pos == t.size()) {
        // Local: as the C library's zone in force reads it, daylight saving guessed.
        std::tm tm{};
        tm.tm_year = y - 1900;
        tm.tm_mon = mo - 1;
        tm.tm_mday = d;
        tm.tm_hour = h;
        tm.tm_min = mi;
        tm.tm_sec = s;
        tm.tm_isdst = -1;
        const std::time_t utc = std::mktime(&tm);
        if (utc == static_cast<std::time_t>(-1)) return std::nullopt;
        return static_cast<TimeMs>(utc) * 1000 + ms;
    }
    if (t[pos] == 'Z' && pos + 1 == t.size()) return wall;
    if (t[pos] != '+' && t[pos] != '-') return std::nullopt;
    const int sign = t[pos++] == '-' ? -1 : 1;
    int oh, om = 0;
    if (!number(t, pos, 2, &oh)) return std::nullopt;
    if (pos < t.size() && t[pos] == ':') ++pos;
    if (pos < t.size() && !number(t, pos, 2, &om)) return std::nullopt;
    if (pos != t.size() || oh > 23 || om > 59) return std::nullopt;
    return wall - sign * (oh * 3600 + om * 60) * 1000LL;
}

std::optional<TimeMs> parseTimeOption(const char* option, std::string_view text, TimeMs now, std::string* why) {
    std::optional<TimeMs> t = parseTimeText(text, now);
    if (!t && why)
        *why = std::string(option) + ": '" + std::string(text) +
               "' is no time (use 'YYYY-MM-DD HH:MM[:SS]', ISO 8601 with Z or an offset, or -2h, -30m, -1d)";
    return t;
}

TimeMs nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace jx::analysis
