#pragma once

#include <boost/shared_ptr.hpp>

#include "host/latency/LatencyProbe.h"
#include "mixer/algo/AlgoSilence.h"

namespace mixer {
namespace host {

// The daemon's silence algorithm, last in the playback output chain. It passes frames
// through untouched except during a latency test: once the playback engine has armed
// it (running = 1) and the probe still wants a mark, it writes the probe's mark over
// the frame on its way to the device, tells the probe when, counts the mark in count
// and disarms. Sitting after the resampler, the mark reaches the device as written.
//
// Threading: the playback thread only (the probe locks for itself). No allocation.
class AlgoLatencyMark : public AlgoSilence {
public:
    explicit AlgoLatencyMark(boost::shared_ptr<LatencyProbe> probe);
    boost::shared_ptr<AudioFrame> Process(boost::shared_ptr<AudioFrame> frame) override;

private:
    boost::shared_ptr<LatencyProbe> probe_;
};

}  // namespace host
}  // namespace mixer
