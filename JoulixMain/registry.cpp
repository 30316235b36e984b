// The logger registry and plug-in discovery.
#include <dirent.h>
#include <strings.h>

#include <algorithm>
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

const char* const kJXMeasuringLoggerList[6] = {"JXClockLogger",        "JXPowercapLogger",  "JXWakeupSourceLogger",
                                                "JXCpuResidencyLogger", "JXRuntimePMLogger", "JXSelfCostLogger"};

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

// The names the second round of set-up tries: the static list, or with dynamic
// discovery every entry of the plug-in directory.
std::vector<std::string> pluginCandidates() {
    jx::Value discovery = JXDefaultsCopyValueForKey(JXLoggerDiscovery);
    if (const std::string* text = discovery.asString(); text && strcasecmp(text->c_str(), "dynamic") == 0)
        return pluginDirectoryEntries();
    return {std::begin(kJXStaticLoggerList), std::end(kJXStaticLoggerList)};
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

    // This system's own measuring loggers: set up in every mode, each switched off by
    // its own Enabled setting, and quiet where the machine has nothing to measure.
    for (const char* name : kJXMeasuringLoggerList) {
        if (!JXLogger::loggerEnabledWithName(name)) continue;
        jx::systemLogf(jx::kLogNotice, "setting up measuring logger %s", name);
        addLoggerByName(name);
    }

    const std::vector<std::string> candidates = pluginCandidates();

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
        std::lock_guard lock(fileGUIDMutex_);
        loggersNotFound_.insert(name);
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

void JoulixMain::reloadSettings() {
    rotateDebugLogging_ = JXDefaultsValueExistsForKey(JXRotateJoulixDebug) && JXDefaultsValueForKey(JXRotateJoulixDebug).boolValue();
    runLoopDebugLogging_ = JXDefaultsValueExistsForKey(JXRunLoopDebug) && JXDefaultsValueForKey(JXRunLoopDebug).boolValue();

    // Loggers switched off leave the registry (their timers stop with them).
    std::vector<std::string> off;
    JXUtilities::loggerListDispatchQueue().sync([&] {
        if (!_loggerList) return;
        for (const std::string& name : _loggerList->keys())
            if (!JXLogger::loggerEnabledWithName(name)) {
                _loggerList->removeObjectForKey(name);
                off.push_back(name);
            }
    });
    // Loggers switched on join it, found the way set-up finds them.
    std::vector<std::string> names(std::begin(kJXCoreLoggerList), std::end(kJXCoreLoggerList));
    for (const std::string& candidate : pluginCandidates()) {
        if (endsWith(candidate, ".dSYM")) continue;
        names.push_back(endsWith(candidate, ".bundle") ? candidate.substr(0, candidate.size() - 7) : candidate);
    }
    std::vector<std::string> on;
    for (const std::string& name : names) {
        if (JXUtilities::getLoggerForName(name) || !JXLogger::loggerEnabledWithName(name)) continue;
        if (std::find(off.begin(), off.end(), name) != off.end()) continue;
        addLoggerByName(name);
        if (JXUtilities::getLoggerForName(name)) on.push_back(name);
    }
    auto joined = [](const std::vector<std::string>& v) {
        std::string s;
        for (const std::string& n : v) s += (s.empty() ? "" : ", ") + n;
        return s.empty() ? std::string("none") : s;
    };
    jx::systemLogf(jx::kLogNotice, "settings read again: loggers switched off: %s; switched on: %s; debug logging %s",
                   joined(off).c_str(), joined(on).c_str(), rotateDebugLogging_ ? "on" : "off");
}
