// When a file was made: its birth time where the file system keeps one, else its
// last modification.
#pragma once

#include <optional>
#include <string>

#include "platform/Value.h"

namespace jx {

// nullopt when the item cannot be examined. Symbolic links are not followed.
std::optional<Date> fileCreationDate(const std::string& path);
// The same for a name in an open directory.
std::optional<Date> fileCreationDateAt(int dir, const std::string& name);

}  // namespace jx
