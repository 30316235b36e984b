// The log file: naming, header, opening and closing.
#include "JoulixMain/JoulixMain.h"
#include "platform/JXLogWriter.h"

void JoulixMain::stopLoggingAndCloseFile() {
    JXLogWriter::sharedWriter().setLogFileEnabled(false);
    JXLogWriter::sharedWriter().setLogFile(nullptr);
    if (logFile && logFile != stdout) std::fclose(logFile);
    logFile = nullptr;
}
