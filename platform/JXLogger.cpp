#include "platform/JXLogger.h"

#include <cmath>
#include <cstdlib>
#include <map>
#include <mutex>

#include "platform/JXUtilities.h"
#include "platform/PreferencesStore.h"

namespace {

// The daemon's domain and the account whose settings these are.
const char* const kDomain = "com.brindle.joulix";
const char* const kUser = "mobile";

std::mutex gDefaultsMutex;
std::map<std::string, jx::Dictionary>& registeredDefaults() {
    static auto* defaults = new std::map<std::string, jx::Dictionary>;
    return *defaults;
}

}  // namespace

JXLogger::JXLogger(std::string name)
    : name_(std::move(name)), queue_(JXUtilities::getQueueForLoggerNamed(name_)) {}

JXLogger::~JXLogger() = default;

void JXLogger::log() {
    logSample();
    noteSampled();
    haveLogged_.store(true);
}

std::size_t JXLogger::topCount(std::size_t defaultCount) const {
    jx::Value setting = settingForKey("TopCount", name_);
    return !setting.isNil() && setting.integerValue() > 0 ? static_cast<std::size_t>(setting.integerValue()) : defaultCount;
}

void JXLogger::noteSampled() { lastSample_.store(jx::Date::now().secondsSince1970); }

std::optional<double> JXLogger::numberSettingForKey(const std::string& key, const std::string& forLoggerNamed) {
    jx::Value v = settingForKey(key, forLoggerNamed);
    if (v.isNil()) return std::nullopt;
    double n = v.doubleValue();
    if (const std::string* text = v.asString()) {
        char* end = nullptr;
        n = std::strtod(text->c_str(), &end);
        if (end == text->c_str() || *end != '\0') return std::nullopt;
    }
    return std::isfinite(n) ? std::optional<double>(n) : std::nullopt;
}

jx::Value JXLogger::settingForKey(const std::string& key, const std::string& forLoggerNamed) {
    // The store notices a file changed by another process, so a setting written
    // while the daemon runs is seen here without a synchronise.
    jx::Value stored = jx::PreferencesStore::shared().copyValue(forLoggerNamed, kDomain, kUser);
    if (stored.isDictionary()) {
        jx::Value v = stored.objectForKey(key);
        if (!v.isNil()) return v;
    }
    // The administrator's file, as for every other setting.
    jx::Value managed = jx::managedPreferenceValue(forLoggerNamed, kDomain);
    if (managed.isDictionary()) {
        jx::Value v = managed.objectForKey(key);
        if (!v.isNil()) return v;
    }
    std::lock_guard lock(gDefaultsMutex);
    auto& defaults = registeredDefaults();
    auto it = defaults.find(forLoggerNamed);
    if (it == defaults.end()) return {};
    auto d = it->second.find(key);
    return d == it->second.end() ? jx::Value() : d->second;
}

bool JXLogger::loggerEnabledWithName(const std::string& name) {
    jx::Value v = settingForKey("Enabled", name);
    return v.isNil() ? true : v.boolValue();
}

void JXLogger::setDefault(const jx::Value& value, const std::string& forKey, const std::string& forLoggerNamed) {
    std::lock_guard lock(gDefaultsMutex);
    if (value.isNil()) registeredDefaults()[forLoggerNamed].erase(forKey);
    else registeredDefaults()[forLoggerNamed][forKey] = value;
}
