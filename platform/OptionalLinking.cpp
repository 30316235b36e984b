#include "platform/OptionalLinking.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "platform/Root.h"
#include "platform/SystemLog.h"

namespace jx {

std::string frameworkDirectory() { return rootPath("/usr/lib/joulix/Frameworks/"); }

std::string frameworkPath(const std::string& name) { return frameworkDirectory() + name + ".so"; }

namespace {

// Code we load runs with the daemon's rights: only what root or we ourselves
// could have put there, and nobody else could have changed.
bool trustworthy(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return false;
    if (!S_ISREG(st.st_mode)) return false;
    if (st.st_uid != 0 && st.st_uid != ::geteuid()) return false;
    return (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

}  // namespace

Framework::Framework(const std::string& name) {
    const std::string path = frameworkPath(name);
    if (::access(path.c_str(), F_OK) != 0) return;  // absent: the usual case, nothing to say
    if (!trustworthy(path)) {
        systemLogf(kLogError, "framework %s is not owned by root or this user, or is writable by others: not loaded",
                   path.c_str());
        return;
    }
    handle_ = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle_) {
        const char* why = ::dlerror();
        systemLogf(kLogError, "framework %s cannot be loaded: %s", path.c_str(), why ? why : "unknown error");
    }
}

Framework::~Framework() {
    if (handle_) ::dlclose(handle_);
}

Framework::Framework(Framework&& o) noexcept : handle_(std::exchange(o.handle_, nullptr)) {}

Framework& Framework::operator=(Framework&& o) noexcept {
    if (this != &o) {
        if (handle_) ::dlclose(handle_);
        handle_ = std::exchange(o.handle_, nullptr);
    }
    return *this;
}

void* Framework::symbol(const char* name) const { return handle_ ? ::dlsym(handle_, name) : nullptr; }

void* Framework::release() { return std::exchange(handle_, nullptr); }

}  // namespace jx
