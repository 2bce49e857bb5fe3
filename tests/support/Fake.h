#pragma once
#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <vector>
#include <boost/make_shared.hpp>
#include "mixer/core/Output.h"
#include "mixer/input/Input.h"
namespace mixer::test {

// A fake's lock over all its fields (library threads call it while the test reads it) and its calls by name and time.
class Recorder {
public:
    typedef std::chrono::steady_clock Clock;
protected:
    typedef std::unique_lock<std::mutex> Lock;
    void RecordLocked(const std::string& op) { names_.push_back(op), times_[op].push_back(Clock::now()), recorded_.notify_all(); }
    int CountLocked(const std::string& op) const { return static_cast<int>(times_[op].size()); }
    int CountOf(const std::string& op) const { Lock l(mutex_); return CountLocked(op); }
    std::vector<Clock::time_point> TimesOf(const std::string& op) const { Lock l(mutex_); return times_[op]; }
    bool WaitForCount(const std::string& op, int n, std::chrono::milliseconds timeout) const {
        Lock l(mutex_); return recorded_.wait_for(l, timeout, [&] { return CountLocked(op) >= n; });
    }
    template <class T> T Get(const T& field) const { Lock l(mutex_); return field; }
    template <class T, class V> void Put(T& field, V&& value) { Lock l(mutex_); field = std::forward<V>(value); }
    mutable std::mutex mutex_;
    mutable std::condition_variable recorded_;  // also wakes a blocked ScriptedInput::Process
    std::vector<std::string> names_;
    mutable std::map<std::string, std::vector<Clock::time_point> > times_;
};

// An input or output. Its engine reads `state` unlocked: the test sets it only through SetStateAtNextCall.
template <class Base>
class FakeIO : public Base, public Recorder {
public:
    template <class... A>
    explicit FakeIO(const std::string& name_, A... baseArgs) : Base(baseArgs...) { this->name = name_, this->state = STATE_ACTIVE; }
    void Pause() override { Lock l(mutex_); EnterLocked("Pause"); this->state = STATE_PAUSED; }
    void Resume() override { Lock l(mutex_); EnterLocked("Resume"); this->state = STATE_ACTIVE; }
    void SetStateAtNextCall(tInOutState st) { Lock l(mutex_); pending_ = st, hasPending_ = true; }
protected:
    // With mutex_ held: applies a pending state, then records op unless it is empty.
    void EnterLocked(const std::string& op) {
        if (hasPending_) this->state = pending_, hasPending_ = false;
        if (!op.empty()) RecordLocked(op);
    }
    boost::shared_ptr<AudioFrame> NewFrame(unsigned lenMs = 20) const {
        return boost::make_shared<AudioFrame>(this->sampleSize, this->rate, this->numCh, lenMs);
    }
    bool hasPending_ = false; tInOutState pending_ = STATE_ACTIVE;
};

// A device output: keeps a copy of every written frame, counts and times every call, can be told to fail.
class FakeOutput : public FakeIO<Output> {
public:
    explicit FakeOutput(const std::string& name_ = "ALSA", tInOutState state_ = STATE_ACTIVE) : FakeIO(name_) { state = state_; }
    int WriteFrame(boost::shared_ptr<AudioFrame> frame) override {  // 0 while the state is 0 or 3 after it, else -1
        Lock l(mutex_); EnterLocked("");
        frames_.push_back(frame && copyFrames_ ? boost::make_shared<AudioFrame>(*frame) : frame);
        if (static_cast<int>(frames_.size()) == failAt_) state = failState_;
        RecordLocked("WriteFrame");
        return state == STATE_ACTIVE || state == STATE_PAUSED ? 0 : -1;
    }
    void IdleTick() override { Lock l(mutex_); EnterLocked("IdleTick"); }
    void PostWrite() override { Lock l(mutex_); EnterLocked("PostWrite"); }
    int SetVolume(int volume) override { Lock l(mutex_); EnterLocked("SetVolume"); volumes_.push_back(volume); return volumeResult_; }
    // The nth write (counting from 1) sets state to failState after keeping its frame.
    void FailAtWrite(int nth, tInOutState failState) { Lock l(mutex_); failAt_ = nth, failState_ = failState; }
    void SetVolumeResult(int result) { Put(volumeResult_, result); }
    void SetCopyFrames(bool copy) { Put(copyFrames_, copy); }  // false: keep the frame objects themselves
    std::vector<boost::shared_ptr<AudioFrame> > Frames() const { return Get(frames_); }
    int FrameCount() const { return CountOf("WriteFrame"); }
    int PauseCount() const { return CountOf("Pause"); }
    int ResumeCount() const { return CountOf("Resume"); }
    int IdleTickCount() const { return CountOf("IdleTick"); }
    std::vector<Clock::time_point> WriteTimes() const { return TimesOf("WriteFrame"); }
    std::vector<Clock::time_point> IdleTickTimes() const { return TimesOf("IdleTick"); }
    std::vector<Clock::time_point> PostWriteTimes() const { return TimesOf("PostWrite"); }
    std::vector<int> Volumes() const { return Get(volumes_); }  // arguments of SetVolume, in order
    tInOutState State() const { return Get(state); }            // only the fake's calls change it
    bool WaitForFrames(int n, std::chrono::milliseconds timeout) const { return WaitForCount("WriteFrame", n, timeout); }
private:
    std::vector<boost::shared_ptr<AudioFrame> > frames_;
    std::vector<int> volumes_;
    int volumeResult_ = 0, failAt_ = 0;  // failAt_ 0: never
    bool copyFrames_ = true; tInOutState failState_ = STATE_FAULT;
};

// Each Process takes the next scripted step (a frame or none, maybe a state); with SetBlockWhenEmpty(true) it waits for
// one, like a device read. Every call is recorded ("Process" on entry, "PauseDelay 250", "GetCmd 8" only when pending).
class ScriptedInput : public FakeIO<Input> {
public:
    ScriptedInput(unsigned rate_, unsigned numCh_, const std::string& desc_ = "scripted", unsigned sampleSize_ = 2)
        : FakeIO(desc_, rate_, numCh_, sampleSize_, desc_) {}
    boost::shared_ptr<AudioFrame> Process() override {
        Lock l(mutex_); EnterLocked("Process");
        recorded_.wait(l, [this] { return !script_.empty() || !blockWhenEmpty_; });
        if (script_.empty()) return boost::shared_ptr<AudioFrame>();
        const Step step = script_.front();
        script_.pop_front(), state = step.setsState ? step.st : state;
        return step.frame;
    }
    tInOutCmd GetCmd() override { Lock l(mutex_); EnterLocked(cmd_ != CMD_NONE ? "GetCmd " + std::to_string(cmd_) : ""); return cmd_; }
    int HandleCmd(tInOutCmd cmd) override {  // clears the command if pending
        Lock l(mutex_); EnterLocked("HandleCmd " + std::to_string(cmd));
        if (cmd == cmd_) cmd_ = CMD_NONE;
        return 0;
    }
    void PauseDelay(unsigned ms) override { Lock l(mutex_); EnterLocked("PauseDelay " + std::to_string(ms)); }
    void Drain() override { Lock l(mutex_); EnterLocked("Drain"); }
    void Flush() override { Lock l(mutex_); EnterLocked("Flush"); }
    void Push(boost::shared_ptr<AudioFrame> frame) { Add(Step{frame, false, STATE_ACTIVE}); }
    void PushWithState(boost::shared_ptr<AudioFrame> frame, tInOutState st) { Add(Step{frame, true, st}); }
    void PushHangup() { PushWithState(boost::shared_ptr<AudioFrame>(), STATE_HANGUP); }
    boost::shared_ptr<AudioFrame> MakeFrame(int value) const {  // of this input's format, every sample value
        boost::shared_ptr<AudioFrame> frame = NewFrame();
        const size_t n = static_cast<size_t>(frame->len) * frame->numCh;
        if (frame->sampleSize == SAMPLE_SIZE_32) std::fill_n(frame->Samples32(), n, value);
        else std::fill_n(frame->Samples16(), n, static_cast<int16_t>(value));
        return frame;
    }
    void SetCmd(tInOutCmd cmd) { Put(cmd_, cmd); }
    void SetBlockWhenEmpty(bool block) { Lock l(mutex_); blockWhenEmpty_ = block, recorded_.notify_all(); }
    std::vector<std::string> Ops() const { return Get(names_); }
    int OpCount(const std::string& op) const { return CountOf(op); }
    bool WaitForOps(const std::string& op, int count, std::chrono::milliseconds timeout) const { return WaitForCount(op, count, timeout); }
private:
    struct Step { boost::shared_ptr<AudioFrame> frame; bool setsState; tInOutState st; };
    void Add(const Step& s) { Lock l(mutex_); script_.push_back(s), recorded_.notify_all(); }
    std::deque<Step> script_;
    tInOutCmd cmd_ = CMD_NONE; bool blockWhenEmpty_ = false;
};

// A 16-bit tone, the same on every channel, in frames of lenMs; none while paused, hung up, faulted or stopped.
class SineInput : public FakeIO<Input> {
public:
    SineInput(unsigned rate_, unsigned numCh_, double freqHz, double amplitude, const std::string& desc_ = "sine", unsigned lenMs = 20)
        : FakeIO(desc_, rate_, numCh_, 2u, desc_), freqHz_(freqHz), amplitude_(amplitude), lenMs_(lenMs) {}
    boost::shared_ptr<AudioFrame> Process() override {
        Lock l(mutex_); EnterLocked("Process");
        if (state >= STATE_PAUSED) return boost::shared_ptr<AudioFrame>();
        boost::shared_ptr<AudioFrame> frame = NewFrame(lenMs_);
        for (uint32_t i = 0; i < frame->len * frame->numCh; ++i) frame->Samples16()[i] = SampleAt(next_ + i / frame->numCh);
        next_ += frame->len, ++produced_;
        return frame;
    }
    int FramesProduced() const { return Get(produced_); }
    std::vector<Clock::time_point> ProcessTimes() const { return TimesOf("Process"); }
    bool WaitForFrames(int n, std::chrono::milliseconds timeout) const { return WaitForCount("Process", n, timeout); }
    // Sample k (from the first frame on) as Process writes it; the phase is reduced per period for precision.
    int16_t SampleAt(uint64_t k) const {
        const double period = rate / freqHz_, pos = std::fmod(static_cast<double>(k), period);
        return static_cast<int16_t>(std::lround(amplitude_ * std::sin(2 * M_PI * pos / period)));
    }
private:
    const double freqHz_, amplitude_; const unsigned lenMs_;
    uint64_t next_ = 0; int produced_ = 0;  // next_: the next sample per channel
};

}  // namespace mixer::test
