#pragma once

#include <boost/shared_ptr.hpp>

#include "host/latency/LatencyProbe.h"
#include "mixer/core/Output.h"

namespace mixer {
namespace host {

// A record-side output that hands every microphone frame to a latency probe. Once the
// probe's test has ended it reports Hangup, so the record engine drops it.
//
// Threading: the record thread only (the probe locks for itself).
class LatencyListener : public Output {
public:
    explicit LatencyListener(boost::shared_ptr<LatencyProbe> probe);

    void Pause() override { state = STATE_PAUSED; }
    void Resume() override { state = STATE_ACTIVE; }
    int WriteFrame(boost::shared_ptr<AudioFrame> frame) override;

private:
    boost::shared_ptr<LatencyProbe> probe_;
};

}  // namespace host
}  // namespace mixer
