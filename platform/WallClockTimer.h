// Blocks run on a queue at a wall-clock time. The time follows changes of the
// system clock: a timer due at 00:00 fires when the clock reads 00:00, however
// the clock got there. A scheduled block cannot be cancelled.
#pragma once

#include <functional>

#include "platform/SerialQueue.h"
#include "platform/Value.h"

namespace jx {

// Schedules one run of the block on the queue at the given wall-clock time
// (seconds and nanoseconds since 1970). A time already past runs at once.
void scheduleAtWallClock(long seconds, long nanoseconds, SerialQueue& queue, std::function<void()> block);

}  // namespace jx
