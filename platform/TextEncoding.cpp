#include "platform/TextEncoding.h"

#include <cstdint>

namespace jx {
namespace {

// Length of the well-formed UTF-8 sequence at the start of s, 0 when there is none.
std::size_t sequenceLength(std::string_view s) {
    const auto b = [&](std::size_t i) { return static_cast<std::uint8_t>(s[i]); };
    const std::uint8_t c = b(0);
    if (c < 0x80) return 1;
    std::size_t n;
    std::uint8_t lo = 0x80, hi = 0xBF;  // the allowed range of the second byte
    if (c >= 0xC2 && c <= 0xDF)
        n = 2;
    else if (c >= 0xE0 && c <= 0xEF) {
        n = 3;
        if (c == 0xE0)
            lo = 0xA0;  // overlong
        else if (c == 0xED)
            hi = 0x9F;  // surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
        n = 4;
        if (c == 0xF0)
            lo = 0x90;  // overlong
        else if (c == 0xF4)
            hi = 0x8F;  // above U+10FFFF
    } else
        return 0;
    if (s.size() < n) return 0;
    if (b(1) < lo || b(1) > hi) return 0;
    for (std::size_t i = 2; i < n; ++i)
        if (b(i) < 0x80 || b(i) > 0xBF) return 0;
    return n;
}

}  // namespace

bool isValidUTF8(std::string_view bytes) {
    std::size_t i = 0;
    while (i < bytes.size()) {
        // Runs of ASCII are the common case: skip them a byte at a time without the table.
        if (static_cast<std::uint8_t>(bytes[i]) < 0x80) {
            ++i;
            continue;
        }
        std::size_t n = sequenceLength(bytes.substr(i));
        if (n == 0) return false;
        i += n;
    }
    return true;
}

void appendJSONString(std::string& out, std::string_view text) {
    static const char hex[] = "0123456789abcdef";
    out += '"';
    std::size_t i = 0;
    while (i < text.size()) {
        const auto c = static_cast<std::uint8_t>(text[i]);
        if (c >= 0x80) {
            std::size_t n = sequenceLength(text.substr(i));
            if (n == 0) {
                out += "\\ufffd";
                ++i;
            } else {
                out.append(text.substr(i, n));
                i += n;
            }
            continue;
        }
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20 || c == 0x7F) {
                    out += "\\u00";
                    out += hex[c >> 4];
                    out += hex[c & 15];
                } else {
                    out += static_cast<char>(c);
                }
        }
        ++i;
    }
    out += '"';
}

}  // namespace jx
