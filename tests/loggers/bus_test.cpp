// Loggers that follow services on a private system bus: sleep and wake from a login
// manager (and the kernel's suspend statistics while the bus is gone), and modems from
// a modem manager.
#include <fcntl.h>
#include <poll.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>

#include "platform/FileDescriptor.h"
#include "tests/loggers/LoggerTree.h"

using jxtest::waitFor;

// A connection to the private system bus served from its own thread, for fake
// services. Declare it after whatever its handlers use, so that it stops first.
class BusServer {
public:
    BusServer() {
        if (sd_bus* bus = nullptr; sd_bus_open_system(&bus) >= 0) bus_ = bus;
    }
    ~BusServer() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        if (bus_) sd_bus_flush_close_unref(bus_);
    }

    // Null when there is no bus; objects are exported on it before serve().
    sd_bus* bus() const { return bus_; }
    // Takes the name and serves from now on, each turn beginning with the hook.
    bool serve(const char* name, std::function<void()> eachTurn = {}) {
        if (!bus_ || sd_bus_request_name(bus_, name, 0) < 0) return false;
        thread_ = std::thread([this, eachTurn = std::move(eachTurn)] {
            while (!stop_) {
                if (eachTurn) eachTurn();
                while (sd_bus_process(bus_, nullptr) > 0) {
                }
                sd_bus_wait(bus_, 5000);
            }
        });
        return true;
    }
    // Runs f under the lock the service's handlers and the test share.
    template <typename F>
    auto locked(F f) {
        std::lock_guard lock(mutex_);
        return f();
    }

private:
    sd_bus* bus_ = nullptr;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::thread thread_;
};

// A login manager: hands out delay locks (the write end of a pipe, so that the
// test sees a lock let go as the end of the pipe) and sends PrepareForSleep. The
// bus is used from its own thread only.
class FakeLoginManager {
public:
    FakeLoginManager() {
        ready_ = server_.bus() &&
                 sd_bus_add_object_vtable(server_.bus(), nullptr, kPath, kInterface, kVtable, this) >= 0 &&
                 server_.serve("org.freedesktop.login1", [this] {
                     for (bool start : server_.locked([&] { return std::exchange(pending_, {}); }))
                         sd_bus_emit_signal(server_.bus(), kPath, kInterface, "PrepareForSleep", "b", int(start));
                 });
    }
    bool ready() const { return ready_; }
    void prepareForSleep(bool start) {
        server_.locked([&] { pending_.push_back(start); });
    }
    std::size_t inhibitCalls() {
        return server_.locked([&] { return locks_.size(); });
    }
    // Whether every holder of the n-th lock handed out has let it go.
    bool released(std::size_t n) {
        return server_.locked([&] {
            pollfd p{n < locks_.size() ? locks_[n].get() : -1, POLLIN, 0};
            return n < locks_.size() && ::poll(&p, 1, 0) == 1 && (p.revents & POLLHUP);
        });
    }

private:
    static constexpr const char* kPath = "/org/freedesktop/login1";
    static constexpr const char* kInterface = "org.freedesktop.login1.Manager";
    static int onInhibit(sd_bus_message* m, void* userdata, sd_bus_error*) {
        const char *what = nullptr, *who = nullptr, *why = nullptr, *mode = nullptr;
        if (sd_bus_message_read(m, "ssss", &what, &who, &why, &mode) < 0) return -EINVAL;
        if (std::string(what) != "sleep" || std::string(mode) != "delay") return -EINVAL;
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) return -errno;
        jx::FileDescriptor readEnd(ends[0]), writeEnd(ends[1]);
        int r = sd_bus_reply_method_return(m, "h", writeEnd.get());  // the message keeps a copy
        auto* self = static_cast<FakeLoginManager*>(userdata);
        self->server_.locked([&] { self->locks_.push_back(std::move(readEnd)); });
        return r;
    }
    static constexpr sd_bus_vtable kVtable[] = {
        SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Inhibit", "ssss", "h", onInhibit, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_SIGNAL("PrepareForSleep", "b", 0), SD_BUS_VTABLE_END};

    bool ready_ = false;
    std::vector<bool> pending_;
    std::vector<jx::FileDescriptor> locks_;
    BusServer server_;  // last: stops before the members its handlers use go
};

class SleepWakeTest : public LoggerTree {
protected:
    void source(int n, const char* name, int count, int changedMs) {
        files(jx::formatString("/sys/class/wakeup/wakeup%d", n),
              jx::formatString("name=%s; wakeup_count=%d; last_change_ms=%d", name, count, changedMs));
    }
    bool follows() {
        bool f = false;
        logger->loggerSerialQueue().sync([&] { f = logger->followsLoginManager(); });
        return f;
    }
    std::shared_ptr<JXSleepWakeLogger> logger = std::make_shared<JXSleepWakeLogger>(sys());
};

TEST_F(SleepWakeTest, FollowsTheLoginManagerLetsTheDeviceSleepOnceTheSleepIsLoggedAndCountsWhileTheBusIsGone) {
    jxtest::PrivateBus bus;
    if (!bus.available()) GTEST_SKIP() << "no dbus-daemon";
    source(0, "rtc0", 3, 100);
    source(1, "PNP0C0D:00", 5, 50);
    files("/sys",
          "class/power_supply/BAT0/type=Battery; class/power_supply/BAT0/energy_now=50000000; "  // µWh
          "power/suspend_stats/success=7");
    clock.setNow(jx::Date{1795000000 - 60});
    {
        FakeLoginManager manager;
        ASSERT_TRUE(manager.ready());
        trigger(*logger);
        ASSERT_TRUE(follows());
        EXPECT_EQ(logger->samplePeriod(), 0) << "no timer while the login manager says when";
        ASSERT_TRUE(waitFor([&] { return manager.inhibitCalls() == 1; }));
        EXPECT_FALSE(manager.released(0));

        manager.prepareForSleep(true);
        ASSERT_TRUE(waitFor([&] { return manager.released(0); }));
        EXPECT_EQ(fresh(""), Lines{"[Sleep] event=did_sleep;"}) << "let go only once the entry is in the file";

        source(1, "PNP0C0D:00", 6, 900);  // the lid woke it
        clock.suspend(3598);
        clock.setNow(jx::Date{1795003600});  // two seconds awake on the way in and out
        files("/sys/class/power_supply/BAT0", "energy_now=49000000");
        manager.prepareForSleep(false);
        ASSERT_TRUE(waitFor([&] { return lines("Suspend").size() == 1; }));
        // 1000 mWh in an hour.
        EXPECT_EQ(fresh(""), (Lines{"[Wake] reason=PNP0C0D:00;",
                                    "[Suspend] began_utc_s=1795000000.000; ended_utc_s=1795003600.000; "
                                    "duration_s=3600.000; suspended_s=3598.000; energy_before_mwh=50000; "
                                    "energy_after_mwh=49000; drain_mw=1000; span_s=3600.000; woken_by=PNP0C0D:00; "
                                    "accounting=login_manager;"}));
        ASSERT_TRUE(waitFor([&] { return manager.inhibitCalls() == 2; }));  // a lock for the next sleep
        EXPECT_FALSE(manager.released(1));

        ASSERT_TRUE(bus.restart());  // the bus goes away under the logger
        ASSERT_TRUE(waitFor([&] { return !follows(); }));
    }
    EXPECT_EQ(log.countContaining("the system bus went away"), 1u);
    logger->loggerSerialQueue().sync([] {});
    EXPECT_EQ(logger->samplePeriod(), 60) << "the kernel's count, on the timer";
    files("/sys/power/suspend_stats", "success=8");
    EXPECT_EQ(tick(*logger).at(0), "[Sleep] event=did_sleep;");

    logger.reset();  // stops the bus thread with the logger
}

// A modem as the modem manager exports it; the manager's objects never change once served.
struct Modem {
    const char* model;
    int32_t state;
    uint32_t signal, access, power;
};

class FakeModemManager {
public:
    FakeModemManager(std::vector<Modem> modems, std::vector<int32_t> calls)
        : modems_(std::move(modems)), calls_(std::move(calls)) {
        sd_bus* bus = server_.bus();
        ready_ = bus && sd_bus_add_object_manager(bus, nullptr, "/org/freedesktop/ModemManager1") >= 0;
        for (std::size_t i = 0; i < modems_.size(); ++i)
            ready_ =
                ready_ && sd_bus_add_object_vtable(bus, nullptr, path("Modem", i).c_str(),
                                                   "org.freedesktop.ModemManager1.Modem", kModem, &modems_[i]) >= 0;
        for (std::size_t i = 0; i < calls_.size(); ++i)
            ready_ = ready_ && sd_bus_add_object_vtable(bus, nullptr, path("Call", i).c_str(),
                                                        "org.freedesktop.ModemManager1.Call", kCall, &calls_[i]) >= 0;
        ready_ = ready_ && server_.serve("org.freedesktop.ModemManager1");
    }
    bool ready() const { return ready_; }

private:
    static std::string path(const char* kind, std::size_t i) {
        return jx::formatString("/org/freedesktop/ModemManager1/%s/%zu", kind, i);
    }
    static int signal(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* modem,
                      sd_bus_error*) {
        return sd_bus_message_append(reply, "(ub)", static_cast<Modem*>(modem)->signal, 1);
    }
    static constexpr sd_bus_vtable kModem[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("Model", "s", nullptr, offsetof(Modem, model), 0),
        SD_BUS_PROPERTY("State", "i", nullptr, offsetof(Modem, state), 0),
        SD_BUS_PROPERTY("SignalQuality", "(ub)", signal, 0, 0),
        SD_BUS_PROPERTY("AccessTechnologies", "u", nullptr, offsetof(Modem, access), 0),
        SD_BUS_PROPERTY("PowerState", "u", nullptr, offsetof(Modem, power), 0),
        SD_BUS_VTABLE_END,
    };
    static constexpr sd_bus_vtable kCall[] = {SD_BUS_VTABLE_START(0), SD_BUS_PROPERTY("State", "i", nullptr, 0, 0),
                                              SD_BUS_VTABLE_END};

    bool ready_ = false;
    std::vector<Modem> modems_;
    std::vector<int32_t> calls_;
    BusServer server_;  // last: stops before what its handlers read goes
};

using TelephonyLoggerTest = LoggerTree;

// Each modem with the liveliest of the calls, and the post-processor's reading of the line.
TEST_F(TelephonyLoggerTest, EachModemWithTheLiveliestCallAndARestartedBusJoinedAgain) {
    jxtest::PrivateBus bus;
    if (!bus.available()) GTEST_SKIP() << "no dbus-daemon";
    auto logger = std::make_shared<JXTelephonyLogger>();
    const Modem lte{"QM-7; rev B", 8, 72, 1u << 14, 3};
    {
        // UMTS over GSM; the radio powered low is airplane mode. A call dialled, one ringing in.
        FakeModemManager manager({lte, {"QM-8", 3, 0, (1u << 5) | (1u << 1), 2}}, {1, 3});
        ASSERT_TRUE(manager.ready());
        EXPECT_EQ(trigger(*logger),
                  (Lines{"[Telephony] modem=QM-7_ rev B; state=registered; signal=72; access=lte; call_status=Ringing; "
                         "airplane_mode=NO;",
                         "[Telephony] modem=QM-8; state=disabled; signal=0; access=umts; call_status=Ringing; "
                         "airplane_mode=YES;"}));
        EXPECT_EQ(readAs("Telephony"), "VoiceCallStatus=Active");
        EXPECT_EQ(tick(*logger), Lines{}) << "a tick writes only a change";
        ASSERT_TRUE(bus.restart());
    }
    FakeModemManager manager({lte}, {4, 7});  // talking, and a call ended
    ASSERT_TRUE(manager.ready());
    trigger(*logger);  // finds the old connection gone
    EXPECT_EQ(tick(*logger), Lines{"[Telephony] modem=QM-7_ rev B; state=registered; signal=72; access=lte; "
                                   "call_status=Active; airplane_mode=NO;"});
    logger.reset();
}
