#include "tests/support/FakeOutput.h"

namespace mixer {
namespace test {

FakeOutput::FakeOutput(const std::string& name_, tInOutState state_)
    : volumeResult_(0),
      copyFrames_(true),
      failAt_(0),
      failState_(STATE_FAULT),
      hasPending_(false),
      pending_(STATE_ACTIVE),
      stateCopy_(state_) {
    name = name_;
    state = state_;
}

FakeOutput::~FakeOutput() {}

void FakeOutput::ApplyPendingLocked() {
    if (hasPending_) {
        state = pending_;
        hasPending_ = false;
    }
}

void FakeOutput::Pause() {
    std::lock_guard<std::mutex> guard(mutex_);
    ApplyPendingLocked();
    pauseTimes_.push_back(Clock::now());
    state = STATE_PAUSED;
    stateCopy_ = state;
}

void FakeOutput::Resume() {
    std::lock_guard<std::mutex> guard(mutex_);
    ApplyPendingLocked();
    resumeTimes_.push_back(Clock::now());
    state = STATE_ACTIVE;
    stateCopy_ = state;
}

int FakeOutput::WriteFrame(boost::shared_ptr<AudioFrame> frame) {
    std::lock_guard<std::mutex> guard(mutex_);
    ApplyPendingLocked();
    frames_.push_back(frame && copyFrames_ ? boost::shared_ptr<AudioFrame>(new AudioFrame(*frame))
                                           : frame);
    writeTimes_.push_back(Clock::now());
    if (failAt_ != 0 && static_cast<int>(frames_.size()) == failAt_) state = failState_;
    stateCopy_ = state;
    written_.notify_all();
    return state == STATE_ACTIVE || state == STATE_PAUSED ? 0 : -1;
}

void FakeOutput::IdleTick() {
    std::lock_guard<std::mutex> guard(mutex_);
    ApplyPendingLocked();
    idleTimes_.push_back(Clock::now());
    stateCopy_ = state;
}

void FakeOutput::PostWrite() {
    std::lock_guard<std::mutex> guard(mutex_);
    ApplyPendingLocked();
    postTimes_.push_back(Clock::now());
    stateCopy_ = state;
}

int FakeOutput::SetVolume(int volume) {
    std::lock_guard<std::mutex> guard(mutex_);
    ApplyPendingLocked();
    volumes_.push_back(volume);
    stateCopy_ = state;
    return volumeResult_;
}

void FakeOutput::FailAtWrite(int nth, tInOutState failState) {
    std::lock_guard<std::mutex> guard(mutex_);
    failAt_ = nth;
    failState_ = failState;
}

void FakeOutput::SetStateAtNextCall(tInOutState st) {
    std::lock_guard<std::mutex> guard(mutex_);
    hasPending_ = true;
    pending_ = st;
}

void FakeOutput::SetState(tInOutState st) {
    std::lock_guard<std::mutex> guard(mutex_);
    state = st;
    stateCopy_ = st;
}

void FakeOutput::SetVolumeResult(int result) {
    std::lock_guard<std::mutex> guard(mutex_);
    volumeResult_ = result;
}

void FakeOutput::SetCopyFrames(bool copy) {
    std::lock_guard<std::mutex> guard(mutex_);
    copyFrames_ = copy;
}

std::vector<boost::shared_ptr<AudioFrame> > FakeOutput::Frames() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return frames_;
}

int FakeOutput::FrameCount() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return static_cast<int>(frames_.size());
}

int FakeOutput::PauseCount() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return static_cast<int>(pauseTimes_.size());
}

int FakeOutput::ResumeCount() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return static_cast<int>(resumeTimes_.size());
}

int FakeOutput::IdleTickCount() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return static_cast<int>(idleTimes_.size());
}

int FakeOutput::PostWriteCount() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return static_cast<int>(postTimes_.size());
}

std::vector<FakeOutput::Clock::time_point> FakeOutput::WriteTimes() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return writeTimes_;
}

std::vector<FakeOutput::Clock::time_point> FakeOutput::PauseTimes() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return pauseTimes_;
}

std::vector<FakeOutput::Clock::time_point> FakeOutput::ResumeTimes() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return resumeTimes_;
}

std::vector<FakeOutput::Clock::time_point> FakeOutput::IdleTickTimes() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return idleTimes_;
}

std::vector<FakeOutput::Clock::time_point> FakeOutput::PostWriteTimes() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return postTimes_;
}

std::vector<int> FakeOutput::Volumes() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return volumes_;
}

tInOutState FakeOutput::State() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return stateCopy_;
}

bool FakeOutput::WaitForFrames(int n, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> guard(mutex_);
    return written_.wait_for(guard, timeout, [&] { return static_cast<int>(frames_.size()) >= n; });
}

}  // namespace test
}  // namespace mixer
