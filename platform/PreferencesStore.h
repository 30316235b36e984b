// The preferences store: per-domain key/value settings of a user, kept as one
// property-list file per domain under the user's Library/Preferences.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <unordered_map>

#include <sys/stat.h>

#include "platform/Value.h"

namespace jx {

class PreferencesStore {
public:
    virtual ~PreferencesStore() = default;
    // The calling process's own view of an application domain.
    virtual Value copyAppValue(const std::string& key, const std::string& domain) = 0;
    // A domain of a given user (the host is always the current host).
    virtual Value copyValue(const std::string& key, const std::string& domain, const std::string& user) = 0;
    // Sets (or, with a nil value, removes) a key; written out by the next synchronise.
    virtual void setValue(const std::string& key, const Value& value, const std::string& domain,
                          const std::string& user) = 0;
    virtual bool synchronizeApp(const std::string& domain) = 0;
    virtual bool synchronize(const std::string& domain, const std::string& user) = 0;
    // Every key of a domain, as a dictionary (empty when the domain has none).
    virtual Dictionary copyDomain(const std::string& domain, const std::string& user) = 0;
    // Why the domain's file is there but cannot be read as settings (it then reads as
    // empty and is never written over); nothing when it reads, or is simply missing.
    virtual std::optional<std::string> unreadableReason(const std::string&, const std::string&) { return std::nullopt; }

    // The store every caller uses; tests may put in their own.
    static PreferencesStore& shared();
    static void setShared(PreferencesStore* store);
};

// The file of a domain: <root>/var/<user>/Library/Preferences/<domain>.plist.
std::string preferencesPath(const std::string& domain, const std::string& user);

// The administrator's settings of a domain, read when the store has no value:
// <root>/Library/Managed Preferences/mobile//<domain>.plist. A file, once loaded, is
// kept for the process's life; a missing or unreadable one is tried again at the
// next miss (an unreadable one is reported once per change of the file).
std::string managedPreferencesPath(const std::string& domain);
Value managedPreferenceValue(const std::string& key, const std::string& domain);
// Every managed setting of a domain (empty when there is no usable file).
Dictionary managedPreferences(const std::string& domain);
// Forgets the managed files loaded so far; for tests that change the root.
void resetManagedPreferencesForTesting();

// Files under the root. A read sees the file as it is on disk now (a change made by
// another process is picked up at the next read); writes are kept until the next
// synchronise, which merges them into the file on disk and replaces it atomically.
class FilePreferencesStore : public PreferencesStore {
public:
    Value copyAppValue(const std::string& key, const std::string& domain) override;
    Value copyValue(const std::string& key, const std::string& domain, const std::string& user) override;
    void setValue(const std::string& key, const Value& value, const std::string& domain,
                  const std::string& user) override;
    bool synchronizeApp(const std::string& domain) override;
    bool synchronize(const std::string& domain, const std::string& user) override;
    Dictionary copyDomain(const std::string& domain, const std::string& user) override;
    std::optional<std::string> unreadableReason(const std::string& domain, const std::string& user) override;

private:
    struct Cached {
        bool loaded = false;
        dev_t dev = 0;
        ino_t ino = 0;
        off_t size = -1;
        timespec mtime{};
        Dictionary values;
        // Why the file on disk cannot be read as settings, or empty.
        std::string unreadable;
        // The file last said to be unreadable (device, inode, size, modification).
        std::tuple<dev_t, ino_t, off_t, time_t, long> reported{};
        // Keys set since the last synchronise; nullopt marks a removal.
        std::map<std::string, std::optional<Value>> pending;
    };
    Cached& refreshLocked(const std::string& path);
    bool writeOutLocked(const std::string& path, Cached& c);

    std::mutex mutex_;
    std::unordered_map<std::string, Cached> files_;
};

}  // namespace jx
