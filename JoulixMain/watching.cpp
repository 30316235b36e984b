// File protection, directory watching and the log-file check.
#include "JoulixMain/JoulixMain.h"

// These arrive with protection and the directory watch.
bool JoulixMain::setFileProtectionForPath(const std::string&, const std::string&) { return false; }
void JoulixMain::watchCrashReportDirectories(bool) {}
void JoulixMain::logFileCheck() {}
