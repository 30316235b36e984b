// Property-list files, XML or binary, read and written through libplist.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/Value.h"

namespace jx {

// Settings files are small: a larger one, or one nesting deeper, is refused unread.
constexpr long kPropertyListMostBytes = 4L << 20;
constexpr int kPropertyListMostDepth = 64;

// Parses XML or binary property-list bytes; nullopt when they are neither, or when
// collections nest deeper than kPropertyListMostDepth (error then says so).
std::optional<Value> propertyListFromBytes(std::string_view bytes, std::string* error = nullptr);
// Reads a whole property-list file; nullopt when missing, unreadable or malformed.
// A file that is there but cannot be used sets the error to why (a missing one
// leaves it empty), so that a caller never takes a broken file for an empty one.
std::optional<Value> readPropertyListFile(const std::string& path, std::string* error = nullptr);
// The XML text of a value (a nil value has none and gives an empty string).
std::string propertyListXML(const Value& value);
// Writes the XML form atomically: a temporary file beside the target, made
// exclusively in a directory reached through no link, then renamed over the target
// (a link standing there is replaced, never followed). With toMobile, the file is
// handed to "mobile" while it is still only the daemon's.
bool writePropertyListFileAtomically(const std::string& path, const Value& value, bool toMobile = false);

}  // namespace jx
