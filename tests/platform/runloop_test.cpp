// Run loops, serial queues and the signal thread.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <memory>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/RunLoop.h"
#include "platform/SerialQueue.h"
#include "platform/SignalThread.h"
#include "tests/support/TestSupport.h"

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
    // A readable source's work: counts the call and empties the pipe.
    void serve() {
        ++calls;
        for (char buf[64]; ::read(fds[0], buf, sizeof buf) > 0;) {
        }
    }
    int fds[2] = {-1, -1};
    std::atomic<int> calls{0};
};

// Runs one turn of the loop on another thread; the future answers its result.
std::future<Result> turnOnAnotherThread(RunLoop& loop) {
    return std::async(std::launch::async, [&loop] { return loop.runUntilSourceHandled(-1); });
}

TEST(RunLoop, FinishedTimedOutStickyStopAndStopFromAnotherThread) {
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
}

TEST(RunLoop, ReadableSourcesAreServedOnePerTurnUntilRemoved) {
    RunLoop loop;
    Pipe a, b;
    auto idA = loop.addSource(a.fds[0], [&] { a.serve(); });
    auto idB = loop.addSource(b.fds[0], [&] { b.serve(); });
    a.put();
    EXPECT_EQ(loop.runUntilSourceHandled(1000), Result::HandledSource);
    EXPECT_EQ(a.calls + b.calls, 1);
    a.put();
    b.put();
    EXPECT_EQ(loop.runUntilSourceHandled(1000), Result::HandledSource);
    EXPECT_EQ(a.calls + b.calls, 2);
    EXPECT_EQ(loop.runUntilSourceHandled(1000), Result::HandledSource);
    EXPECT_EQ(a.calls, 2);
    EXPECT_EQ(b.calls, 1);

    loop.removeSource(idA);
    a.put();
    EXPECT_EQ(loop.runUntilSourceHandled(0), Result::TimedOut);
    EXPECT_EQ(a.calls, 2);
    // A source may remove itself; undrained, only the removal keeps it from firing again.
    loop.removeSource(idB);
    RunLoop::SourceId self = loop.addSource(a.fds[0], [&] {
        ++a.calls;
        loop.removeSource(self);
    });
    EXPECT_EQ(loop.runUntilSourceHandled(1000), Result::HandledSource);
    EXPECT_EQ(loop.runUntilSourceHandled(0), Result::Finished);
    EXPECT_EQ(a.calls, 3);
}

TEST(RunLoop, ASourceAddedFromAnotherThreadIsServedByTheWaitingRun) {
    RunLoop loop;
    loop.setKeepAlive(true);
    Pipe p;
    p.put();
    auto result = turnOnAnotherThread(loop);
    loop.addSource(p.fds[0], [&] { p.serve(); });
    ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(result.get(), Result::HandledSource);
    EXPECT_EQ(p.calls, 1);
}

using jx::SerialQueue;

TEST(SerialQueue, SyncFromItsOwnTaskRunsInline) {
    SerialQueue q("test.reentrant");
    std::vector<int> order;
    bool current = false;
    q.sync([&] {
        current = q.isCurrent();
        order.push_back(1);
        q.sync([&] { order.push_back(2); });
        order.push_back(3);
    });
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    EXPECT_TRUE(current);

    // Inline means ahead of tasks already queued behind the running one.
    std::vector<int> later;
    q.sync([&] {
        q.async([&] { later.push_back(2); });
        q.sync([&] { later.push_back(1); });
    });
    q.sync([] {});  // queued after the task the first sync queued
    EXPECT_EQ(later, (std::vector<int>{1, 2}));
}

TEST(SerialQueue, ManyProducersLoseNothingKeepEachOrderAndTheQueueDrainsBeforeDestruction) {
    constexpr int kThreads = 8, kEach = 500;
    std::vector<std::vector<int>> seen(kThreads);  // touched only by the queue's tasks until it is gone
    std::set<std::thread::id> threads;             // where the asynchronous ones ran
    int running = 0, overlaps = 0;
    {
        SerialQueue q("test.producers");
        std::vector<std::thread> producers;
        for (int t = 0; t < kThreads; ++t)
            producers.emplace_back([&, t] {
                for (int i = 0; i < kEach; ++i) {
                    auto task = [&, t, i, async = i % 50 != 0] {
                        if (++running != 1) ++overlaps;
                        seen[t].push_back(i);
                        if (async) threads.insert(std::this_thread::get_id());
                        --running;
                    };
                    if (i % 50 == 0)
                        q.sync(task);
                    else
                        q.async(task);
                }
            });
        for (auto& p : producers) p.join();
    }
    EXPECT_EQ(overlaps, 0);
    EXPECT_EQ(threads.size(), 1u);
    EXPECT_FALSE(threads.contains(std::this_thread::get_id()));
    for (int t = 0; t < kThreads; ++t) {
        ASSERT_EQ(seen[t].size(), static_cast<std::size_t>(kEach)) << "producer " << t;
        for (int i = 0; i < kEach; ++i) ASSERT_EQ(seen[t][i], i) << "producer " << t;
    }
}

TEST(SerialQueue, ThrowingTasksAreLoggedAndSyncPassesTheExceptionOn) {
    jxtest::LogCapture log;
    SerialQueue q("test.throws");
    q.async([] { throw std::runtime_error("boom"); });
    EXPECT_THROW(q.sync([] { throw std::logic_error("to the caller"); }), std::logic_error);
    bool ran = false;
    q.sync([&] { ran = true; });
    EXPECT_TRUE(ran);
    EXPECT_TRUE(log.contains("test.throws: task raised boom"));
}

// An object owning a queue whose last reference goes inside one of the queue's tasks.
struct Owner {
    // Counts the owner as gone only once every member, the queue included, is destroyed.
    struct Sentinel {
        std::atomic<int>* destroyed;
        ~Sentinel() { destroyed->fetch_add(1); }
    };
    explicit Owner(std::atomic<int>* destroyed) : sentinel{destroyed} {}
    Sentinel sentinel;
    std::vector<int> work;
    SerialQueue queue{"test.owner"};
};

TEST(SerialQueue, OwnerReleasedInsideItsOwnTask) {
    std::atomic<int> destroyed{0};
    for (int round = 1; round <= 20; ++round) {
        auto owner = std::make_shared<Owner>(&destroyed);
        for (int i = 0; i < 10; ++i) owner->queue.async([o = owner.get(), i] { o->work.push_back(i); });
        // The last strong reference travels into the final task and dies with it, on the worker.
        owner->queue.async([o = std::move(owner)] { EXPECT_EQ(o->work.size(), 10u); });
        ASSERT_TRUE(jxtest::waitFor([&] { return destroyed.load() == round; })) << "round " << round;
    }
}

std::atomic<std::thread::id> gHandlerThread;

void recordingHandler(int signo) {
    if (signo == SIGUSR2) gHandlerThread = std::this_thread::get_id();
}

TEST(SignalThread, HandlerRunsOnItsOwnThread) {
    jx::setSignalHandler(SIGUSR2, recordingHandler);
    ASSERT_EQ(raise(SIGUSR2), 0);
    ASSERT_TRUE(jxtest::waitFor([] { return gHandlerThread.load() != std::thread::id(); }));
    EXPECT_NE(gHandlerThread.load(), std::this_thread::get_id());
    jx::ignoreSignal(SIGUSR2);
}

}  // namespace
