#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/SerialQueue.h"
#include "tests/support/TestSupport.h"

namespace {

using jx::SerialQueue;

TEST(SerialQueue, RunsTasksInOrderOnOneOtherThreadAndDrainsBeforeDestruction) {
    std::vector<int> seen;  // touched only by the queue's tasks until it is gone
    std::vector<std::thread::id> threads;
    {
        SerialQueue q("test.order");
        for (int i = 0; i < 200; ++i)
            q.async([&, i] {
                seen.push_back(i);
                threads.push_back(std::this_thread::get_id());
            });
    }
    ASSERT_EQ(seen.size(), 200u);
    for (int i = 0; i < 200; ++i) EXPECT_EQ(seen[i], i);
    for (auto id : threads) EXPECT_EQ(id, threads.front());
    EXPECT_NE(threads.front(), std::this_thread::get_id());
}

TEST(SerialQueue, SyncFromItsOwnTaskRunsInline) {
    SerialQueue q("test.reentrant"), other("test.other");
    other.sync([&] { EXPECT_FALSE(q.isCurrent()); });
    std::vector<int> order;
    bool current = false, otherCurrent = true;
    q.sync([&] {
        current = q.isCurrent();
        otherCurrent = other.isCurrent();
        order.push_back(1);
        q.sync([&] {
            order.push_back(2);
            q.sync([&] { order.push_back(3); });
        });
        order.push_back(4);
    });
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
    EXPECT_TRUE(current);
    EXPECT_FALSE(otherCurrent);

    // Inline means ahead of tasks already queued behind the running one.
    std::vector<int> later;
    q.sync([&] {
        q.async([&] { later.push_back(2); });
        q.sync([&] { later.push_back(1); });
    });
    q.sync([] {});  // queued after the task the first sync queued
    EXPECT_EQ(later, (std::vector<int>{1, 2}));
}

TEST(SerialQueue, ManyProducersLoseNothingAndKeepEachProducersOrder) {
    SerialQueue q("test.producers");
    constexpr int kThreads = 8, kEach = 500;
    std::vector<std::vector<int>> seen(kThreads);  // touched only by the queue's tasks
    int running = 0, overlaps = 0;
    std::vector<std::thread> producers;
    for (int t = 0; t < kThreads; ++t)
        producers.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                auto task = [&, t, i] {
                    if (++running != 1) ++overlaps;
                    seen[t].push_back(i);
                    --running;
                };
                if (i % 50 == 0) q.sync(task);
                else q.async(task);
            }
        });
    for (auto& p : producers) p.join();
    q.sync([] {});
    EXPECT_EQ(overlaps, 0);
    for (int t = 0; t < kThreads; ++t) {
        ASSERT_EQ(seen[t].size(), static_cast<std::size_t>(kEach)) << "producer " << t;
        for (int i = 0; i < kEach; ++i) ASSERT_EQ(seen[t][i], i) << "producer " << t;
    }
}

TEST(SerialQueue, ThrowingTasksAreLoggedAndSyncPassesTheExceptionOn) {
    jxtest::LogCapture log;
    SerialQueue q("test.throws");
    q.async([] { throw std::runtime_error("boom"); });
    q.async([] { throw 42; });
    EXPECT_THROW(q.sync([] { throw std::logic_error("to the caller"); }), std::logic_error);
    bool ran = false;
    q.sync([&] { ran = true; });
    EXPECT_TRUE(ran);
    EXPECT_TRUE(log.contains("test.throws: task raised boom"));
    EXPECT_TRUE(log.contains("test.throws: task raised an exception"));
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

    // The same, with the task dropping the reference itself while it runs.
    auto holder = std::make_shared<std::shared_ptr<Owner>>(std::make_shared<Owner>(&destroyed));
    (*holder)->queue.async([holder] { holder->reset(); });
    holder.reset();
    ASSERT_TRUE(jxtest::waitFor([&] { return destroyed.load() == 21; }));
}

}  // namespace
