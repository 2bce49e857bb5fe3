#include "mixer/stream/StreamOut.h"

#include <boost/pointer_cast.hpp>

#include "mixer/algo/AlgoRampGain.h"
#include "mixer/core/Log.h"

namespace mixer {

namespace {

const unsigned kVolumeRampMs = 50;

}  // namespace

StreamOut::StreamOut() {}

StreamOut::~StreamOut() {}

int StreamOut::SetVolume(int volume) {
    boost::shared_ptr<AlgoRampGain> gain =
        boost::dynamic_pointer_cast<AlgoRampGain>(GetAlgoById(ALGO_ID_RAMP_GAIN));
    if (gain) {
        // A paused stream moves no frames to carry a ramp: jump at once.
        const unsigned rampMs = GetState() == STATE_PAUSED ? 0 : kVolumeRampMs;
        gain->SetRampMs(static_cast<unsigned>(volume), rampMs, 0, AlgoRampGain::kNoRef);
        MIXER_LOG_D("Mixer_Stream:MsgSetSpeakerVol:%u:", static_cast<unsigned>(volume));
    }
    if (!output) {  // a caller's mistake; refuse it rather than crash the engine
        MIXER_LOG_E("Mixer_Stream:SetVolume:No Output:");
        return -1;
    }
    return output->SetVolume(volume);
}

void StreamOut::SetOutput(boost::shared_ptr<Output> output_) { output = output_; }

boost::shared_ptr<Output> StreamOut::GetOutput() { return output; }

int StreamOut::ProcessOut(boost::shared_ptr<AudioFrame> frame) {
    if (!output) return STATE_FAULT;
    output->WriteFrame(frame);
    return output->state;
}

}  // namespace mixer
