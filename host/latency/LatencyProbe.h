#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "mixer/core/AudioFrame.h"

namespace mixer {
namespace host {

// The shared state of one output-to-microphone latency measurement. The host arms it;
// the output chain's silence algorithm writes a loud mark into the next mixed frame
// and reports the time (Marked); the microphone side hands every captured frame to
// OnMicFrame, which looks for the mark and takes the delay; the host waits for the
// outcome with a time limit.
//
// The mark is a square wave at a quarter of the sample rate (alternating +/-kMarkLevel
// in runs of two samples) over the whole frame; a captured sample whose magnitude
// reaches kDetectLevel after the mark was written counts as its return.
//
// Threading: Arm and Wait on a host thread, Marked on the playback thread, OnMicFrame
// on the record thread. One mutex guards everything; no call blocks except Wait, none
// allocates.
class LatencyProbe {
public:
    enum Outcome {
        kIdle,      // no test
        kArmed,     // waiting for the output to carry the mark
        kMarked,    // the mark is out; listening for it
        kMeasured,  // the mark came back: delay known
        kNoEcho,    // the mark went out but did not come back in time
        kNoMark,    // nothing carried the mark in time
    };
    static constexpr int16_t kMarkLevel = 24000;
    static constexpr int16_t kDetectLevel = 12000;

    LatencyProbe() : outcome_(kIdle), markUs_(0), delayUs_(0) {}

    // Starts a new test, forgetting the last one.
    void Arm();
    // True when a mark should go into the next output frame.
    bool WantsMark() const;
    // The mark went out at nowUs (monotonic). Ignored unless armed.
    void Marked(int64_t nowUs);
    // A captured frame whose last sample was taken at endUs (monotonic).
    void OnMicFrame(const AudioFrame& frame, int64_t endUs);
    // Waits until the mark came back or timeoutMs passed; the test then ends (the probe
    // is idle again). delayUs is set for kMeasured.
    Outcome Wait(unsigned timeoutMs, int64_t& delayUs);
    // True while a test is in progress (armed or marked).
    bool Active() const;

    // Writes the mark over the whole frame (16- or 32-bit samples).
    static void WriteMark(AudioFrame& frame);

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    Outcome outcome_;  // GUARDED_BY(mutex_)
    int64_t markUs_;   // GUARDED_BY(mutex_)
    int64_t delayUs_;  // GUARDED_BY(mutex_)
};

}  // namespace host
}  // namespace mixer
