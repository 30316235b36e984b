// Sampling timers: one per logger, on its queue, from its own setting.
#include <atomic>

#include "platform/JXUtilities.h"
#include "platform/LoggerTimer.h"
#include "tests/loggers/LoggerTree.h"

using jxtest::waitFor;
using LoggerTimerTest = LoggerTree;

TEST_F(LoggerTimerTest, TicksOnTheQueueUntilCancelled) {
    jx::SerialQueue queue("test.timer");
    jx::LoggerTimer timer;
    std::atomic<int> ticks{0};
    std::atomic<bool> onQueue{true};
    timer.setPeriod(0.005, queue, [&] {
        if (!queue.isCurrent()) onQueue = false;
        ++ticks;
    });
    EXPECT_TRUE(timer.armed());
    ASSERT_TRUE(waitFor([&] { return ticks.load() >= 3; }));
    EXPECT_TRUE(onQueue.load());

    // Cancelled between two blocks, no block handed over before runs after.
    int atCancel = 0;
    queue.sync([&] {
        timer.cancel();
        atCancel = ticks.load();
    });
    queue.sync([] {});
    EXPECT_EQ(ticks.load(), atCancel);
    EXPECT_FALSE(timer.armed());

    // A non-positive period does not arm.
    timer.setPeriod(-1.0, queue, [] {});
    EXPECT_FALSE(timer.armed());
}

// A sampling logger that counts its ticks.
class TickingLogger : public JXSamplingLogger {
public:
    TickingLogger() : JXSamplingLogger("JXTickingTestLogger", 0.005) {}
    std::atomic<int> ticks{0};

protected:
    void write(bool everything) override {
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
    ASSERT_TRUE(waitFor([&] { return logger->ticks.load() >= 2; }));

    // A changed period is taken at the next tick, without a triggered sample.
    setting("JXTickingTestLogger", "SamplePeriod", jx::Value(2.5));
    EXPECT_TRUE(waitFor([&] { return period() == 2.5; }));

    setting("JXTickingTestLogger", "SamplePeriod", jx::Value(0));
    int atStop = 0;
    logger->loggerSerialQueue().sync([&] {
        logger->log();
        atStop = logger->ticks.load();
    });
    EXPECT_EQ(period(), 0);
    EXPECT_EQ(logger->ticks.load(), atStop);
}
