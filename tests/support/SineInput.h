#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include <boost/shared_ptr.hpp>

#include "mixer/core/AudioFrame.h"
#include "mixer/input/Input.h"

namespace mixer {
namespace test {

// An input that plays a continuous 16-bit tone (the same on every channel) in frames of
// lenMs (20 ms by default), with the phase carried across frames. Starts active; gives
// no frame while paused, hung up, faulted or stopped.
//
// Threading: the engine thread calls the Input operations; the test thread reads the
// counters (guarded by mutex_) and changes the state only through SetStateAtNextCall.
// Process allocates one frame.
class SineInput : public Input {
public:
    SineInput(unsigned rate_, unsigned numCh_, double freqHz, double amplitude,
              const std::string& desc_ = "sine", unsigned lenMs = 20);

    void Pause() override;
    void Resume() override;
    boost::shared_ptr<AudioFrame> Process() override;

    void SetStateAtNextCall(tInOutState st);
    int FramesProduced() const;
    // Sample k (counting from the first frame) of the tone, as Process writes it.
    int16_t SampleAt(uint64_t k) const;

private:
    void ApplyPendingLocked();  // expects mutex_ held

    const double freqHz_;
    const double amplitude_;
    const unsigned lenMs_;
    mutable std::mutex mutex_;
    uint64_t next_;             // GUARDED_BY(mutex_): index of the next sample per channel
    int produced_;              // GUARDED_BY(mutex_)
    bool hasPending_;           // GUARDED_BY(mutex_)
    tInOutState pending_;       // GUARDED_BY(mutex_)
};

}  // namespace test
}  // namespace mixer
