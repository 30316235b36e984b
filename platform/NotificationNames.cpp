#include "platform/NotificationNames.h"

const char* const JXStateChanged = "com.brindle.joulix.StateChanged";
const char* const JXSharedRunLoopStopped = "com.brindle.joulix.SharedRunLoopStopped";
const char* const JXExitRequest = "com.brindle.joulix.ExitRequest";
const char* const JXLogStateRequest = "com.brindle.joulix.LogStateRequest";
const char* const JXConnectedStateNo = "com.brindle.joulix.ConnectedStateNo";
const char* const JXFileRollNotification = "com.brindle.joulix.FileRoll";
const char* const JXFlushRadiosNotification = "com.brindle.joulix.FlushRadios";
const char* const JXCommitRadiosNotification = "com.brindle.joulix.CommitRadios";
const char* const JXFirstUnlockNotification = "com.brindle.mobile.lockvaultd.first_unlock";
