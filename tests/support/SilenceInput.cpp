#include "tests/support/SilenceInput.h"

#include <cstring>

namespace mixer {
namespace test {

SilenceInput::SilenceInput(unsigned rate_, unsigned numCh_, const std::string& desc_,
                           bool withFrames, unsigned sampleSize_)
    : Input(rate_, numCh_, sampleSize_, desc_),
      withFrames_(withFrames),
      calls_(0),
      hasPending_(false),
      pending_(STATE_ACTIVE) {
    name = desc_;
    state = STATE_ACTIVE;
}

void SilenceInput::ApplyPendingLocked() {
    if (hasPending_) {
        state = pending_;
        hasPending_ = false;
    }
}

void SilenceInput::Pause() {
    std::lock_guard<std::mutex> guard(mutex_);
    ApplyPendingLocked();
    state = STATE_PAUSED;
}

void SilenceInput::Resume() {
    std::lock_guard<std::mutex> guard(mutex_);
    ApplyPendingLocked();
    state = STATE_ACTIVE;
}

boost::shared_ptr<AudioFrame> SilenceInput::Process() {
    std::lock_guard<std::mutex> guard(mutex_);
    ApplyPendingLocked();
    ++calls_;
    if (!withFrames_) return boost::shared_ptr<AudioFrame>();
    boost::shared_ptr<AudioFrame> frame(new AudioFrame(sampleSize, rate, numCh));
    std::memset(frame->data, 0, frame->size);
    return frame;
}

void SilenceInput::SetStateAtNextCall(tInOutState st) {
    std::lock_guard<std::mutex> guard(mutex_);
    hasPending_ = true;
    pending_ = st;
}

int SilenceInput::ProcessCount() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return calls_;
}

}  // namespace test
}  // namespace mixer
