#include "baseband/BasebandText.h"

#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <cctype>
#include <charconv>
#include <cmath>

#include "platform/SystemLog.h"

namespace jx::baseband {
namespace {

bool isASCII(std::string_view s) {
    for (unsigned char c : s)
        if (c >= 0x80) return false;
    return true;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

double numericValue(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
    const std::size_t start = i;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
    const std::size_t digitsStart = i;
    while (i < text.size() && isDigit(text[i])) ++i;
    bool any = i > digitsStart;
    if (i < text.size() && text[i] == '.') {
        std::size_t f = ++i;
        while (i < text.size() && isDigit(text[i])) ++i;
        any = any || i > f;
    }
    if (!any) return 0.0;
    if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
        std::size_t e = i + 1;
        if (e < text.size() && (text[e] == '+' || text[e] == '-')) ++e;
        std::size_t ed = e;
        while (e < text.size() && isDigit(text[e])) ++e;
        if (e > ed) i = e;
    }
    // from_chars takes no leading '+' and is independent of the C locale.
    std::size_t from = start;
    bool negative = false;
    if (text[from] == '+' || text[from] == '-') negative = text[from++] == '-';
    double value = 0.0;
    auto [ptr, ec] = std::from_chars(text.data() + from, text.data() + i, value, std::chars_format::general);
    if (ec == std::errc::result_out_of_range) {
        // Too large or too small: the framework answers infinity or zero.
        std::string copy(text.substr(from, i - from));
        value = std::strtod(copy.c_str(), nullptr);
    } else if (ec != std::errc()) {
        value = 0.0;
    }
    (void)ptr;
    return negative ? -value : value;
}

std::string formatFloat(double value) { return jx::formatString("%f", value); }

std::string foldCase(std::string_view text) {
    if (isASCII(text)) {
        std::string out(text);
        for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return out;
    }
    icu::UnicodeString u =
        icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    u.foldCase(U_FOLD_CASE_DEFAULT);
    std::string out;
    u.toUTF8String(out);
    return out;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    if (isASCII(a) && isASCII(b)) {
        if (a.size() != b.size()) return false;
        for (std::size_t i = 0; i < a.size(); ++i)
            if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
                return false;
        return true;
    }
    return foldCase(a) == foldCase(b);
}

}  // namespace jx::baseband
