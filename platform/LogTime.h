// Local-time texts of the log.
#pragma once

#include <string>

#include "platform/Value.h"

namespace jx {

// "MM/dd/yyyy HH:mm:ss.SSS", the time that starts every line.
void appendLineTime(std::string& out, Date when);
// "yyyy-MM-dd HH:mm:ss Z" (for example "2026-11-21 16:20:00 +0100").
std::string formatLocalDate(Date when);

}  // namespace jx
