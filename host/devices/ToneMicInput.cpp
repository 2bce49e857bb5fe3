#include "host/devices/ToneMicInput.h"

#include <cmath>

#include "mixer/core/Log.h"

namespace mixer {
namespace host {

namespace {
const unsigned kPeriodMs = 20;
const int64_t kMaxLagUs = 200000;  // a record thread that stalls this long restarts the clock
const double kTwoPi = 6.283185307179586;
}  // namespace

ToneMicInput::ToneMicInput(unsigned rate_, unsigned numCh_, double freqHz, double amplitude,
                           client::RealTimePacer::Clock* clock)
    : Input(rate_, numCh_, SAMPLE_SIZE_16, "mic"), phase_(0), pacer_(0, kMaxLagUs, clock) {
    name = "ToneMic";
    state = STATE_ACTIVE;
    if (amplitude < 0) amplitude = 0;
    if (amplitude > 1) amplitude = 1;
    peak_ = amplitude * 32767.0;
    step_ = kTwoPi * freqHz / rate;
}

void ToneMicInput::Pause() { state = STATE_PAUSED; }

void ToneMicInput::Resume() {
    pacer_.Reset();
    state = STATE_ACTIVE;
}

boost::shared_ptr<AudioFrame> ToneMicInput::Process() {
    boost::shared_ptr<AudioFrame> frame(new AudioFrame(SAMPLE_SIZE_16, rate, numCh, kPeriodMs));
    int16_t* out = frame->Samples16();
    for (uint32_t i = 0; i < frame->len; ++i) {
        int16_t v = static_cast<int16_t>(std::lround(peak_ * std::sin(phase_)));
        for (uint32_t c = 0; c < numCh; ++c) *out++ = v;
        phase_ += step_;
        if (phase_ >= kTwoPi) phase_ -= kTwoPi;
    }
    pacer_.Advance(static_cast<int64_t>(frame->len) * 1000000 / rate);
    return frame;
}

}  // namespace host
}  // namespace mixer
