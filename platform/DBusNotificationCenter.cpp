// The system-wide centre over D-Bus: a notification is the signal Post(s name) on
// interface com.brindle.Notify, path /com/brindle/Notify, on the system bus.
#include <systemd/sd-bus.h>

#include <atomic>
#include <cstring>
#include <mutex>

#include "platform/NotificationCenter.h"
#include "platform/SystemLog.h"

namespace jx {
namespace {

struct BusDeleter {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};

class DBusSystemCenter : public SystemNotificationCenter {
public:
    bool post(const std::string& name) override {
        std::lock_guard lock(mutex_);
        if (!bus_ && !connectLocked()) return false;
        int r = sd_bus_emit_signal(bus_.get(), "/com/brindle/Notify", "com.brindle.Notify", "Post", "s",
                                   name.c_str());
        if (r >= 0) r = sd_bus_flush(bus_.get());
        if (r < 0) {
            systemLogf(kLogError, "could not post %s on the system bus: %s", name.c_str(), strerror(-r));
            bus_.reset();  // the bus went away; connect afresh next time
            return false;
        }
        return true;
    }

private:
    bool connectLocked() {
        sd_bus* bus = nullptr;
        int r = sd_bus_open_system(&bus);
        if (r < 0) {
            // Said once: a device without a bus runs on without system-wide notifications.
            if (!saidNoBus_) {
                systemLogf(kLogNotice, "no system bus (%s): system-wide notifications are off", strerror(-r));
                saidNoBus_ = true;
            }
            return false;
        }
        bus_.reset(bus);
        return true;
    }

    std::mutex mutex_;
    std::unique_ptr<sd_bus, BusDeleter> bus_;
    bool saidNoBus_ = false;
};

std::atomic<SystemNotificationCenter*> gOverride{nullptr};

}  // namespace

SystemNotificationCenter& SystemNotificationCenter::shared() {
    if (SystemNotificationCenter* c = gOverride.load()) return *c;
    static DBusSystemCenter center;
    return center;
}

void SystemNotificationCenter::setShared(SystemNotificationCenter* center) { gOverride.store(center); }

}  // namespace jx
