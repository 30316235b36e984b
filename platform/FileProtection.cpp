#include "platform/FileProtection.h"

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "platform/Root.h"
#include "platform/SafeFiles.h"

namespace jx {

const char* const kProtectionCompleteUntilFirstUserAuthentication = "CompleteUntilFirstUserAuthentication";

namespace {
const char* const kAttribute = "user.joulix.protection";
}

bool setFileProtectionClass(const std::string& path, const std::string& protectionClass, ProtectionError* error) {
    // Until the first unlock after boot the class keys do not exist, so no file can be
    // given this class: a log found then stays untouched until the unlock.
    const bool keysMissing =
        protectionClass == kProtectionCompleteUntilFirstUserAuthentication && MLVGetDeviceLockState(nullptr) == 1;
    if (keysMissing) errno = EPERM;
    else if (::lsetxattr(path.c_str(), kAttribute, protectionClass.data(), protectionClass.size(), 0) == 0) return true;
    if (error) {
        error->code = errno;
        error->domain = "NSPOSIXErrorDomain";
        error->userInfo = std::string("{NSFilePath = \"") + path + "\"; NSLocalizedDescription = \"" +
                          (keysMissing ? "locked since boot" : std::strerror(errno)) + "\";}";
    }
    return false;
}

std::string fileProtectionClass(const std::string& path) {
    char buf[256];
    ssize_t n = ::lgetxattr(path.c_str(), kAttribute, buf, sizeof buf);
    return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : std::string();
}

}  // namespace jx

bool jx::recordFirstUnlock(std::string* why) {
    const std::string path = rootPath("/run/joulix/lock-state");
    std::string reason;
    FileDescriptor fd = openRegularFile(path, O_WRONLY | O_CREAT | O_TRUNC, 0644, &reason);
    if (fd.valid() && ::write(fd.get(), "0\n", 2) == 2) return true;
    if (why) *why = path + ": " + (fd.valid() ? std::strerror(errno) : reason);
    return false;
}

int MLVGetDeviceLockState(const void*) {
    std::ifstream in(jx::rootPath("/run/joulix/lock-state"));
    int state = 0;
    if (!(in >> state)) return 0;
    return state;
}
