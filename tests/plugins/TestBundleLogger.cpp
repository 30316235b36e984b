// A bundle logger for tests: writes "[TestBundle] sample=N;" per sample. Its
// per-logger setting "SampleDelay" (seconds) makes each sample take that long.
#include <unistd.h>

#include <atomic>

#include "platform/JXEntry.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLogger.h"
#include "platform/JXLoggerClass.h"

namespace {

class JXTestBundleLogger : public JXLogger {
public:
    JXTestBundleLogger() : JXLogger("JXTestBundleLogger") {}

protected:
    void logSample() override {
        jx::Value delay = settingForKey("SampleDelay", name());
        if (!delay.isNil()) ::usleep(static_cast<useconds_t>(delay.doubleValue() * 1e6));
        JXEntry entry("TestBundle");
        entry.setObject(JXValue::valueWithLong(++samples_), "sample");
        JXLogWriter::sharedWriter().logEntry(entry);
    }

private:
    std::atomic<long> samples_{0};
};

}  // namespace

JX_BUNDLE_LOGGER(JXTestBundleLogger)
