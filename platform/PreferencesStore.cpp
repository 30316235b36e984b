#include "platform/PreferencesStore.h"

#include <unistd.h>

#include <atomic>
#include <filesystem>

#include "platform/JXUtilities.h"
#include "platform/PropertyList.h"
#include "platform/Root.h"

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
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        c.loaded = true;
        c.size = -1;
        c.values.clear();
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
    if (auto v = readPropertyListFile(path))
        if (const Dictionary* d = v->asDictionary()) c.values = *d;
    return c;
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
    Dictionary merged = c.values;
    for (auto& [k, v] : c.pending) {
        if (v) merged[k] = *v;
        else merged.erase(k);
    }
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
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

}  // namespace jx
