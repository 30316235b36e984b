// A bundle logger for tests: writes "[TestBundle] sample=N;" per sample. Its
// per-logger setting "SampleDelay" (seconds) makes each sample take that long, and
// "Lines" (strings "[Tag] fields") are written too, as other loggers would.
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
        const jx::Value setting = settingForKey("Lines", name());
        if (const jx::Array* lines = setting.asArray())
            for (const jx::Value& line : *lines) {
                const std::string* text = line.asString();
                std::size_t close = text ? text->find("] ") : std::string::npos;
                if (text && !text->empty() && (*text)[0] == '[' && close != std::string::npos)
                    JXLogWriter::sharedWriter().logEntry(text->substr(1, close - 1), text->substr(close + 1));
            }
        JXEntry entry("TestBundle");
        entry.setObject(JXValue::valueWithLong(++samples_), "sample");
        JXLogWriter::sharedWriter().logEntry(entry);
    }

private:
    std::atomic<long> samples_{0};
};

}  // namespace

JX_BUNDLE_LOGGER(JXTestBundleLogger)
