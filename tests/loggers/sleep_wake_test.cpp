// Sleep and wake: a login manager on a private system bus, and the kernel's
// suspend statistics where there is none.
#include <fcntl.h>
#include <poll.h>

#include <cstdlib>
#include <mutex>

#include "platform/FileDescriptor.h"
#include "plugins/builtin/JXBuiltinLoggers.h"
#include "tests/loggers/BusServer.h"
#include "tests/loggers/LoggerTree.h"
#include "tests/loggers/PostProcessorPatterns.h"

namespace {

using jxtest::waitFor;

// A login manager: owns its name, hands out delay locks (the write end of a
// pipe, so that the test sees a lock let go as the end of the pipe) and sends
// PrepareForSleep. The bus is used from its own thread only.
class FakeLoginManager {
public:
    FakeLoginManager() {
        ready_ = server_.bus() &&
                 sd_bus_add_object_vtable(server_.bus(), nullptr, "/org/freedesktop/login1",
                                          "org.freedesktop.login1.Manager", kVtable, this) >= 0 &&
                 server_.serve("org.freedesktop.login1", [this] { emitPending(); });
    }
    bool ready() const { return ready_; }
    void prepareForSleep(bool start) {
        std::lock_guard lock(mutex_);
        pending_.push_back(start);
    }
    int inhibitCalls() {
        std::lock_guard lock(mutex_);
        return static_cast<int>(locks_.size());
    }
    // Whether every holder of the n-th lock handed out has let it go.
    bool released(std::size_t n) {
        std::lock_guard lock(mutex_);
        if (n >= locks_.size()) return false;
        pollfd p{locks_[n].get(), POLLIN, 0};
        return ::poll(&p, 1, 0) == 1 && (p.revents & POLLHUP);
    }

private:
    static int onInhibit(sd_bus_message* m, void* userdata, sd_bus_error*) {
        auto* self = static_cast<FakeLoginManager*>(userdata);
        const char *what = nullptr, *who = nullptr, *why = nullptr, *mode = nullptr;
        if (sd_bus_message_read(m, "ssss", &what, &who, &why, &mode) < 0) return -EINVAL;
        if (std::string(what) != "sleep" || std::string(mode) != "delay") return -EINVAL;
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) return -errno;
        jx::FileDescriptor readEnd(ends[0]), writeEnd(ends[1]);
        int r = sd_bus_reply_method_return(m, "h", writeEnd.get());  // the message keeps a copy
        std::lock_guard lock(self->mutex_);
        self->locks_.push_back(std::move(readEnd));
        return r;
    }

    void emitPending() {
        std::vector<bool> pending;
        {
            std::lock_guard lock(mutex_);
            pending.swap(pending_);
        }
        for (bool start : pending)
            sd_bus_emit_signal(server_.bus(), "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                               "PrepareForSleep", "b", static_cast<int>(start));
    }

    static constexpr sd_bus_vtable kVtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Inhibit", "ssss", "h", onInhibit, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_SIGNAL("PrepareForSleep", "b", 0),
        SD_BUS_VTABLE_END,
    };

    bool ready_ = false;
    std::mutex mutex_;
    std::vector<bool> pending_;
    std::vector<jx::FileDescriptor> locks_;
    BusServer server_;  // last: stops before the members its handlers use go
};

class SleepWakeTest : public LoggerTree {
protected:
    void source(int n, const std::string& name, long long count, long long changedMs) {
        const std::string base = "/sys/class/wakeup/wakeup" + std::to_string(n) + "/";
        put(base + "name", name + "\n");
        put(base + "wakeup_count", std::to_string(count) + "\n");
        put(base + "last_change_ms", std::to_string(changedMs) + "\n");
    }
    std::string stamped(const std::string& tag, std::size_t n) { return lines(tag, true).at(n); }
    void battery(const std::string& attribute, long long value) {
        put("/sys/class/power_supply/BAT0/type", "Battery\n");
        put("/sys/class/power_supply/BAT0/" + attribute, std::to_string(value) + "\n");
    }
    jxtest::FakeClock clock;
    std::shared_ptr<JXSleepWakeLogger> logger = std::make_shared<JXSleepWakeLogger>(sys());
    PostProcessorPatterns patterns;
};

TEST_F(SleepWakeTest, FollowsTheLoginManagerAndLogsTheSleepBeforeLettingTheDeviceSleep) {
    jxtest::PrivateBus bus;
    if (!bus.available()) GTEST_SKIP() << "no dbus-daemon";
    FakeLoginManager manager;
    ASSERT_TRUE(manager.ready());
    source(0, "rtc0", 3, 100);
    source(1, "PNP0C0D:00", 5, 50);
    battery("energy_now", 50000000);  // µWh
    clock.setNow(jx::Date{1795000000});
    logger->loggerSerialQueue().sync([&] { logger->log(); });
    ASSERT_TRUE(logger->followsLoginManager());
    EXPECT_EQ(logger->samplePeriod(), 0) << "no timer while the login manager says when";
    ASSERT_TRUE(waitFor([&] { return manager.inhibitCalls() == 1; }));
    EXPECT_FALSE(manager.released(0));

    manager.prepareForSleep(true);
    ASSERT_TRUE(waitFor([&] { return manager.released(0); }));
    // Let go only once the entry is in the file.
    EXPECT_EQ(lines("Sleep"), std::vector<std::string>{"[Sleep] event=did_sleep;"});
    EXPECT_TRUE(lines("Wake").empty());

    source(1, "PNP0C0D:00", 6, 900);  // the lid woke it
    clock.suspend(3598);
    clock.setNow(jx::Date{1795003600});  // two seconds awake on the way in and out
    battery("energy_now", 49000000);
    manager.prepareForSleep(false);
    ASSERT_TRUE(waitFor([&] { return lines("Suspend").size() == 1; }));
    EXPECT_EQ(lines("Wake")[0], "[Wake] reason=PNP0C0D:00;");
    // 1000 mWh in an hour.
    EXPECT_EQ(lines("Suspend")[0],
              "[Suspend] began_utc_s=1795000000.000; ended_utc_s=1795003600.000; duration_s=3600.000; "
              "suspended_s=3598.000; energy_before_mwh=50000; energy_after_mwh=49000; drain_mw=1000; "
              "span_s=3600.000; woken_by=PNP0C0D:00; accounting=login_manager;");
    EXPECT_EQ(patterns.rowFor(stamped("Suspend", 0)), "") << "the post-processor reads no [Suspend] entry";
    ASSERT_TRUE(waitFor([&] { return manager.inhibitCalls() == 2; }));  // a lock for the next sleep
    EXPECT_FALSE(manager.released(1));

    EXPECT_EQ(patterns.rowFor(stamped("Sleep", 0)), "SleepStatusTrue");
    EXPECT_EQ(patterns.eventFor(stamped("Sleep", 0)), "APSleepStatus=sleep");
    EXPECT_EQ(patterns.rowFor(stamped("Wake", 0)), "WakeReason");
    EXPECT_EQ(patterns.eventFor(stamped("Wake", 0)), "APSleepStatus=awake;reason=PNP0C0D:00");
    logger.reset();  // stops the bus thread with the logger
}

TEST_F(SleepWakeTest, CountsSuspendsWhileTheBusIsGoneAndFollowsTheLoginManagerAgainWhenTriggered) {
    jxtest::PrivateBus bus;
    if (!bus.available()) GTEST_SKIP() << "no dbus-daemon";
    put("/sys/power/suspend_stats/success", "7\n");
    source(0, "rtc0", 1, 100);
    auto follows = [&] {
        bool f = false;
        logger->loggerSerialQueue().sync([&] { f = logger->followsLoginManager(); });
        return f;
    };
    {
        FakeLoginManager manager;
        ASSERT_TRUE(manager.ready());
        logger->loggerSerialQueue().sync([&] { logger->log(); });
        ASSERT_TRUE(follows());
        ASSERT_TRUE(bus.restart());  // the bus goes away under the logger
        ASSERT_TRUE(waitFor([&] { return !follows(); }));
    }
    logger->loggerSerialQueue().sync([] {});
    EXPECT_EQ(logger->samplePeriod(), 60);
    put("/sys/power/suspend_stats/success", "8\n");
    source(0, "rtc0", 2, 900);
    logger->loggerSerialQueue().sync([&] { logger->logChanges(); });
    EXPECT_EQ(lines("Sleep"), std::vector<std::string>{"[Sleep] event=did_sleep;"});
    EXPECT_EQ(lines("Wake"), std::vector<std::string>{"[Wake] reason=rtc0;"});
    EXPECT_EQ(log.countContaining("the system bus went away"), 1u);

    // The bus is back with a login manager: the next triggered sample follows it, and the timer stops.
    FakeLoginManager manager;
    ASSERT_TRUE(manager.ready());
    logger->loggerSerialQueue().sync([&] { logger->log(); });
    EXPECT_TRUE(follows());
    EXPECT_EQ(logger->samplePeriod(), 0);
    logger.reset();
}

// Without a bus: the kernel's statistics, each suspend written when the timer
// next looks.
class SleepWakeWithoutBusTest : public SleepWakeTest {
protected:
    void SetUp() override { setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/joulix-bus", 1); }
    void TearDown() override { unsetenv("DBUS_SYSTEM_BUS_ADDRESS"); }
};

TEST_F(SleepWakeWithoutBusTest, ASuspendCountedSinceTheLastLookIsASleepAndAWake) {
    put("/sys/power/suspend_stats/success", "3\n");
    source(0, "rtc0", 1, 100);
    source(1, "alarmtimer.0.auto", 0, 0);
    // A phone's gauge: charge and voltage only.
    battery("charge_now", 3000000);   // µAh
    battery("voltage_now", 3800000);  // µV
    clock.setNow(jx::Date{1795000000});
    logger->loggerSerialQueue().sync([&] { logger->log(); });
    EXPECT_FALSE(logger->followsLoginManager());
    EXPECT_EQ(logger->samplePeriod(), 60);
    logger->logChanges();
    EXPECT_TRUE(lines("Sleep").empty());

    // Seen at the next look: a suspend of 600 s in a span of 660 s, the charge 10 mAh
    // lower (38 mWh at 3.8 V).
    clock.setNow(jx::Date{1795000060});
    clock.suspend(600);
    battery("charge_now", 2990000);
    put("/sys/power/suspend_stats/success", "4\n");
    source(0, "rtc0", 2, 5000);
    logger->logChanges();
    EXPECT_EQ(lines("Suspend"),
              std::vector<std::string>{"[Suspend] began_utc_s=1795000060.000; ended_utc_s=1795000660.000; duration_s=600.000; "
                                       "suspended_s=600.000; energy_before_mwh=11400; energy_after_mwh=11362; drain_mw=207.3; "
                                       "charge_before_mah=3000; charge_after_mah=2990; span_s=660.000; woken_by=rtc0; "
                                       "accounting=suspend_stats;"});
    // Two suspends since the last look, the second counted late: one account for both.
    clock.suspend(30);
    logger->logChanges();
    clock.suspend(30);
    put("/sys/power/suspend_stats/success", "6\n");
    put("/sys/power/pm_wakeup_irq", "42\n");  // no source counted this one
    logger->logChanges();
    EXPECT_EQ(lines("Sleep"), (std::vector<std::string>{"[Sleep] event=did_sleep;", "[Sleep] event=did_sleep;"}));
    EXPECT_EQ(lines("Wake"), (std::vector<std::string>{"[Wake] reason=rtc0;", "[Wake] reason=irq_42;"}));
    ASSERT_EQ(lines("Suspend").size(), 2u);
    EXPECT_NE(lines("Suspend")[1].find(" suspended_s=60.000; suspends=2;"), std::string::npos) << lines("Suspend")[1];
    EXPECT_NE(lines("Suspend")[1].find(" woken_by=irq_42; wakeup_irq=42;"), std::string::npos) << lines("Suspend")[1];
    EXPECT_EQ(patterns.eventFor(stamped("Wake", 1)), "APSleepStatus=awake;reason=irq_42");
    EXPECT_EQ(log.countContaining("JXSleepWakeLogger"), 0u);
}

TEST_F(SleepWakeWithoutBusTest, NoLoginManagerAndNoStatisticsIsQuiet) {
    logger->loggerSerialQueue().sync([&] {
        logger->log();
        logger->log();
    });
    logger->logChanges();
    EXPECT_EQ(logger->samplePeriod(), 0);
    EXPECT_TRUE(lines("Sleep").empty());
    EXPECT_EQ(log.countContaining("JXSleepWakeLogger: no login manager"), 1u);
}

}  // namespace
