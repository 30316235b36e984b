#include <gtest/gtest.h>

#include <signal.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "platform/SignalThread.h"
#include "tests/support/TestSupport.h"

namespace {

std::atomic<int> gCalls{0};
std::atomic<int> gLastSignal{0};
std::mutex gThreadMutex;
std::thread::id gHandlerThread;

void recordingHandler(int signo) {
    {
        std::lock_guard lock(gThreadMutex);  // allowed: this is not the raw handler
        gHandlerThread = std::this_thread::get_id();
    }
    gLastSignal = signo;
    ++gCalls;
}

TEST(SignalThread, HandlerRunsOnItsOwnThread) {
    gCalls = 0;
    // Numbers outside the table are refused without touching it.
    jx::setSignalHandler(0, recordingHandler);
    jx::setSignalHandler(1000, recordingHandler);
    jx::ignoreSignal(-1);
    jx::setSignalHandler(SIGUSR2, recordingHandler);
    ASSERT_EQ(raise(SIGUSR2), 0);
    ASSERT_TRUE(jxtest::waitFor([] { return gCalls.load() >= 1; }));
    EXPECT_EQ(gLastSignal.load(), SIGUSR2);
    {
        std::lock_guard lock(gThreadMutex);
        EXPECT_NE(gHandlerThread, std::this_thread::get_id());
    }

    // A second one is delivered as well.
    int before = gCalls.load();
    ASSERT_EQ(raise(SIGUSR2), 0);
    ASSERT_TRUE(jxtest::waitFor([&] { return gCalls.load() > before; }));

    // Ignored from now on: the process goes on (SIGUSR2 would otherwise end it) and nothing is called.
    jx::ignoreSignal(SIGUSR2);
    int settled = gCalls.load();
    ASSERT_EQ(raise(SIGUSR2), 0);
    jx::setSignalHandler(SIGUSR1, recordingHandler);
    ASSERT_EQ(raise(SIGUSR1), 0);  // handled after anything the ignored signal could have caused
    ASSERT_TRUE(jxtest::waitFor([] { return gLastSignal.load() == SIGUSR1; }));
    EXPECT_EQ(gCalls.load(), settled + 1);
    jx::ignoreSignal(SIGUSR1);
}

}  // namespace
