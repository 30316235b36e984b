// The clock seam: the present moment and the sleeps of the controller.
#pragma once

#include <cstdint>

#include "platform/Value.h"

namespace jx {

class Clock {
public:
    virtual ~Clock() = default;
    virtual Date now() { return Date::now(); }
    virtual void sleepSeconds(unsigned seconds);
    virtual void sleepMicroseconds(std::uint64_t microseconds);
    // Seconds the system has spent suspended since boot: the boot-time clock runs on
    // through a suspend, the monotonic one stops.
    virtual double suspendedSeconds();

    // The clock in use; tests install a double (not owned, nullptr restores the real one).
    static Clock& current();
    static void setCurrent(Clock* clock);
};

}  // namespace jx
