#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "mixer/core/AudioFrame.h"
#include "mixer/input/Input.h"

namespace mixer {
namespace test {

// An input that plays a script: each Process takes the next queued step, which may set
// the state and then returns its frame (possibly empty); with the script spent, Process
// returns no frame. The pending client command is settable. Every operation is recorded
// by name ("Process", "Pause", "Resume", "PauseDelay 250", "HandleCmd 1", "Drain",
// "Flush", and "GetCmd 8" when a command is pending). Starts active. With
// SetBlockWhenEmpty(true) a Process that finds the script spent waits (recorded on entry)
// until a step is pushed or the setting is cleared, like a device read.
//
// Threading: the engine thread calls the Input operations; the test thread scripts and
// reads (everything of the fake is guarded by mutex_) and changes the state only through
// the script or SetStateAtNextCall.
class ScriptedInput : public Input {
public:
    ScriptedInput(unsigned rate_, unsigned numCh_, const std::string& desc_ = "scripted",
                  unsigned sampleSize_ = 2);

    void Pause() override;
    void Resume() override;
    boost::shared_ptr<AudioFrame> Process() override;
    tInOutCmd GetCmd() override;
    // Records, clears the pending command and returns the configured result.
    int HandleCmd(tInOutCmd cmd) override;
    void PauseDelay(unsigned ms) override;  // recorded only; the script decides the state
    void Drain() override;
    void Flush() override;

    // Script.
    void Push(boost::shared_ptr<AudioFrame> frame);
    void PushWithState(boost::shared_ptr<AudioFrame> frame, tInOutState st);
    void PushHangup() { PushWithState(boost::shared_ptr<AudioFrame>(), STATE_HANGUP); }
    // A fresh frame of this input's format whose every sample is value.
    boost::shared_ptr<AudioFrame> MakeFrame(int value) const;
    void SetCmd(tInOutCmd cmd);
    void SetHandleCmdResult(int result);
    void SetStateAtNextCall(tInOutState st);
    // Clearing it releases a Process that is waiting.
    void SetBlockWhenEmpty(bool block);

    // Records.
    std::vector<std::string> Ops() const;
    int OpCount(const std::string& op) const;
    size_t Remaining() const;  // steps not yet taken
    // Waits until op was recorded at least count times; false on time-out.
    bool WaitForOps(const std::string& op, int count, std::chrono::milliseconds timeout) const;

private:
    struct Step {
        boost::shared_ptr<AudioFrame> frame;
        bool setsState;
        tInOutState st;
    };
    void RecordLocked(const std::string& op);  // expects mutex_ held
    void ApplyPendingLocked();                 // expects mutex_ held

    mutable std::mutex mutex_;
    mutable std::condition_variable recorded_;  // signalled after every recorded op
    std::condition_variable pushed_;            // signalled on a new step or unblocking
    std::deque<Step> script_;                   // GUARDED_BY(mutex_)
    std::vector<std::string> ops_;              // GUARDED_BY(mutex_)
    std::map<std::string, int> counts_;         // GUARDED_BY(mutex_)
    tInOutCmd cmd_;                             // GUARDED_BY(mutex_)
    int handleResult_;                          // GUARDED_BY(mutex_)
    bool hasPending_;                           // GUARDED_BY(mutex_)
    tInOutState pending_;                       // GUARDED_BY(mutex_)
    bool blockWhenEmpty_;                       // GUARDED_BY(mutex_)
};

}  // namespace test
}  // namespace mixer
