// Notifications, signals and triggers.
#include "JoulixMain/JoulixMain.h"
#include "platform/JXUtilities.h"

// Observers of the exit, status and first-unlock notifications arrive with the
// system-wide centre's observing side; set-up and removal have nothing to do yet.
void JoulixMain::setupNotifications() {}
void JoulixMain::stopNotifications() {}

void JoulixMain::joulixExitRequested() {
    setExitRequested(true);
    auto loop = JXUtilities::sharedJXCFRunLoop();
    if (loop) loop->stop();
    setShouldKeepRunning(false);
    // The stop can reach the run thread before the flag turns: wake it once more so
    // that it sees the flag, rather than going back to wait for the next event.
    if (loop) loop->perform([] {});
}

// Making every logger log now belongs with the registry's trigger.
void JoulixMain::triggerAllLoggers(const std::string&) {}
