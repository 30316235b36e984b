#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "platform/RunLoop.h"

namespace {

using jx::RunLoop;
using Result = RunLoop::Result;

struct Pipe {
    Pipe() { EXPECT_EQ(::pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0); }
    ~Pipe() {
        ::close(fds[0]);
        ::close(fds[1]);
    }
    void put() { EXPECT_EQ(::write(fds[1], "x", 1), 1); }
    void drain() {
        char buf[64];
        while (::read(fds[0], buf, sizeof buf) > 0) {
        }
    }
    int fds[2] = {-1, -1};
};

// Runs one turn of the loop on another thread; the future answers its result.
std::future<Result> turnOnAnotherThread(RunLoop& loop) {
    return std::async(std::launch::async, [&loop] { return loop.runUntilSourceHandled(-1); });
}

TEST(RunLoop, FinishedTimedOutAndStickyStop) {
    RunLoop loop;
    EXPECT_EQ(loop.runUntilSourceHandled(-1), Result::Finished);
    loop.setKeepAlive(true);
    EXPECT_EQ(loop.runUntilSourceHandled(10), Result::TimedOut);
    loop.setKeepAlive(false);

    loop.stop();  // before the run: the next run answers Stopped, once
    loop.stop();
    loop.perform([] {});
    EXPECT_EQ(loop.runUntilSourceHandled(-1), Result::Stopped);
    EXPECT_EQ(loop.runUntilSourceHandled(-1), Result::HandledSource);  // the block was kept
    EXPECT_EQ(loop.runUntilSourceHandled(-1), Result::Finished);
}

TEST(RunLoop, StopFromAnotherThreadEndsAWaitingRun) {
    RunLoop loop;
    loop.setKeepAlive(true);
    auto result = turnOnAnotherThread(loop);
    loop.stop();  // whether the run has begun waiting or not, it answers Stopped
    ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(result.get(), Result::Stopped);
}

TEST(RunLoop, PerformedBlocksRunInOrderOnTheLoopsThread) {
    RunLoop loop;
    loop.setKeepAlive(true);
    std::vector<int> seen;
    std::thread::id ranOn;
    auto result = turnOnAnotherThread(loop);
    std::thread([&] {
        for (int i = 1; i <= 3; ++i)
            loop.perform([&, i] {
                if (i == 1) ranOn = std::this_thread::get_id();  // surely in the other thread's turn
                seen.push_back(i);
            });
    }).join();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(result.get(), Result::HandledSource);
    while (seen.size() < 3) ASSERT_EQ(loop.runUntilSourceHandled(0), Result::HandledSource);
    EXPECT_EQ(seen, (std::vector<int>{1, 2, 3}));
    EXPECT_NE(ranOn, std::this_thread::get_id());

    // One turn runs every block queued so far; one performed by a block waits for the next.
    loop.perform([&] { seen.push_back(4); });
    loop.perform([&] {
        loop.perform([&] { seen.push_back(6); });
        seen.push_back(5);
    });
    EXPECT_EQ(loop.runUntilSourceHandled(0), Result::HandledSource);
    EXPECT_EQ(seen, (std::vector<int>{1, 2, 3, 4, 5}));
    EXPECT_EQ(loop.runUntilSourceHandled(0), Result::HandledSource);
    EXPECT_EQ(seen.back(), 6);
}

TEST(RunLoop, ReadableSourcesAreServedOnePerTurnUntilRemoved) {
    RunLoop loop;
    Pipe a, b;
    int aCalls = 0, bCalls = 0;
    auto idA = loop.addSource(a.fds[0], [&] { ++aCalls, a.drain(); });
    auto idB = loop.addSource(b.fds[0], [&] { ++bCalls, b.drain(); });
    ASSERT_NE(idA, 0u);
    ASSERT_NE(idB, idA);
    EXPECT_EQ(loop.addSource(-1, [] {}), 0u);

    EXPECT_EQ(loop.runUntilSourceHandled(0), Result::TimedOut);  // nothing readable yet
    a.put();
    EXPECT_EQ(loop.runUntilSourceHandled(1000), Result::HandledSource);
    EXPECT_EQ(aCalls + bCalls, 1);
    a.put(), b.put();
    EXPECT_EQ(loop.runUntilSourceHandled(1000), Result::HandledSource);
    EXPECT_EQ(aCalls + bCalls, 2);
    EXPECT_EQ(loop.runUntilSourceHandled(1000), Result::HandledSource);
    EXPECT_EQ(aCalls, 2);
    EXPECT_EQ(bCalls, 1);

    loop.removeSource(idA);
    loop.removeSource(idA);  // twice is harmless
    a.put();
    EXPECT_EQ(loop.runUntilSourceHandled(0), Result::TimedOut);
    EXPECT_EQ(aCalls, 2);
    // A source may remove itself; undrained, only the removal keeps it from firing again.
    loop.removeSource(idB);
    RunLoop::SourceId self = loop.addSource(a.fds[0], [&] { ++aCalls, loop.removeSource(self); });
    EXPECT_EQ(loop.runUntilSourceHandled(1000), Result::HandledSource);
    EXPECT_EQ(loop.runUntilSourceHandled(0), Result::Finished);
    EXPECT_EQ(aCalls, 3);
}

TEST(RunLoop, ASourceAddedFromAnotherThreadIsServedByTheWaitingRun) {
    RunLoop loop;
    loop.setKeepAlive(true);
    Pipe p;
    p.put();
    std::atomic<int> calls{0};
    auto result = turnOnAnotherThread(loop);
    loop.addSource(p.fds[0], [&] { ++calls, p.drain(); });
    ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(result.get(), Result::HandledSource);
    EXPECT_EQ(calls.load(), 1);
}

}  // namespace
