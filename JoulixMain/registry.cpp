// The logger registry and plug-in discovery.
#include <dirent.h>
#include <strings.h>

#include <vector>

#include "JoulixMain/JoulixMain.h"
#include "defaults/JXDefaults.h"
#include "platform/JXLogger.h"
#include "platform/JXLoggerClass.h"
#include "platform/JXUtilities.h"
#include "platform/Root.h"
#include "platform/SystemLog.h"

const char* const kJXStaticLoggerList[36] = {
    "JXConfigLogger",       "JXBatteryLogger",        "JXKPCLogger",
    "JXBatteryLifeMonitorLogger", "JXAccessoryLogger", "JXAggregateLogger",
    "JXApplicationLogger",  "JXAudioLogger",          "JXBasebandLogger",
    "JXBluetoothLogger",    "JXCameraLogger",         "JXGeokitLogger",
    "JXDataAccessLogger",   "JXDisplayLogger",        "JXLocaleLogger",
    "JXCloudmateLogger",    "JXNetworkLogger",        "JXPMULogger",
    "JXPersistentConnectionLogger", "JXPowerAssertionLogger", "JXPowerstatLogger",
    "JXProcessMonitorLogger", "JXProcessNetworkLogger", "JXPushNotificationLogger",
    "JXReachabilityLogger", "JXRegistrationLogger",   "JXScheduledWakeLogger",
    "JXSleepWakeLogger",    "JXStoreLogger",          "JXSyslogLogger",
    "JXTelephonyLogger",    "JXThermalLogger",        "JXWiFiLogger",
    "JXMotionkitLogger",    "JXLaunchdeckLogger",     "JXSettingsLogger",
};

const char* const kJXCoreLoggerList[18] = {
    "JXConfigLogger",    "JXBatteryLogger",      "JXKPCLogger",          "JXBatteryLifeMonitorLogger",
    "JXSleepWakeLogger", "JXDisplayLogger",      "JXLocaleLogger",       "JXNetworkLogger",
    "JXProcessNetworkLogger", "JXTelephonyLogger", "JXBasebandLogger",   "JXWiFiLogger",
    "JXGeokitLogger",    "JXProcessMonitorLogger", "JXApplicationLogger", "JXAudioLogger",
    "JXLaunchdeckLogger", "JXSettingsLogger",
};

namespace {

bool endsWith(const std::string& s, const std::string& suffix) {
    return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The plug-in directory's entries in the order the listing gives them; none when
// it cannot be read.
std::vector<std::string> pluginDirectoryEntries() {
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(jx::rootPath(kJXPluginDirectory).c_str()), closedir);
    if (!dir) return names;
    while (dirent* e = readdir(dir.get())) {
        std::string name = e->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    return names;
}

}  // namespace

void JoulixMain::setupLoggers() {
    bool filled = false;
    JXUtilities::loggerListDispatchQueue().sync([&] { filled = _loggerList && _loggerList->count() > 0; });
    if (filled) return;

    JXLogger::setDefault(jx::Value(false), "Enabled", "JXPushNotificationLogger");

    for (const char* name : kJXCoreLoggerList) {
        if (JXLogger::loggerEnabledWithName(name)) {
            jx::systemLogf(jx::kLogNotice, "setting up core logger %s", name);
            addLoggerByName(name);
        } else if (JXDefaultsCurrentLoggingMode() != 0) {
            jx::systemLogf(jx::kLogNotice, "Skipping core logger %s", name);
        }
    }

    std::vector<std::string> candidates;
    jx::Value discovery = JXDefaultsCopyValueForKey(JXLoggerDiscovery);
    if (const std::string* text = discovery.asString(); text && strcasecmp(text->c_str(), "dynamic") == 0) {
        candidates = pluginDirectoryEntries();
    } else {
        candidates.assign(std::begin(kJXStaticLoggerList), std::end(kJXStaticLoggerList));
    }

    for (const std::string& candidate : candidates) {
        if (JXUtilities::getLoggerForName(candidate)) continue;
        std::string name = candidate;
        if (endsWith(candidate, ".bundle")) {
            name = candidate.substr(0, candidate.size() - 7);
        } else if (endsWith(candidate, ".dSYM")) {
            jx::systemLogf(jx::kLogNotice, "skipped %s", candidate.c_str());
            continue;
        }
        if (JXLogger::loggerEnabledWithName(name)) {
            jx::systemLogf(jx::kLogNotice, "setting up bundle logger %s", name.c_str());
            addLoggerByName(name);
        } else if (JXDefaultsCurrentLoggingMode() != 0) {
            jx::systemLogf(jx::kLogNotice, "Skipping bundle logger %s", name.c_str());
        }
    }

    logStateEvent("booting", std::nullopt, std::nullopt, std::nullopt);
}

void JoulixMain::addLoggerByName(const std::string& name) {
    if (JXUtilities::getLoggerForName(name)) {
        jx::systemLogf(jx::kLogNotice, "Logger %s already exists, skipping.", name.c_str());
        return;
    }
    // A class loaded in the process first, then the plug-in directory.
    JXLoggerClass* loggerClass = JXClassRegistry::lookUpClass(name);
    if (!loggerClass) loggerClass = JXBundle::principalClass(jx::rootPath(kJXPluginDirectory) + name + ".bundle");
    if (!loggerClass) {
        jx::systemLogf(jx::kLogNotice, "Could not find %s, skipping.", name.c_str());
        return;
    }

    std::shared_ptr<JXLogger> logger;
    JXUtilities::getQueueForLogger(*loggerClass).sync([&] {
        // A logger that cannot be made is reported like one the class did not give.
        try {
            logger = loggerClass->logger();
        } catch (const std::exception& e) {
            jx::systemLogf(jx::kLogError, "%s could not be made: %s", name.c_str(), e.what());
        }
    });

    if (logger) {
        JXUtilities::loggerListDispatchQueue().sync(
            [&] { if (_loggerList) _loggerList->setObject(JXValue::valueWithObject(logger), name); });
    } else {
        jx::systemLogf(jx::kLogNotice, "ERROR: No plugin bundle found for %s", name.c_str());
    }
}
