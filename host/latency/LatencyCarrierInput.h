#pragma once

#include <boost/shared_ptr.hpp>

#include "host/latency/LatencyProbe.h"
#include "mixer/input/Input.h"

namespace mixer {
namespace host {

// Keeps the playback output running during a latency test when nothing else plays:
// the output chain (and so the mark) only runs in periods that mix some sound. It
// yields barely audible frames (samples of +/-1) while the probe's test is in progress,
// for at most maxFrames periods, then hangs up so the playback engine drops it.
//
// Threading: the playback thread only. Process allocates the frame.
class LatencyCarrierInput : public Input {
public:
    static const char* const kStreamType;  // "latencyTest"

    LatencyCarrierInput(boost::shared_ptr<LatencyProbe> probe, unsigned rate, unsigned numCh,
                        unsigned maxFrames);

    void Pause() override { state = STATE_PAUSED; }
    void Resume() override { state = STATE_ACTIVE; }
    boost::shared_ptr<AudioFrame> Process() override;

private:
    boost::shared_ptr<LatencyProbe> probe_;
    unsigned framesLeft_;
};

}  // namespace host
}  // namespace mixer
