#include "mixer/core/Heartbeat.h"

#include <time.h>

namespace mixer {

Heartbeat::Heartbeat() : lastMs_(NowMs()), idle_(false) {}

int64_t Heartbeat::NowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void Heartbeat::Beat() { lastMs_.store(NowMs(), std::memory_order_release); }

void Heartbeat::SetIdle(bool idle) {
    // Beaten first: a watchdog that sees idle cleared sees a fresh beat with it.
    Beat();
    idle_.store(idle, std::memory_order_release);
}

bool Heartbeat::Alive(unsigned maxAgeMs) const {
    if (idle_.load(std::memory_order_acquire)) return true;
    return NowMs() - lastMs_.load(std::memory_order_acquire) <= static_cast<int64_t>(maxAgeMs);
}

}  // namespace mixer
