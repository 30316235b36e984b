// An example logger plug-in: the system's load averages and task counts from
// /proc/loadavg, one "[LoadAverage]" entry per sample.
//
// Build it as "JXLoadAverageLogger.bundle", put it in the plug-in directory owned
// by root and writable by nobody else, and either set JXLoggerDiscovery to
// "dynamic" or let the controller load it by name.
#include <fstream>

#include "platform/JXEntry.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLogger.h"
#include "platform/JXLoggerClass.h"
#include "platform/SystemLog.h"

namespace {

class JXLoadAverageLogger : public JXLogger {
public:
    JXLoadAverageLogger() : JXLogger("JXLoadAverageLogger") {}

protected:
    // Runs on the logger's own queue, so it needs no lock of its own.
    void logSample() override {
        std::ifstream in(path());
        double one = 0, five = 0, fifteen = 0;
        long running = 0, total = 0;
        char slash = 0;
        if (!(in >> one >> five >> fifteen >> running >> slash >> total) || slash != '/') {
            // Said once: a system without the file will not grow one.
            if (!saidMissing_) jx::systemLogf(jx::kLogNotice, "JXLoadAverageLogger: cannot read %s", path().c_str());
            saidMissing_ = true;
            return;
        }
        JXEntry entry("LoadAverage");
        entry.setObject(JXValue::valueWithDouble(one), "load1");
        entry.setObject(JXValue::valueWithDouble(five), "load5");
        entry.setObject(JXValue::valueWithDouble(fifteen), "load15");
        entry.setObject(JXValue::valueWithLong(running), "runnable");
        entry.setObject(JXValue::valueWithLong(total), "tasks");
        JXLogWriter::sharedWriter().logEntry(entry);
    }

private:
    // A per-logger setting, so that a test or a container can point it elsewhere.
    std::string path() const {
        jx::Value v = settingForKey("Path", name());
        const std::string* s = v.asString();
        return s ? *s : "/proc/loadavg";
    }
    bool saidMissing_ = false;
};

}  // namespace

JX_BUNDLE_LOGGER(JXLoadAverageLogger)
