#include "platform/FileProtection.h"

#include <sys/xattr.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "platform/Root.h"

namespace jx {

const char* const kProtectionCompleteUntilFirstUserAuthentication = "CompleteUntilFirstUserAuthentication";

namespace {
const char* const kAttribute = "user.joulix.protection";
}

bool setFileProtectionClass(const std::string& path, const std::string& protectionClass, ProtectionError* error) {
    if (::setxattr(path.c_str(), kAttribute, protectionClass.data(), protectionClass.size(), 0) == 0) return true;
    if (error) {
        error->code = errno;
        error->domain = "NSPOSIXErrorDomain";
        error->userInfo = std::string("{NSFilePath = \"") + path + "\"; NSLocalizedDescription = \"" +
                          std::strerror(errno) + "\";}";
    }
    return false;
}

std::string fileProtectionClass(const std::string& path) {
    char buf[256];
    ssize_t n = ::getxattr(path.c_str(), kAttribute, buf, sizeof buf);
    return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : std::string();
}

}  // namespace jx

int MLVGetDeviceLockState(const void*) {
    std::ifstream in(jx::rootPath("/run/joulix/lock-state"));
    int state = 0;
    if (!(in >> state)) return 0;
    return state;
}
