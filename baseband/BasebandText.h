// Small text helpers shared by the post-processor's sources.
#pragma once

#include <string>
#include <string_view>

namespace jx::baseband {

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
