#include "host/latency/LatencyCarrierInput.h"

namespace mixer {
namespace host {

const char* const LatencyCarrierInput::kStreamType = "latencyTest";

LatencyCarrierInput::LatencyCarrierInput(boost::shared_ptr<LatencyProbe> probe, unsigned rate_,
                                         unsigned numCh_, unsigned maxFrames)
    : Input(rate_, numCh_, SAMPLE_SIZE_16, kStreamType), probe_(probe), framesLeft_(maxFrames) {
    name = kStreamType;
    state = STATE_ACTIVE;
}

boost::shared_ptr<AudioFrame> LatencyCarrierInput::Process() {
    if (framesLeft_ == 0 || !probe_->Active()) {
        state = STATE_HANGUP;
        return boost::shared_ptr<AudioFrame>();
    }
    --framesLeft_;
    boost::shared_ptr<AudioFrame> frame(new AudioFrame(SAMPLE_SIZE_16, rate, numCh, 20));
    int16_t* s = frame->Samples16();
    for (uint32_t i = 0; i < frame->len * numCh; ++i) s[i] = (i / numCh) % 2 ? -1 : 1;
    return frame;
}

}  // namespace host
}  // namespace mixer
