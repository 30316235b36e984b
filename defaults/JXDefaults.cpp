#include "defaults/JXDefaults.h"

#include <unistd.h>

#include <algorithm>
#include <set>
#include <strings.h>

#include "platform/JXUtilities.h"
#include "platform/PreferencesStore.h"
#include "platform/PropertyList.h"
#include "platform/Root.h"
#include "platform/SystemLog.h"

const char* const kJXDefaultsDomain = "com.brindle.joulix";
const char* const kJXDefaultsUser = "mobile";
const char* const kJXLaunchdeckDomain = "com.brindle.launchdeck";
const char* const kJXInputdeckDomain = "com.brindle.inputdeckd";
const char* const kJXManagedPreferencesDirectory = "/Library/Managed Preferences/mobile/";

namespace {

bool sameUser(const std::string& a, const std::string& b) { return strcasecmp(a.c_str(), b.c_str()) == 0; }

}  // namespace

std::string JXDefaultsManagedPreferencesPath(const std::string& domain) { return jx::managedPreferencesPath(domain); }

void JXDefaultsResetManagedCacheForTesting() { jx::resetManagedPreferencesForTesting(); }

jx::Value CopyPreferenceValue(const std::string& key, const std::string& domain, const std::string& user, bool sync) {
    jx::PreferencesStore& store = jx::PreferencesStore::shared();
    bool ownUser = sameUser(JXUtilities::runningAsUser(), user);
    if (sync) {
        if (ownUser) store.synchronizeApp(domain);
        else store.synchronize(domain, user);
    }
    return ownUser ? store.copyAppValue(key, domain) : store.copyValue(key, domain, user);
}

jx::Value JXDefaultsCopyValueForKeyForAppSync(const std::string& key, const std::string& domain, bool sync) {
    // The store always wins over the managed file.
    jx::Value value = CopyPreferenceValue(key, domain, kJXDefaultsUser, sync);
    if (!value.isNil()) return value;
    return jx::managedPreferenceValue(key, domain);
}

jx::Value JXDefaultsCopyValueForKey(const std::string& key) {
    return JXDefaultsCopyValueForKeyForAppSync(key, kJXDefaultsDomain, false);
}

jx::Value JXDefaultsCopyValueForKeySync(const std::string& key, bool sync) {
    return JXDefaultsCopyValueForKeyForAppSync(key, kJXDefaultsDomain, sync);
}

jx::Value JXDefaultsValueForKey(const std::string& key) { return JXDefaultsCopyValueForKey(key); }

jx::Value JXDefaultsValueForKeySync(const std::string& key, bool sync) {
    return JXDefaultsCopyValueForKeyForAppSync(key, kJXDefaultsDomain, sync);
}

bool JXDefaultsValueExistsForKey(const std::string& key) { return !JXDefaultsCopyValueForKey(key).isNil(); }

void JXDefaultsSetValueForKeyInDomain(const std::string& key, const jx::Value& value, const std::string& domain) {
    jx::PreferencesStore& store = jx::PreferencesStore::shared();
    store.setValue(key, value, domain, kJXDefaultsUser);
    store.synchronize(domain, kJXDefaultsUser);
    JXUtilities::chownToMobile(jx::preferencesPath(domain, kJXDefaultsUser));
}

void JXDefaultsSetValueForKey(const std::string& key, const jx::Value& value) {
    JXDefaultsSetValueForKeyInDomain(key, value, kJXDefaultsDomain);
}

void JXDefaultsSetDefaultValueForKey(const std::string& key, const jx::Value& value) {
    if (JXDefaultsCopyValueForKey(key).isNil()) JXDefaultsSetValueForKey(key, value);
}

bool JXDefaultsLoggerRunsLight(const std::string& loggerName) {
    static const std::set<std::string> light = {
        "JXConfigLogger",         "JXBatteryLogger",        "JXKPCLogger",         "JXBatteryLifeMonitorLogger",
        "JXSleepWakeLogger",      "JXDisplayLogger",        "JXLocaleLogger",      "JXNetworkLogger",
        "JXProcessNetworkLogger", "JXTelephonyLogger",      "JXBasebandLogger",    "JXWiFiLogger",
        "JXGeokitLogger",         "JXProcessMonitorLogger", "JXApplicationLogger", "JXAudioLogger",
        "JXLaunchdeckLogger",     "JXSettingsLogger"};
    return light.count(loggerName) != 0;
}

std::int16_t JXDefaultsCurrentLoggingMode() {
    if (!JXDefaultsValueExistsForKey(JXLoggingMode)) return INT16_MIN;
    return JXDefaultsLoggingModeFromValue(JXDefaultsCopyValueForKeySync(JXLoggingMode, true));
}

std::int16_t JXDefaultsLoggingModeFromValue(const jx::Value& mode) {
    return static_cast<std::int16_t>(static_cast<std::uint16_t>(mode.integerValue() & 0xFFFF));
}

jx::Value CopyLaunchdeckPreferenceValue(const std::string& key) {
    return JXDefaultsCopyValueForKeyForAppSync(key, kJXLaunchdeckDomain, false);
}

jx::Value CopyInputdeckPreferenceValue(const std::string& key) {
    return JXDefaultsCopyValueForKeyForAppSync(key, kJXInputdeckDomain, true);
}
