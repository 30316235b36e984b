#include "platform/JXLoggerClass.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <set>

#include "platform/FileDescriptor.h"
#include "platform/JXLogger.h"
#include "platform/SystemLog.h"

JXLoggerClass::JXLoggerClass(std::string name, Factory make) : name_(std::move(name)), make_(std::move(make)) {}

std::shared_ptr<JXLogger> JXLoggerClass::logger() {
    std::lock_guard lock(mutex_);
    if (auto existing = made_.lock()) return existing;
    std::shared_ptr<JXLogger> made = make_ ? make_() : nullptr;
    made_ = made;
    return made;
}

namespace {

struct ClassTable {
    std::mutex mutex;
    std::map<std::string, JXLoggerClass*> classes;
};

// Never destroyed: built-in classes register from static initialisers and are
// looked up until the process ends.
ClassTable& classTable() {
    static ClassTable* table = new ClassTable;
    return *table;
}

}  // namespace

bool JXClassRegistry::registerClass(JXLoggerClass* loggerClass) {
    if (!loggerClass) return false;
    ClassTable& t = classTable();
    std::lock_guard lock(t.mutex);
    t.classes[loggerClass->name()] = loggerClass;
    return true;
}

void JXClassRegistry::removeClass(JXLoggerClass* loggerClass) {
    if (!loggerClass) return;
    ClassTable& t = classTable();
    std::lock_guard lock(t.mutex);
    auto it = t.classes.find(loggerClass->name());
    if (it != t.classes.end() && it->second == loggerClass) t.classes.erase(it);
}

JXLoggerClass* JXClassRegistry::lookUpClass(const std::string& name) {
    ClassTable& t = classTable();
    std::lock_guard lock(t.mutex);
    auto it = t.classes.find(name);
    return it == t.classes.end() ? nullptr : it->second;
}

namespace {

struct LibraryCloser {
    void operator()(void* handle) const { dlclose(handle); }
};
using LibraryHandle = std::unique_ptr<void, LibraryCloser>;

struct BundleTable {
    std::mutex mutex;
    // Loaded with RTLD_NODELETE: loggers made by a bundle may outlive any handle,
    // so closing one never unmaps the code they run.
    std::map<std::string, LibraryHandle> loaded;
    std::set<std::string> refusalsSaid;
};

BundleTable& bundleTable() {
    static BundleTable* table = new BundleTable;
    return *table;
}

bool ownerTrusted(const struct stat& st) { return st.st_uid == 0 || st.st_uid == geteuid(); }
bool writableByOthers(const struct stat& st) { return (st.st_mode & (S_IWGRP | S_IWOTH)) != 0; }

// Why a bundle is not trusted, or empty when it is.
std::string distrust(const std::string& what, const struct stat& st) {
    if (!ownerTrusted(st)) return what + " is owned by user " + std::to_string(st.st_uid);
    if (writableByOthers(st)) return what + " is writable by group or others";
    return {};
}

}  // namespace

JXLoggerClass* JXBundle::principalClass(const std::string& path) {
    BundleTable& t = bundleTable();
    std::lock_guard lock(t.mutex);

    auto refuse = [&](const std::string& why) -> JXLoggerClass* {
        // Said once per bundle: set-up may ask again, and a refusal does not change on its own.
        if (t.refusalsSaid.insert(path).second)
            jx::systemLogf(jx::kLogError, "plug-in %s not loaded: %s", path.c_str(), why.c_str());
        return nullptr;
    };

    void* handle = nullptr;
    if (auto it = t.loaded.find(path); it != t.loaded.end()) {
        handle = it->second.get();
    } else {
        // Checked on the open file, and the file loaded through that descriptor, so
        // what was checked is what is loaded even if the name is replaced meanwhile.
        // A FIFO or a device is never opened (that could block the start for ever, or act).
        struct stat st {};
        if (::stat(path.c_str(), &st) != 0) return nullptr;  // no bundle: not an error
        if (!S_ISREG(st.st_mode)) return refuse("not a regular file");
        jx::FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
        if (!fd.valid()) return nullptr;
        if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return refuse("not a regular file");
        if (std::string why = distrust("the bundle", st); !why.empty()) return refuse(why);
        std::string dir = path.substr(0, path.find_last_of('/') + 1);
        struct stat dst {};
        if (::stat(dir.empty() ? "." : dir.c_str(), &dst) != 0) return refuse("its directory cannot be read");
        if (std::string why = distrust("its directory", dst); !why.empty()) return refuse(why);

        // Loaded by its own name: a name under /proc/self/fd would be the same text for
        // every bundle opened on a reused descriptor number, and the loader would hand
        // back the library it loaded first. The directory is trusted (nobody else can
        // replace the file), and the file loaded must still be the file checked.
        handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
        if (!handle) return refuse(std::string("cannot be loaded: ") + dlerror());
        struct stat loadedSt {};
        if (::stat(path.c_str(), &loadedSt) != 0 || loadedSt.st_dev != st.st_dev || loadedSt.st_ino != st.st_ino) {
            dlclose(handle);
            return refuse("the file changed while it was loaded");
        }
        // Two names of one file (a link) would share one library, and one class under two names.
        for (auto& [otherPath, otherHandle] : t.loaded)
            if (otherHandle.get() == handle) {
                dlclose(handle);
                return refuse("it is the same library as " + otherPath);
            }
        t.loaded.emplace(path, LibraryHandle(handle));
    }

    auto principal = reinterpret_cast<JXPrincipalClassFunction>(dlsym(handle, JX_PRINCIPAL_CLASS_SYMBOL));
    if (!principal) return refuse("it exports no " JX_PRINCIPAL_CLASS_SYMBOL);
    return principal();
}
