// Notifications, signals and triggers.
#include "JoulixMain/JoulixMain.h"
#include "platform/JXUtilities.h"

// Observers of the exit, status and first-unlock notifications arrive with the
// system-wide centre's observing side; set-up and removal have nothing to do yet.
void JoulixMain::setupNotifications() {}
void JoulixMain::stopNotifications() {}

void JoulixMain::joulixExitRequested() {
    setExitRequested(true);
    if (auto loop = JXUtilities::sharedJXCFRunLoop()) loop->stop();
    setShouldKeepRunning(false);
}

// Making every logger log now belongs with the registry's trigger.
void JoulixMain::triggerAllLoggers(const std::string&) {}
