// File protection classes, kept in the extended attribute "user.joulix.protection",
// and the device lock state.
#pragma once

#include <string>

namespace jx {

// The class readable from the first unlock after boot onward.
extern const char* const kProtectionCompleteUntilFirstUserAuthentication;

struct ProtectionError {
    long code = 0;
    std::string domain;
    std::string userInfo;
};

// Sets the class of the item; false (with the error) when there is no item, the
// file system keeps no extended attributes, or (for the class readable from the
// first unlock on) the device is locked since boot.
bool setFileProtectionClass(const std::string& path, const std::string& protectionClass, ProtectionError* error);
// The class of the item, or an empty string.
std::string fileProtectionClass(const std::string& path);
// The lock-state service's side of the first unlock: the state becomes 0.
bool recordFirstUnlock(std::string* why);

}  // namespace jx

// The lock state: the number in <root>/run/joulix/lock-state; absent or unreadable
// is 0 (unlocked); 1 is locked since boot.
int MLVGetDeviceLockState(const void* options);
