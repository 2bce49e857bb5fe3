#include "tests/support/SineInput.h"

#include <cmath>

namespace mixer {
namespace test {

SineInput::SineInput(unsigned rate_, unsigned numCh_, double freqHz, double amplitude,
                     const std::string& desc_, unsigned lenMs)
    : Input(rate_, numCh_, 2, desc_),
      freqHz_(freqHz),
      amplitude_(amplitude),
      lenMs_(lenMs),
      next_(0),
      produced_(0),
      hasPending_(false),
      pending_(STATE_ACTIVE) {
    name = desc_;
    state = STATE_ACTIVE;
}

void SineInput::ApplyPendingLocked() {
    if (hasPending_) {
        state = pending_;
        hasPending_ = false;
    }
}

void SineInput::Pause() {
    std::lock_guard<std::mutex> guard(mutex_);
    ApplyPendingLocked();
    state = STATE_PAUSED;
}

void SineInput::Resume() {
    std::lock_guard<std::mutex> guard(mutex_);
    ApplyPendingLocked();
    state = STATE_ACTIVE;
}

int16_t SineInput::SampleAt(uint64_t k) const {
    const double kTwoPi = 6.283185307179586476925;
    // The phase is reduced per period so that long runs keep their precision.
    const double period = static_cast<double>(rate) / freqHz_;
    const double pos = std::fmod(static_cast<double>(k), period);
    return static_cast<int16_t>(std::lround(amplitude_ * std::sin(kTwoPi * pos / period)));
}

boost::shared_ptr<AudioFrame> SineInput::Process() {
    std::lock_guard<std::mutex> guard(mutex_);
    ApplyPendingLocked();
    if (state == STATE_PAUSED || state == STATE_HANGUP || state == STATE_FAULT ||
        state == STATE_STOPPED)
        return boost::shared_ptr<AudioFrame>();
    boost::shared_ptr<AudioFrame> frame(new AudioFrame(SAMPLE_SIZE_16, rate, numCh, lenMs_));
    int16_t* s = frame->Samples16();
    for (uint32_t i = 0; i < frame->len; ++i) {
        const int16_t v = SampleAt(next_ + i);
        for (uint32_t c = 0; c < frame->numCh; ++c) s[i * frame->numCh + c] = v;
    }
    next_ += frame->len;
    ++produced_;
    return frame;
}

void SineInput::SetStateAtNextCall(tInOutState st) {
    std::lock_guard<std::mutex> guard(mutex_);
    hasPending_ = true;
    pending_ = st;
}

int SineInput::FramesProduced() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return produced_;
}

}  // namespace test
}  // namespace mixer
