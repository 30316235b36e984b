// The controller's paths and properties.
#include "JoulixMain/JoulixMain.h"

const char* const kJXCurrentLogPath = "/var/mobile/Library/Logs/CurrentJoulix.joulix";
const char* const kJXLogDirectory = "/var/mobile/Library/Logs";
const char* const kJXCrashReportDirectory = "/var/mobile/Library/Logs/Faultkeeper";
const char* const kJXArchiveDirectory = "/var/mobile/Library/Logs/JXArchive";
const char* const kJXPluginDirectory = "/System/Library/JoulixPlugins/";

std::optional<std::string> JoulixMain::fileGUID() const {
    std::lock_guard lock(fileGUIDMutex_);
    return _fileGUID;
}

void JoulixMain::setFileGUID(std::optional<std::string> guid) {
    std::lock_guard lock(fileGUIDMutex_);
    _fileGUID = std::move(guid);
}
