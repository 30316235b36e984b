// The settings layer: typed access to the preferences domains, with the
// administrator-managed preferences as a read-only fall-back.
#pragma once

#include <cstdint>
#include <string>

#include "defaults/JXDefaultsKeys.h"
#include "platform/Value.h"

// The daemon's own domain and the user whose settings these are.
extern const char* const kJXDefaultsDomain;      // "com.brindle.joulix"
extern const char* const kJXDefaultsUser;        // "mobile"
extern const char* const kJXLaunchdeckDomain;    // "com.brindle.launchdeck"
extern const char* const kJXInputdeckDomain;     // "com.brindle.inputdeckd"
extern const char* const kJXManagedPreferencesDirectory;  // "/Library/Managed Preferences/mobile/"

// A nil Value stands for "no value". Every function is callable from any thread.
jx::Value JXDefaultsCopyValueForKeyForAppSync(const std::string& key, const std::string& domain, bool sync);
jx::Value JXDefaultsCopyValueForKey(const std::string& key);
jx::Value JXDefaultsCopyValueForKeySync(const std::string& key, bool sync);
jx::Value JXDefaultsValueForKey(const std::string& key);
jx::Value JXDefaultsValueForKeySync(const std::string& key, bool sync);
bool JXDefaultsValueExistsForKey(const std::string& key);
// Sets (a nil value removes) the key in the daemon's domain, writes the domain
// out and hands its file to the account "mobile".
void JXDefaultsSetValueForKey(const std::string& key, const jx::Value& value);
void JXDefaultsSetDefaultValueForKey(const std::string& key, const jx::Value& value);
bool JXDefaultsLoggerRunsLight(const std::string& loggerName);
// The logging mode in force: INT16_MIN when unset, else the stored value as a number
// (text that is no number is 0) cut to its low 16 bits.
std::int16_t JXDefaultsCurrentLoggingMode();
std::int16_t JXDefaultsLoggingModeFromValue(const jx::Value& mode);

jx::Value CopyLaunchdeckPreferenceValue(const std::string& key);
jx::Value CopyInputdeckPreferenceValue(const std::string& key);
jx::Value CopyPreferenceValue(const std::string& key, const std::string& domain, const std::string& user, bool sync);

// The control tool writes other domains the same way as the daemon's own.
void JXDefaultsSetValueForKeyInDomain(const std::string& key, const jx::Value& value, const std::string& domain);
// The path of a domain's managed-preferences file (with its doubled slash).
std::string JXDefaultsManagedPreferencesPath(const std::string& domain);
// Forgets the managed files loaded so far; for tests that change the root.
void JXDefaultsResetManagedCacheForTesting();
