// The logger registry and plug-in discovery.
#include "JoulixMain/JoulixMain.h"

// Filled from the core list and the plug-in directory once the registry lands;
// until then the registry stays as the daemon's entry code or a test leaves it.
void JoulixMain::setupLoggers() {}
