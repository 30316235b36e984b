// Logging modes: the configured mode as text, the mode in force judged from the
// registered loggers, the running mode, the full-mode day list, the rotation
// setting as text.
#include <strings.h>

#include "JoulixMain/JoulixMain.h"
#include "defaults/JXDefaults.h"
#include "platform/JXUtilities.h"

namespace {

// The 36 logger names of the static list, in table order.
const char* const kAllLoggerNames[] = {
    "JXConfigLogger",     "JXBatteryLogger",           "JXKPCLogger",            "JXBatteryLifeMonitorLogger",
    "JXAccessoryLogger",  "JXAggregateLogger",         "JXApplicationLogger",    "JXAudioLogger",
    "JXBasebandLogger",   "JXBluetoothLogger",         "JXCameraLogger",         "JXGeokitLogger",
    "JXDataAccessLogger", "JXDisplayLogger",           "JXLocaleLogger",         "JXCloudmateLogger",
    "JXNetworkLogger",    "JXPMULogger",               "JXPersistentConnectionLogger", "JXPowerAssertionLogger",
    "JXPowerstatLogger",  "JXProcessMonitorLogger",    "JXProcessNetworkLogger", "JXPushNotificationLogger",
    "JXReachabilityLogger", "JXRegistrationLogger",    "JXScheduledWakeLogger",  "JXSleepWakeLogger",
    "JXStoreLogger",      "JXSyslogLogger",            "JXTelephonyLogger",      "JXThermalLogger",
    "JXWiFiLogger",       "JXMotionkitLogger",         "JXLaunchdeckLogger",     "JXSettingsLogger",
};

}  // namespace

std::string JoulixMain::currentLoggingModeString() {
    std::int16_t mode = JXDefaultsCurrentLoggingMode();
    // Unset (-32768) and 0 both leave only bit 15 or nothing once bit 15 is set.
    return ((static_cast<std::uint16_t>(mode) | 0x8000) == 0x8000) ? "Lite" : "Full";
}

std::int16_t JoulixMain::currentLoggerMode() {
    if (!_loggerList || _loggerList->count() == 0) return 2;
    int registered = 0;
    for (const char* name : kAllLoggerNames) {
        if (JXDefaultsLoggerRunsLight(name)) continue;
        if (JXUtilities::getLoggerForName(name)) ++registered;
    }
    return registered > 0 ? 1 : 0;
}

std::int16_t JoulixMain::currentRunningMode() {
    std::int16_t m = currentLoggerMode();
    if (m == 2) return 4;
    bool daemon = strcasecmp(JXUtilities::processName().c_str(), "joulix") == 0;
    if (m == 1) return daemon ? 1 : 3;
    return daemon ? 2 : 0;
}

void JoulixMain::blackListTodayAsFullMode() {
    jx::Value stored = JXDefaultsCopyValueForKey(JXFullModeBlackList);
    jx::Array days = stored.asArray() ? *stored.asArray() : jx::Array{};

    std::string now;
    {
        std::lock_guard lock(logTimestampFormatter_->monitor());
        now = logTimestampFormatter_->stringFromDate(jx::Date::now());
    }
    std::vector<std::string> pieces = jx::componentsSeparatedBy(now, '-');
    if (pieces.size() >= 3) {
        jx::Value day(pieces[0] + "-" + pieces[1] + "-" + pieces[2]);
        std::erase(days, day);
        days.push_back(day);
    }
    JXDefaultsSetValueForKey(JXFullModeBlackList, jx::Value(days));
}

std::string JoulixMain::rotateJoulixDefaultStringValue() {
    jx::Value v = JXDefaultsCopyValueForKey(JXRotateJoulixKey);
    return v.isNil() ? "Default" : v.description();
}

std::optional<std::string> JoulixMain::remainingStringFrom(const std::optional<std::string>& text,
                                                           const std::string& byRemovingPrefix,
                                                           const std::string& byRemovingSuffix) {
    // An empty prefix or suffix is never found, as a search for empty text finds nothing.
    if (!text || byRemovingPrefix.empty() || byRemovingSuffix.empty()) return std::nullopt;
    std::size_t p = text->find(byRemovingPrefix);
    if (p == std::string::npos) return std::nullopt;
    std::size_t start = p + byRemovingPrefix.size();
    std::size_t s = text->find(byRemovingSuffix, start);
    if (s == std::string::npos) return std::nullopt;
    return text->substr(start, s - start);
}
