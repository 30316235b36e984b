// Small text helpers shared by the post-processor's sources.
#pragma once

#include <string>
#include <string_view>

namespace jx::baseband {

// The number groups of the patterns nest a repetition in a repetition over any
// character: on a long run of digits that does not match in the end, backtracking
// grows exponentially. A match gives up after this many ticks of the regular
// expression engine (10000 steps each, a few milliseconds); a line the loggers
// write needs far less than one. Steps are counted, not time, so a line gives up
// the same way whichever rows are tried on it.
inline constexpr int kMatchTickLimit = 50;

// The numeric value of a text as the object framework reads it: leading blanks,
// then a decimal number (sign, digits, fraction, exponent), 0 when there is none.
double numericValue(std::string_view text);
// "%f" of a number.
std::string formatFloat(double value);
// Case-insensitive equality by Unicode case folding (ASCII without ICU).
bool equalsIgnoringCase(std::string_view a, std::string_view b);
// The full case folding of a UTF-8 text.
std::string foldCase(std::string_view text);

}  // namespace jx::baseband
