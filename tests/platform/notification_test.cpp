#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "platform/NotificationCenter.h"

namespace {

using jx::Notification;
using jx::NotificationCenter;

class NotificationTest : public ::testing::Test {
protected:
    // A callback that records "who:name" for each call.
    NotificationCenter::Callback recorder(const std::string& who) {
        return [this, who](const Notification& n) { calls.push_back(who + ":" + n.name); };
    }
    NotificationCenter center;
    std::vector<std::string> calls;
    int a = 0, b = 0;
};

TEST_F(NotificationTest, ObserversGetTheirNamesAndAnEmptyNameGetsAll) {
    center.addObserver(&a, "Alpha", recorder("a"));
    center.addObserver(&b, "Beta", recorder("b"));
    center.addObserver(&b, "", recorder("all"));
    for (const char* name : {"Alpha", "Beta", "Gamma", "alpha"}) center.post(name);
    EXPECT_EQ(calls, (std::vector<std::string>{"a:Alpha", "all:Alpha", "b:Beta", "all:Beta", "all:Gamma",
                                               "all:alpha"}));
}

TEST_F(NotificationTest, ObjectAndUserInfoReachTheObserverOnThePostingThread) {
    Notification got;
    std::thread::id calledOn;
    center.addObserver(&a, "Changed", [&](const Notification& n) {
        got = n;
        calledOn = std::this_thread::get_id();
    });
    jx::Value info(jx::Dictionary{{"level", jx::Value(80)}});
    std::thread poster([&] { center.post("Changed", &b, info); });
    std::thread::id posterId = poster.get_id();
    poster.join();
    EXPECT_EQ(got.name, "Changed");
    EXPECT_EQ(got.object, &b);
    EXPECT_EQ(got.userInfo, info);
    EXPECT_EQ(calledOn, posterId);
}

TEST_F(NotificationTest, RemovingAnObserverByNameOrEntirely) {
    center.addObserver(&a, "One", recorder("a"));
    center.addObserver(&a, "Two", recorder("a"));
    center.addObserver(&a, "", recorder("a*"));
    center.addObserver(&b, "One", recorder("b"));
    center.removeObserver(&a, "One");
    center.post("One");
    center.removeObserver(&a, "");  // the observe-everything registration only
    center.post("Two");
    center.removeObserver(&a);
    center.post("One");
    center.post("Two");
    EXPECT_EQ(calls, (std::vector<std::string>{"a*:One", "b:One", "a:Two", "b:One"}));
}

TEST_F(NotificationTest, AnObserverMayRemoveItselfAndAddOthersWhileCalled) {
    int selfCalls = 0;
    center.addObserver(&a, "Ping", [&](const Notification&) {
        ++selfCalls;
        center.removeObserver(&a);
        center.addObserver(&b, "Ping", recorder("late"));
    });
    center.addObserver(&b, "Ping", recorder("other"));
    center.post("Ping");
    center.post("Ping");
    EXPECT_EQ(selfCalls, 1);
    EXPECT_EQ(calls, (std::vector<std::string>{"other:Ping", "other:Ping", "late:Ping"}));
}

}  // namespace
