// The times a user gives on a command line: a local time, an ISO 8601 time with its
// offset, or a time relative to now.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "analysis/LogReader.h"

namespace jx::analysis {

// "2026-11-21 16:20", "2026-11-21 16:20:05", "2026-11-21" (local, in the TZ in force);
// "2026-11-21T15:20:05Z", "2026-11-21T16:20:05+01:00" (also +0100, +01, fractions of a
// second, a blank for the T); "-2h", "-30m", "-1d", "-90s", "-1w", "-1h30m" (before
// now); "now". None for anything else.
std::optional<TimeMs> parseTimeText(std::string_view text, TimeMs now);
// The value of a --since or --until option: the time, or none and the message that
// says what is accepted.
std::optional<TimeMs> parseTimeOption(const char* option, std::string_view text, TimeMs now, std::string* why);
// Now, on the wall clock, as the times above count.
TimeMs nowMs();

}  // namespace jx::analysis
