// Modems from a modem manager on a private system bus.

#include <cstdlib>
#include <mutex>

#include "plugins/builtin/JXBuiltinLoggers.h"
#include "tests/loggers/BusServer.h"
#include "tests/loggers/LoggerTree.h"
#include "tests/loggers/PostProcessorPatterns.h"

namespace {

// A modem manager with one modem and, on demand, one call, exported through its
// object manager. The bus is used from its own thread only; the properties are
// read under a lock.
class FakeModemManager {
public:
    FakeModemManager() {
        sd_bus* bus = server_.bus();
        ready_ = bus && sd_bus_add_object_manager(bus, nullptr, "/org/freedesktop/ModemManager1") >= 0 &&
                 sd_bus_add_object_vtable(bus, nullptr, "/org/freedesktop/ModemManager1/Modem/0",
                                          "org.freedesktop.ModemManager1.Modem", kModemVtable, this) >= 0 &&
                 sd_bus_add_object_vtable(bus, nullptr, "/org/freedesktop/ModemManager1/Call/1",
                                          "org.freedesktop.ModemManager1.Call", kCallVtable, this) >= 0 &&
                 server_.serve("org.freedesktop.ModemManager1");
    }
    bool ready() const { return ready_; }
    struct State {
        int32_t state = 8;  // registered
        uint32_t signal = 72;
        uint32_t access = 1u << 14;  // lte
        uint32_t power = 3;          // on
        int32_t call = 7;            // terminated
    };
    void set(const State& s) {
        std::lock_guard lock(mutex_);
        state_ = s;
    }

private:
    static State get(void* userdata) {
        auto* self = static_cast<FakeModemManager*>(userdata);
        std::lock_guard lock(self->mutex_);
        return self->state_;
    }
    static int property(sd_bus*, const char*, const char* interface, const char* name, sd_bus_message* reply,
                        void* userdata, sd_bus_error*) {
        const State s = get(userdata);
        const std::string p = name;
        if (std::string(interface) == "org.freedesktop.ModemManager1.Call")
            return sd_bus_message_append(reply, "i", s.call);
        if (p == "Model") return sd_bus_message_append(reply, "s", "QM-7; rev B");
        if (p == "State") return sd_bus_message_append(reply, "i", s.state);
        if (p == "SignalQuality") return sd_bus_message_append(reply, "(ub)", s.signal, 1);
        if (p == "AccessTechnologies") return sd_bus_message_append(reply, "u", s.access);
        if (p == "PowerState") return sd_bus_message_append(reply, "u", s.power);
        if (p == "Ports") return sd_bus_message_append(reply, "a(su)", 1, "cdc-wdm0", 6);
        return -EINVAL;
    }

    static constexpr sd_bus_vtable kModemVtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("Model", "s", property, 0, 0),
        SD_BUS_PROPERTY("Ports", "a(su)", property, 0, 0),
        SD_BUS_PROPERTY("State", "i", property, 0, 0),
        SD_BUS_PROPERTY("SignalQuality", "(ub)", property, 0, 0),
        SD_BUS_PROPERTY("AccessTechnologies", "u", property, 0, 0),
        SD_BUS_PROPERTY("PowerState", "u", property, 0, 0),
        SD_BUS_VTABLE_END,
    };
    static constexpr sd_bus_vtable kCallVtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("State", "i", property, 0, 0),
        SD_BUS_VTABLE_END,
    };

    bool ready_ = false;
    std::mutex mutex_;
    State state_;
    BusServer server_;  // last: stops before the state its handlers read goes
};

class TelephonyLoggerTest : public LoggerTree {
protected:
    std::shared_ptr<JXTelephonyLogger> logger = std::make_shared<JXTelephonyLogger>();
    PostProcessorPatterns patterns;
};

TEST_F(TelephonyLoggerTest, EachModemWithItsCallStateForThePostProcessor) {
    jxtest::PrivateBus bus;
    if (!bus.available()) GTEST_SKIP() << "no dbus-daemon";
    FakeModemManager manager;
    ASSERT_TRUE(manager.ready());
    const struct {
        const char* what;
        FakeModemManager::State state;
        const char* line;
        const char* event;
    } cases[] = {
        {"idle on LTE",
         {},
         "[Telephony] modem=QM-7_ rev B; state=registered; signal=72; access=lte; call_status=Inactive; "
         "airplane_mode=NO;",
         "VoiceCallStatus=Inactive"},
        {"a call coming in on UMTS",
         {8, 40, (1u << 5) | (1u << 1), 3, 3},
         "[Telephony] modem=QM-7_ rev B; state=registered; signal=40; access=umts; call_status=Ringing; "
         "airplane_mode=NO;",
         "VoiceCallStatus=Active"},
        {"talking",
         {11, 40, 1u << 15, 3, 4},
         "[Telephony] modem=QM-7_ rev B; state=connected; signal=40; access=5gnr; call_status=Active; "
         "airplane_mode=NO;",
         "VoiceCallStatus=Active"},
        {"radio off",
         {3, 0, 0, 2, 7},
         "[Telephony] modem=QM-7_ rev B; state=disabled; signal=0; access=unknown; call_status=Inactive; "
         "airplane_mode=YES;",
         "VoiceCallStatus=Inactive"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        manager.set(c.state);
        logger->log();
        ASSERT_FALSE(lines("Telephony").empty());
        EXPECT_EQ(lines("Telephony").back(), c.line);
        const std::string stamped = lines("Telephony", true).back();
        EXPECT_EQ(patterns.rowFor(stamped), "TelephonyStatus");
        EXPECT_EQ(patterns.eventFor(stamped), c.event);
    }
    // A tick writes only a change.
    const std::size_t before = lines("Telephony").size();
    logger->logChanges();
    EXPECT_EQ(lines("Telephony").size(), before);
    manager.set({});
    logger->logChanges();
    EXPECT_EQ(lines("Telephony").size(), before + 1);
    logger.reset();
}

TEST_F(TelephonyLoggerTest, ARestartedBusIsJoinedAgainAtTheNextSample) {
    jxtest::PrivateBus bus;
    if (!bus.available()) GTEST_SKIP() << "no dbus-daemon";
    {
        FakeModemManager manager;
        ASSERT_TRUE(manager.ready());
        logger->log();
        ASSERT_EQ(lines("Telephony").size(), 1u);
        ASSERT_TRUE(bus.restart());
    }
    FakeModemManager manager;
    ASSERT_TRUE(manager.ready());
    manager.set({3, 0, 0, 2, 7});
    logger->log();  // may first find the old connection gone
    logger->log();
    ASSERT_GE(lines("Telephony").size(), 2u);
    EXPECT_NE(lines("Telephony").back().find("airplane_mode=YES;"), std::string::npos);
    logger.reset();
}

TEST_F(TelephonyLoggerTest, NoModemManagerIsQuiet) {
    jxtest::PrivateBus bus;  // a bus, and nobody on it
    if (!bus.available()) GTEST_SKIP() << "no dbus-daemon";
    logger->log();
    logger->logChanges();
    EXPECT_TRUE(lines("Telephony").empty());
    EXPECT_EQ(log.countContaining("JXTelephonyLogger: no modem manager on the system bus"), 1u);
}

}  // namespace
