#pragma once

#include <atomic>
#include <cstdint>

#include "mixer/core/Api.h"

namespace mixer {

// An engine thread's sign of life, for a watchdog: the thread beats once per turn of its
// loop and marks the stretches in which it sleeps by design (waiting for a message that
// may never come). Another thread asks whether it lives: idle by design, or a beat not
// older than a bound. A thread stuck anywhere else (a device call, a file, a lock) stops
// beating and is seen as dead.
//
// Threading: Beat and SetIdle on the engine thread, Alive on any thread; lock-free, no
// allocation.
class MIXER_API Heartbeat {
public:
    Heartbeat();
    void Beat();
    // True just before the thread sleeps by design, false as soon as it is back (which
    // beats too).
    void SetIdle(bool idle);
    // Idle by design, or beaten within maxAgeMs (by CLOCK_MONOTONIC).
    bool Alive(unsigned maxAgeMs) const;

private:
    static int64_t NowMs();
    std::atomic<int64_t> lastMs_;
    std::atomic<bool> idle_;
};

}  // namespace mixer
