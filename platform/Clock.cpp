#include "platform/Clock.h"

#include <time.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace jx {
namespace {
std::atomic<Clock*> gClock{nullptr};
}

void Clock::sleepSeconds(unsigned seconds) { std::this_thread::sleep_for(std::chrono::seconds(seconds)); }
void Clock::sleepMicroseconds(std::uint64_t us) { std::this_thread::sleep_for(std::chrono::microseconds(us)); }

double Clock::suspendedSeconds() {
    timespec boot{}, monotonic{};
    clock_gettime(CLOCK_BOOTTIME, &boot);
    clock_gettime(CLOCK_MONOTONIC, &monotonic);
    return static_cast<double>(boot.tv_sec - monotonic.tv_sec) + (boot.tv_nsec - monotonic.tv_nsec) / 1e9;
}

Clock& Clock::current() {
    if (Clock* c = gClock.load()) return *c;
    static Clock real;
    return real;
}

void Clock::setCurrent(Clock* clock) { gClock.store(clock); }

}  // namespace jx
