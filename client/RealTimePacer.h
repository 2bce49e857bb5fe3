#pragma once

#include <cstdint>

namespace mixer {
namespace client {

// Keeps a stream of fixed-length periods in step with the monotonic clock, the way a
// sound card's clock paces its reader or writer. A timeline starts at the first
// Advance after construction or Reset; each Advance adds one period to the timeline's
// position and sleeps until the clock reaches position - leadUs. A caller that falls
// more than maxLagUs behind is re-anchored instead of being let through in a burst
// (a device would have over- or under-run and restarted the same way).
//
// Threading: one thread at a time (the engine thread that owns the device object).
// No lock, no allocation; Advance may block for up to one period plus leadUs.
class RealTimePacer {
public:
    // Where the time comes from; tests substitute a fake.
    class Clock {
    public:
        virtual ~Clock() {}
        virtual int64_t NowUs() = 0;
        virtual void SleepUntilUs(int64_t whenUs) = 0;
    };

    // leadUs: how far the timeline may run ahead of the clock (a playback device's
    // buffer; 0 for a capture device, which hands out a period once it has elapsed).
    RealTimePacer(int64_t leadUs, int64_t maxLagUs, Clock* clock = nullptr);

    // Accounts for one more period of periodUs and waits until it is due.
    // Returns the microseconds slept (0 when the period was already due).
    int64_t Advance(int64_t periodUs);
    // Starts a new timeline at the next Advance (after a pause, say).
    void Reset() { started_ = false; }
    // Microseconds of timeline accounted so far since the last anchor.
    int64_t PositionUs() const { return positionUs_; }
    // How often the timeline was re-anchored because the caller fell behind.
    uint32_t Reanchors() const { return reanchors_; }

    static Clock& Monotonic();

private:
    int64_t leadUs_;
    int64_t maxLagUs_;
    Clock* clock_;
    bool started_;
    int64_t originUs_;    // clock time of timeline position 0
    int64_t positionUs_;  // timeline accounted so far
    uint32_t reanchors_;
};

}  // namespace client
}  // namespace mixer
