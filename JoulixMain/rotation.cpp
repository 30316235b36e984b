// Rotation schedule and rollover timer.
#include "JoulixMain/JoulixMain.h"

// The decision between continue, roll, missing file and new arrives with the log file.
void JoulixMain::startLoggingToFile() {}
