// Property-list files, XML or binary, read and written through libplist.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/Value.h"

namespace jx {

// Parses XML or binary property-list bytes; nullopt when they are neither.
std::optional<Value> propertyListFromBytes(std::string_view bytes);
// Reads a whole property-list file; nullopt when missing, unreadable or malformed.
// A file that is there but cannot be used sets the error to why (a missing one
// leaves it empty), so that a caller never takes a broken file for an empty one.
std::optional<Value> readPropertyListFile(const std::string& path, std::string* error = nullptr);
// The XML text of a value (a nil value has none and gives an empty string).
std::string propertyListXML(const Value& value);
// Writes the XML form atomically: a temporary file beside the target, then rename.
bool writePropertyListFileAtomically(const std::string& path, const Value& value);

}  // namespace jx
