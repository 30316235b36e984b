// Text encodings: UTF-8 validation, and strings as JSON text.
#pragma once

#include <string>
#include <string_view>

namespace jx {

// Whether the bytes are well-formed UTF-8: no overlong forms, no surrogates,
// nothing above U+10FFFF.
bool isValidUTF8(std::string_view bytes);

// Appends the text as a JSON string, quotes included. Bytes that are not
// well-formed UTF-8 become U+FFFD, so the output is always valid JSON.
void appendJSONString(std::string& out, std::string_view text);

}  // namespace jx
