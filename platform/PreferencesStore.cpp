#include "platform/PreferencesStore.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>

#include "platform/JXUtilities.h"
#include "platform/PropertyList.h"
#include "platform/Root.h"
#include "platform/SafeFiles.h"
#include "platform/SystemLog.h"

namespace jx {
namespace {
std::atomic<PreferencesStore*> gOverride{nullptr};

std::string homeOf(const std::string& user) { return "/var/" + user; }
}  // namespace

PreferencesStore& PreferencesStore::shared() {
    if (PreferencesStore* s = gOverride.load()) return *s;
    static FilePreferencesStore store;
    return store;
}

void PreferencesStore::setShared(PreferencesStore* store) { gOverride.store(store); }

std::string preferencesPath(const std::string& domain, const std::string& user) {
    return rootPath(homeOf(user) + "/Library/Preferences/" + domain + ".plist");
}

FilePreferencesStore::Cached& FilePreferencesStore::refreshLocked(const std::string& path) {
    Cached& c = files_[path];
    // The file itself: "mobile" owns the directory, and a link there could name any file.
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) {
        c.loaded = true;
        c.size = -1;
        c.values.clear();
        c.unreadable.clear();
        return c;
    }
    bool same = c.loaded && c.size == st.st_size && c.dev == st.st_dev && c.ino == st.st_ino &&
                c.mtime.tv_sec == st.st_mtim.tv_sec && c.mtime.tv_nsec == st.st_mtim.tv_nsec;
    if (same) return c;
    c.loaded = true;
    c.dev = st.st_dev;
    c.ino = st.st_ino;
    c.size = st.st_size;
    c.mtime = st.st_mtim;
    c.values.clear();
    c.unreadable.clear();
    std::string error;
    if (S_ISLNK(st.st_mode)) error = "it is a symbolic link: settings are never read or written through one";
    else if (auto v = readPropertyListFile(path, &error)) {
        if (const Dictionary* d = v->asDictionary()) c.values = *d;
        else error = "it holds no dictionary";
    }
    if (!error.empty()) {
        // Said once per change of the file: a read that found nothing new says nothing.
        c.unreadable = error;
        const std::tuple<dev_t, ino_t, off_t, time_t, long> stamp{st.st_dev, st.st_ino, st.st_size, st.st_mtim.tv_sec,
                                                                  st.st_mtim.tv_nsec};
        if (c.reported == stamp) return c;
        c.reported = stamp;
        systemLogf(kLogError, "%s cannot be read as settings (%s): its settings are ignored, and it is not written over",
                   path.c_str(), error.c_str());
    }
    return c;
}

std::optional<std::string> FilePreferencesStore::unreadableReason(const std::string& domain, const std::string& user) {
    std::string path = preferencesPath(domain, user);
    std::lock_guard lock(mutex_);
    Cached& c = refreshLocked(path);
    if (c.unreadable.empty()) return std::nullopt;
    return c.unreadable;
}

Value FilePreferencesStore::copyValue(const std::string& key, const std::string& domain, const std::string& user) {
    std::string path = preferencesPath(domain, user);
    std::lock_guard lock(mutex_);
    Cached& c = refreshLocked(path);
    if (auto p = c.pending.find(key); p != c.pending.end()) return p->second ? *p->second : Value();
    auto it = c.values.find(key);
    return it == c.values.end() ? Value() : it->second;
}

Value FilePreferencesStore::copyAppValue(const std::string& key, const std::string& domain) {
    return copyValue(key, domain, JXUtilities::runningAsUser());
}

void FilePreferencesStore::setValue(const std::string& key, const Value& value, const std::string& domain,
                                    const std::string& user) {
    std::string path = preferencesPath(domain, user);
    std::lock_guard lock(mutex_);
    Cached& c = files_[path];
    c.pending[key] = value.isNil() ? std::nullopt : std::optional<Value>(value);
}

bool FilePreferencesStore::writeOutLocked(const std::string& path, Cached& c) {
    if (c.pending.empty()) return true;
    // Merge into what is on disk now, so keys another process wrote meanwhile survive.
    c.loaded = false;
    refreshLocked(path);
    // A file that did not read is somebody's settings all the same: writing the
    // merge would replace every one of them with the few keys set here.
    if (!c.unreadable.empty()) {
        systemLogf(kLogError, "settings not written: %s cannot be read (%s)", path.c_str(), c.unreadable.c_str());
        return false;
    }
    Dictionary merged = c.values;
    for (auto& [k, v] : c.pending) {
        if (v) merged[k] = *v;
        else merged.erase(k);
    }
    // The preferences directory may be "mobile"'s: made through no link.
    openParentOf(path, true);
    bool ok = writePropertyListFileAtomically(path, Value(merged));
    if (ok) c.pending.clear();
    c.loaded = false;
    refreshLocked(path);
    return ok;
}

bool FilePreferencesStore::synchronize(const std::string& domain, const std::string& user) {
    std::string path = preferencesPath(domain, user);
    std::lock_guard lock(mutex_);
    Cached& c = files_[path];
    bool ok = writeOutLocked(path, c);
    refreshLocked(path);
    return ok;
}

bool FilePreferencesStore::synchronizeApp(const std::string& domain) {
    return synchronize(domain, JXUtilities::runningAsUser());
}

Dictionary FilePreferencesStore::copyDomain(const std::string& domain, const std::string& user) {
    std::string path = preferencesPath(domain, user);
    std::lock_guard lock(mutex_);
    Cached& c = refreshLocked(path);
    Dictionary d = c.values;
    for (auto& [k, v] : c.pending) {
        if (v) d[k] = *v;
        else d.erase(k);
    }
    return d;
}

namespace {

struct ManagedCache {
    std::mutex mutex;
    std::map<std::string, std::shared_ptr<const Dictionary>> domains;
    // The file (size, modification) last reported unreadable, so that a broken file
    // tried at every miss is said once, not at every read.
    std::map<std::string, std::pair<off_t, std::int64_t>> reported;
};

ManagedCache& managedCache() {
    // Never destroyed: loggers read settings until the process ends.
    static ManagedCache* cache = new ManagedCache;
    return *cache;
}

}  // namespace

std::string managedPreferencesPath(const std::string& domain) {
    // Keep the doubled slash: the managed-preferences path is formed that way.
    return rootPath("/Library/Managed Preferences/mobile/" + std::string("/") + domain + ".plist");
}

namespace {

// Shared, not copied: a setting is looked up in it at every miss of the store.
std::shared_ptr<const Dictionary> loadManaged(const std::string& domain) {
    ManagedCache& cache = managedCache();
    {
        std::lock_guard lock(cache.mutex);
        if (auto it = cache.domains.find(domain); it != cache.domains.end()) return it->second;
    }
    // Loaded outside the lock; two threads missing at once may both load it.
    const std::string path = managedPreferencesPath(domain);
    std::string error;
    std::optional<Value> loaded = readPropertyListFile(path, &error);
    if (loaded && !loaded->isDictionary()) error = "it holds no dictionary";
    std::lock_guard lock(cache.mutex);
    if (!error.empty()) {
        struct stat st {};
        ::stat(path.c_str(), &st);
        std::pair<off_t, std::int64_t> stamp{st.st_size, st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec};
        auto [it, fresh] = cache.reported.try_emplace(path, stamp);
        if (fresh || it->second != stamp) {
            it->second = stamp;
            systemLogf(kLogError, "%s cannot be read as settings (%s): its settings are ignored", path.c_str(),
                       error.c_str());
        }
        return nullptr;
    }
    if (!loaded) return nullptr;
    auto made = std::make_shared<const Dictionary>(*loaded->asDictionary());
    return cache.domains.emplace(domain, made).first->second;
}

}  // namespace

Dictionary managedPreferences(const std::string& domain) {
    auto d = loadManaged(domain);
    return d ? *d : Dictionary();
}

Value managedPreferenceValue(const std::string& key, const std::string& domain) {
    auto d = loadManaged(domain);
    if (!d) return {};
    auto it = d->find(key);
    return it == d->end() ? Value() : it->second;
}

void resetManagedPreferencesForTesting() {
    ManagedCache& cache = managedCache();
    std::lock_guard lock(cache.mutex);
    cache.domains.clear();
    cache.reported.clear();
}

}  // namespace jx
