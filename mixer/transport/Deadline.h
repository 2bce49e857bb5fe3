#pragma once

#include <ctime>

namespace mixer {
namespace deadline {

// Time-out values of the block operations: 0 does not wait, kForever waits without limit.
static const unsigned kForever = 0xFFFFFFFFu;

// Absolute CLOCK_REALTIME deadline ms milliseconds after now (ms neither 0 nor kForever).
// Kept so: when the milliseconds' nanoseconds exactly fill the second the nanoseconds
// come out as 1,000,000,000 and the wait then fails as an invalid time; both sides of
// the queue have always computed it this way.
inline timespec AfterMs(const timespec& now, unsigned ms) {
    const long add = static_cast<long>(ms % 1000) * 1000000L;
    timespec ts;
    ts.tv_sec = now.tv_sec + ms / 1000;
    ts.tv_nsec = now.tv_nsec + add;
    if (add > 1000000000L - now.tv_nsec) {
        ts.tv_nsec -= 1000000000L;
        ts.tv_sec += 1;
    }
    return ts;
}

// The 1.5-second deadline of the command channel. Kept so: a clock reading of exactly
// half a second yields a nanosecond field of 1,000,000,000, as above.
inline timespec AfterOneAndHalfSeconds(const timespec& now) {
    timespec ts;
    if (1000000000L - now.tv_nsec > 499999999L) {
        ts.tv_sec = now.tv_sec + 1;
        ts.tv_nsec = now.tv_nsec + 500000000L;
    } else {
        ts.tv_sec = now.tv_sec + 2;
        ts.tv_nsec = now.tv_nsec - 500000000L;
    }
    return ts;
}

}  // namespace deadline
}  // namespace mixer
