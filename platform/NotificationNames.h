// Names of the notifications the logger-support library defines.
#pragma once

extern const char* const JXStateChanged;
extern const char* const JXSharedRunLoopStopped;
extern const char* const JXExitRequest;
extern const char* const JXLogStateRequest;
extern const char* const JXConnectedStateNo;
extern const char* const JXFileRollNotification;
extern const char* const JXFlushRadiosNotification;
extern const char* const JXCommitRadiosNotification;
// Posted by the lock-vault service at the first unlock after boot.
extern const char* const JXFirstUnlockNotification;
