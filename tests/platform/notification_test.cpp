#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "platform/NotificationCenter.h"
#include "tests/support/TestSupport.h"

namespace {

// The system-wide centre over a private bus: delivery on the observer's run loop (this
// thread's, served while waiting), filtering by name, removal, and a restarted bus.
using Center = jx::SystemNotificationCenter;

class SystemNotificationTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!bus.available()) GTEST_SKIP() << "dbus-daemon is not installed";
    }
    // Serves this thread's run loop until the condition holds.
    bool served(const std::function<bool()>& condition) {
        return jxtest::waitFor([&] {
            while (loop->runUntilSourceHandled(0) == jx::RunLoop::Result::HandledSource) {
            }
            return condition();
        });
    }
    jxtest::PrivateBus bus;
    Center& center = Center::shared();
    std::shared_ptr<jx::RunLoop> loop = jx::RunLoop::current();
    int a = 0, b = 0;
};

TEST_F(SystemNotificationTest, ObserversGetTheirNameOnTheirLoopsThreadAndComeBackWithARestartedBus) {
    jxtest::LogCapture log;
    std::vector<std::string> calls;
    std::thread::id calledOn;
    auto recorder = [&](const std::string& who) {
        return [&, who](Center*, void* observer, const std::string& name, const void*, const jx::Value& info) {
            // The bus names the poster: this process's own user.
            EXPECT_EQ(info.objectForKey(jx::kSenderUIDKey), jx::Value(static_cast<long long>(geteuid())));
            calls.push_back(who + ":" + name + (observer == &a ? "@a" : "@b"));
            calledOn = std::this_thread::get_id();
        };
    };
    ASSERT_TRUE(center.addObserver(&a, "com.example.Alpha", recorder("1")));
    ASSERT_TRUE(center.addObserver(&b, "com.example.Alpha", recorder("2")));
    ASSERT_TRUE(center.addObserver(&b, "com.example.Beta", recorder("3")));
    for (const char* name : {"com.example.Gamma", "com.example.Alpha", "com.example.Beta"})
        ASSERT_TRUE(center.post(name));
    ASSERT_TRUE(served([&] { return calls.size() >= 3; }));
    EXPECT_EQ(calls,
              (std::vector<std::string>{"1:com.example.Alpha@a", "2:com.example.Alpha@b", "3:com.example.Beta@b"}));
    EXPECT_EQ(calledOn, std::this_thread::get_id());

    ASSERT_TRUE(bus.restart());
    ASSERT_TRUE(served([&] { return log.countContaining("lost the system bus") == 1; }));
    // Reconnected after the first retry: the observations are in place again.
    ASSERT_TRUE(served([&] { return log.countContaining("the system bus is back") == 1; }));
    ASSERT_TRUE(center.post("com.example.Beta"));
    EXPECT_TRUE(served([&] { return calls.size() >= 4; }));
    center.removeObserver(&a, "com.example.Alpha");
    center.removeObserver(&b, "com.example.Alpha");
    center.removeObserver(&b, "com.example.Beta");
}

TEST_F(SystemNotificationTest, ACallbackMayRemoveItsObserverAndTheOtherIsNotCalled) {
    int first = 0, second = 0, probe = 0;
    center.addObserver(&a, "com.example.Once",
                       [&](Center* c, void*, const std::string& name, const void*, const jx::Value&) {
                           ++first;
                           c->removeObserver(&a, name);
                           c->removeObserver(&b, name);
                       });
    center.addObserver(&b, "com.example.Once",
                       [&](Center*, void*, const std::string&, const void*, const jx::Value&) { ++second; });
    center.post("com.example.Once");
    center.post("com.example.Once");
    ASSERT_TRUE(served([&] { return first == 1; }));
    // A probe observed afterwards arrives after both posts: nothing else was delivered.
    center.addObserver(&a, "com.example.Probe",
                       [&](Center*, void*, const std::string&, const void*, const jx::Value&) { ++probe; });
    center.post("com.example.Probe");
    ASSERT_TRUE(served([&] { return probe == 1; }));
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 0);
    center.removeObserver(&a, "com.example.Probe");
}

}  // namespace
