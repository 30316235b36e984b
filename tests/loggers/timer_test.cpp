// Sampling timers: one per logger, on its queue, from its own setting.
#include <atomic>

#include "tests/loggers/LoggerTree.h"

using jxtest::waitFor;
using LoggerTimerTest = LoggerTree;

// A sampling logger that counts its ticks and notes one that came off its queue.
class TickingLogger : public JXSamplingLogger {
public:
    TickingLogger() : JXSamplingLogger("JXTickingTestLogger", 0.005) {}
    std::atomic<int> ticks{0};
    std::atomic<bool> onQueue{true};

protected:
    void write(bool everything) override {
        if (!loggerSerialQueue().isCurrent()) onQueue = false;
        if (!everything) ++ticks;
    }
};

TEST_F(LoggerTimerTest, ATriggeredSampleArmsTheTimerFromTheSettingAndZeroStopsIt) {
    auto logger = std::make_shared<TickingLogger>();
    auto period = [&] {
        double p = -1;
        logger->loggerSerialQueue().sync([&] { p = logger->samplePeriod(); });
        return p;
    };
    logger->loggerSerialQueue().sync([&] { logger->log(); });
    EXPECT_EQ(period(), 0.005);
    ASSERT_TRUE(waitFor([&] { return logger->ticks.load() >= 3; }));
    EXPECT_TRUE(logger->onQueue.load());

    // Stopped between two blocks while ticking: no tick handed over before runs after.
    setting("JXTickingTestLogger", "SamplePeriod", jx::Value(0));
    int atStop = 0;
    logger->loggerSerialQueue().sync([&] {
        logger->log();
        atStop = logger->ticks.load();
    });
    EXPECT_EQ(period(), 0);
    EXPECT_EQ(logger->ticks.load(), atStop);

    // A setting below a second samples once a second; a changed one is taken at the
    // next tick, without a triggered sample.
    setting("JXTickingTestLogger", "SamplePeriod", jx::Value(0.01));
    logger->loggerSerialQueue().sync([&] { logger->log(); });
    EXPECT_EQ(period(), 1);
    setting("JXTickingTestLogger", "SamplePeriod", jx::Value(2.5));
    EXPECT_TRUE(waitFor([&] { return period() == 2.5; }));
}
