// The daemon's settings in force, so that a log says how it was made.
#include <set>

#include "JoulixMain/JoulixMain.h"
#include "defaults/JXDefaults.h"
#include "platform/JXEntry.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLoggerClass.h"
#include "platform/PreferencesStore.h"
#include "plugins/builtin/JXBuiltinLoggers.h"

namespace {

constexpr std::size_t kMostKeysShown = 256;

// One field's worth of a setting: collections on one line, "{k=v,k=v}" and
// "(a,b)", since the description of a collection spans several lines.
std::string compactText(const jx::Value& value) {
    if (const jx::Dictionary* d = value.asDictionary()) {
        std::string out = "{";
        for (const auto& [key, v] : *d) {
            if (out.size() > 1) out += ",";
            out += key + "=" + compactText(v);
        }
        return out + "}";
    }
    if (const jx::Array* a = value.asArray()) {
        std::string out = "(";
        for (const jx::Value& v : *a) {
            if (out.size() > 1) out += ",";
            out += compactText(v);
        }
        return out + ")";
    }
    if (const bool* b = value.asBoolean()) return *b ? "YES" : "NO";
    return jx::fieldText(value.description());
}

}  // namespace

JXSettingsLogger::JXSettingsLogger() : JXLogger("JXSettingsLogger") {}

void JXSettingsLogger::logSample() {
    JXEntry entry("Settings");
    entry.setObject(JXValue::valueWithString(JoulixMain::currentLoggingModeString()), "loggingMode");
    // Every key the daemon knows, and any other stored in its domain (the per-logger
    // dictionaries), each with the value a reader of it gets now: the stored one, else
    // the managed one. The domain is read once, so the cost grows with the number of
    // keys, not its square; a domain stuffed with keys shows its first ones and a count.
    const jx::Dictionary stored = jx::PreferencesStore::shared().copyDomain(kJXDefaultsDomain, kJXDefaultsUser);
    const jx::Dictionary managed = jx::managedPreferences(kJXDefaultsDomain);
    std::set<std::string> keys;
    for (unsigned i = 0; i < kJXDefaultsKeyCatalogueCount; ++i) keys.insert(kJXDefaultsKeyCatalogue[i].key);
    for (const auto& [key, value] : stored) keys.insert(key);
    for (const auto& [key, value] : managed) keys.insert(key);
    std::size_t shown = 0, notShown = 0;
    for (const std::string& key : keys) {
        auto it = stored.find(key);
        const jx::Value* value = it != stored.end() ? &it->second : nullptr;
        if (!value || value->isNil()) {
            auto m = managed.find(key);
            value = m != managed.end() ? &m->second : nullptr;
        }
        if (!value || value->isNil()) continue;
        if (shown == kMostKeysShown) {
            ++notShown;
            continue;
        }
        entry.setObject(JXValue::valueWithString(compactText(*value)), jx::fieldText(key));
        ++shown;
    }
    if (notShown) entry.setObject(JXValue::valueWithLong(static_cast<long>(notShown)), "keysNotShown");
    JXLogWriter::sharedWriter().logEntry(entry);
}

JX_REGISTER_LOGGER(JXSettingsLogger)
