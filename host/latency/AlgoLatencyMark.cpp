#include "host/latency/AlgoLatencyMark.h"

#include <ctime>

#include "mixer/core/Log.h"

namespace mixer {
namespace host {

AlgoLatencyMark::AlgoLatencyMark(boost::shared_ptr<LatencyProbe> probe) : probe_(probe) {}

boost::shared_ptr<AudioFrame> AlgoLatencyMark::Process(boost::shared_ptr<AudioFrame> frame) {
    if (!frame || bypass || !running) return frame;
    running = 0;
    if (!probe_ || !probe_->WantsMark()) {
        // Armed by a latency message that nobody is waiting for: nothing to measure.
        MIXER_LOG_W("Mixerd_AlgoLatencyMark:Process:test started without a probe waiting:");
        return frame;
    }
    LatencyProbe::WriteMark(*frame);
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    probe_->Marked(static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000);
    ++count;
    return frame;
}

}  // namespace host
}  // namespace mixer
