// The system-wide centre over a private bus: delivery on the observer's run loop,
// filtering by name, removal, and life without a bus.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <thread>

#include "platform/NotificationCenter.h"
#include "tests/support/TestSupport.h"

namespace {

using Center = jx::SystemNotificationCenter;

// A thread serving its own run loop, as the daemon's run thread does.
class LoopThread {
public:
    LoopThread() {
        std::promise<std::shared_ptr<jx::RunLoop>> made;
        auto future = made.get_future();
        thread_ = std::thread([this, &made] {
            loop_ = jx::RunLoop::current();
            loop_->setKeepAlive(true);
            id_ = std::this_thread::get_id();
            made.set_value(loop_);
            while (!done_) loop_->runUntilSourceHandled(-1);
        });
        future.wait();
    }
    ~LoopThread() {
        done_ = true;
        loop_->perform([] {});
        thread_.join();
    }
    const std::shared_ptr<jx::RunLoop>& loop() const { return loop_; }
    std::thread::id id() const { return id_; }
    // Runs a block on the loop's thread and waits for it.
    void run(const std::function<void()>& block) {
        std::promise<void> ran;
        loop_->perform([&] {
            block();
            ran.set_value();
        });
        ran.get_future().wait();
    }

private:
    std::shared_ptr<jx::RunLoop> loop_;
    std::thread::id id_;
    std::atomic<bool> done_{false};
    std::thread thread_;
};

// A callback that counts its calls.
Center::Callback counting(std::atomic<int>& calls) {
    return [&calls](Center*, void*, const std::string&, const void*, const jx::Value&) { ++calls; };
}

class SystemNotificationTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!bus.available()) GTEST_SKIP() << "dbus-daemon is not installed";
    }
    jxtest::PrivateBus bus;
    Center& center = Center::shared();
};

TEST_F(SystemNotificationTest, ObserversGetTheirNameOnTheirLoopsThread) {
    LoopThread runThread;
    std::mutex mutex;
    std::vector<std::string> calls;
    std::thread::id calledOn;
    int a = 0, b = 0;
    auto recorder = [&](const std::string& who) {
        return [&, who](Center* c, void* observer, const std::string& name, const void* object, const jx::Value& info) {
            std::lock_guard lock(mutex);
            EXPECT_EQ(c, &center);
            EXPECT_EQ(object, nullptr);
            // The bus names the poster: this process's own user.
            EXPECT_EQ(info.objectForKey(jx::kSenderUIDKey), jx::Value(static_cast<long long>(geteuid())));
            calls.push_back(who + ":" + name + (observer == &a ? "@a" : "@b"));
            calledOn = std::this_thread::get_id();
        };
    };
    // Registered from the loop's own thread, as the controller does.
    runThread.run([&] {
        ASSERT_TRUE(center.addObserver(&a, "com.example.Alpha", recorder("1")));
        ASSERT_TRUE(center.addObserver(&b, "com.example.Alpha", recorder("2")));
        ASSERT_TRUE(center.addObserver(&b, "com.example.Beta", recorder("3")));
    });
    for (const char* name : {"com.example.Gamma", "com.example.Alpha", "com.example.Beta"}) ASSERT_TRUE(center.post(name));
    ASSERT_TRUE(jxtest::waitFor([&] {
        std::lock_guard lock(mutex);
        return calls.size() >= 3;
    }));
    {
        std::lock_guard lock(mutex);
        EXPECT_EQ(calls, (std::vector<std::string>{"1:com.example.Alpha@a", "2:com.example.Alpha@b", "3:com.example.Beta@b"}));
        EXPECT_EQ(calledOn, runThread.id());
    }
    runThread.run([&] {
        center.removeObserver(&a, "com.example.Alpha");
        center.removeObserver(&b, "com.example.Alpha");
        center.removeObserver(&b, "com.example.Beta");
    });
}

TEST_F(SystemNotificationTest, ACallbackMayRemoveItsObserverAndTheOtherIsNotCalled) {
    LoopThread runThread;
    std::atomic<int> first{0}, second{0};
    int a = 0, b = 0;
    runThread.run([&] {
        center.addObserver(&a, "com.example.Once", [&](Center* c, void*, const std::string& name, const void*, const jx::Value&) {
            ++first;
            c->removeObserver(&a, name);
            c->removeObserver(&b, name);
        });
        center.addObserver(&b, "com.example.Once", counting(second));
    });
    center.post("com.example.Once");
    center.post("com.example.Once");
    ASSERT_TRUE(jxtest::waitFor([&] { return first.load() == 1; }));
    // A probe observed afterwards arrives after both posts: nothing else was delivered.
    std::atomic<int> probe{0};
    runThread.run([&] { center.addObserver(&a, "com.example.Probe", counting(probe)); });
    center.post("com.example.Probe");
    ASSERT_TRUE(jxtest::waitFor([&] { return probe.load() == 1; }));
    EXPECT_EQ(first.load(), 1);
    EXPECT_EQ(second.load(), 0);
    runThread.run([&] { center.removeObserver(&a, "com.example.Probe"); });
}

TEST_F(SystemNotificationTest, ObserversComeBackWithARestartedBus) {
    jxtest::LogCapture log;
    LoopThread runThread;
    std::atomic<int> calls{0};
    int a = 0;
    runThread.run([&] { ASSERT_TRUE(center.addObserver(&a, "com.example.Again", counting(calls))); });
    ASSERT_TRUE(center.post("com.example.Again"));
    ASSERT_TRUE(jxtest::waitFor([&] { return calls.load() == 1; }));

    ASSERT_TRUE(bus.restart());
    ASSERT_TRUE(jxtest::waitFor([&] { return log.countContaining("lost the system bus") == 1; }));
    // Reconnected after the first retry: the observation is in place again.
    ASSERT_TRUE(jxtest::waitFor([&] { return log.countContaining("the system bus is back") == 1; }));
    ASSERT_TRUE(center.post("com.example.Again"));
    EXPECT_TRUE(jxtest::waitFor([&] { return calls.load() == 2; }));
    runThread.run([&] { center.removeObserver(&a, "com.example.Again"); });
}

}  // namespace
