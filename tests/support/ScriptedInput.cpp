#include "tests/support/ScriptedInput.h"

namespace mixer {
namespace test {

ScriptedInput::ScriptedInput(unsigned rate_, unsigned numCh_, const std::string& desc_,
                             unsigned sampleSize_)
    : Input(rate_, numCh_, sampleSize_, desc_),
      cmd_(CMD_NONE),
      handleResult_(0),
      hasPending_(false),
      pending_(STATE_ACTIVE),
      blockWhenEmpty_(false) {
    name = desc_;
    state = STATE_ACTIVE;
}

void ScriptedInput::RecordLocked(const std::string& op) {
    ops_.push_back(op);
    ++counts_[op];
    recorded_.notify_all();
}

void ScriptedInput::ApplyPendingLocked() {
    if (hasPending_) {
        state = pending_;
        hasPending_ = false;
    }
}

void ScriptedInput::Pause() {
    std::lock_guard<std::mutex> guard(mutex_);
    ApplyPendingLocked();
    state = STATE_PAUSED;
    RecordLocked("Pause");
}

void ScriptedInput::Resume() {
    std::lock_guard<std::mutex> guard(mutex_);
    ApplyPendingLocked();
    state = STATE_ACTIVE;
    RecordLocked("Resume");
}

boost::shared_ptr<AudioFrame> ScriptedInput::Process() {
    std::unique_lock<std::mutex> guard(mutex_);
    ApplyPendingLocked();
    // Recorded on entry, so that a test can see a Process that waits for its step.
    RecordLocked("Process");
    pushed_.wait(guard, [this] { return !script_.empty() || !blockWhenEmpty_; });
    boost::shared_ptr<AudioFrame> frame;
    if (!script_.empty()) {
        const Step step = script_.front();
        script_.pop_front();
        if (step.setsState) state = step.st;
        frame = step.frame;
    }
    return frame;
}

tInOutCmd ScriptedInput::GetCmd() {
    std::lock_guard<std::mutex> guard(mutex_);
    ApplyPendingLocked();
    // Asked every period: only a pending command is worth a record.
    if (cmd_ != CMD_NONE) RecordLocked("GetCmd " + std::to_string(cmd_));
    return cmd_;
}

int ScriptedInput::HandleCmd(tInOutCmd cmd) {
    std::lock_guard<std::mutex> guard(mutex_);
    ApplyPendingLocked();
    if (cmd == cmd_) cmd_ = CMD_NONE;
    RecordLocked("HandleCmd " + std::to_string(cmd));
    return handleResult_;
}

void ScriptedInput::PauseDelay(unsigned ms) {
    std::lock_guard<std::mutex> guard(mutex_);
    ApplyPendingLocked();
    RecordLocked("PauseDelay " + std::to_string(ms));
}

void ScriptedInput::Drain() {
    std::lock_guard<std::mutex> guard(mutex_);
    ApplyPendingLocked();
    RecordLocked("Drain");
}

void ScriptedInput::Flush() {
    std::lock_guard<std::mutex> guard(mutex_);
    ApplyPendingLocked();
    RecordLocked("Flush");
}

void ScriptedInput::Push(boost::shared_ptr<AudioFrame> frame) {
    std::lock_guard<std::mutex> guard(mutex_);
    script_.push_back(Step{frame, false, STATE_ACTIVE});
    pushed_.notify_all();
}

void ScriptedInput::PushWithState(boost::shared_ptr<AudioFrame> frame, tInOutState st) {
    std::lock_guard<std::mutex> guard(mutex_);
    script_.push_back(Step{frame, true, st});
    pushed_.notify_all();
}

boost::shared_ptr<AudioFrame> ScriptedInput::MakeFrame(int value) const {
    boost::shared_ptr<AudioFrame> frame(new AudioFrame(sampleSize, rate, numCh));
    const size_t n = static_cast<size_t>(frame->len) * frame->numCh;
    if (frame->sampleSize == SAMPLE_SIZE_32) {
        for (size_t i = 0; i < n; ++i) frame->Samples32()[i] = value;
    } else {
        for (size_t i = 0; i < n; ++i) frame->Samples16()[i] = static_cast<int16_t>(value);
    }
    return frame;
}

void ScriptedInput::SetCmd(tInOutCmd cmd) {
    std::lock_guard<std::mutex> guard(mutex_);
    cmd_ = cmd;
}

void ScriptedInput::SetHandleCmdResult(int result) {
    std::lock_guard<std::mutex> guard(mutex_);
    handleResult_ = result;
}

void ScriptedInput::SetStateAtNextCall(tInOutState st) {
    std::lock_guard<std::mutex> guard(mutex_);
    hasPending_ = true;
    pending_ = st;
}

void ScriptedInput::SetBlockWhenEmpty(bool block) {
    std::lock_guard<std::mutex> guard(mutex_);
    blockWhenEmpty_ = block;
    pushed_.notify_all();
}

std::vector<std::string> ScriptedInput::Ops() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return ops_;
}

int ScriptedInput::OpCount(const std::string& op) const {
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = counts_.find(op);
    return it == counts_.end() ? 0 : it->second;
}

size_t ScriptedInput::Remaining() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return script_.size();
}

bool ScriptedInput::WaitForOps(const std::string& op, int count,
                               std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> guard(mutex_);
    return recorded_.wait_for(guard, timeout, [&] {
        auto it = counts_.find(op);
        return it != counts_.end() && it->second >= count;
    });
}

}  // namespace test
}  // namespace mixer
