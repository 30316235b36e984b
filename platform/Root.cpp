#include "platform/Root.h"

#include <cstdlib>
#include <mutex>
#include <vector>

namespace jx {
namespace {
std::mutex gRootMutex;
std::string* gRoot = nullptr;
// Roots replaced by setRoot, kept alive and reachable: callers may still hold a reference.
std::vector<std::string*>& oldRoots() {
    static auto* roots = new std::vector<std::string*>();
    return *roots;
}

std::string normalised(std::string dir) {
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    return dir.empty() ? "/" : dir;
}
}  // namespace

const std::string& root() {
    std::lock_guard lock(gRootMutex);
    if (!gRoot) {
        const char* env = std::getenv("JOULIX_ROOT");
        gRoot = new std::string(normalised(env && *env ? env : "/"));
    }
    return *gRoot;
}

void setRoot(const std::string& dir) {
    std::lock_guard lock(gRootMutex);
    // The old string is kept alive: callers may still hold a reference to it.
    if (gRoot) oldRoots().push_back(gRoot);
    gRoot = new std::string(normalised(dir));
}

std::string rootPath(std::string_view absolutePath) {
    const std::string& r = root();
    if (r == "/") return std::string(absolutePath);
    if (!absolutePath.empty() && absolutePath.front() != '/') return r + "/" + std::string(absolutePath);
    return r + std::string(absolutePath);
}

}  // namespace jx
