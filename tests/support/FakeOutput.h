#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "mixer/core/AudioFrame.h"
#include "mixer/core/Output.h"

namespace mixer {
namespace test {

// A device output for the engines under test: keeps a deep copy of every written frame,
// counts and timestamps (monotonic clock) every operation, and can be told to fail.
//
// Threading: the engine thread calls the Output operations while the test thread
// configures and reads; every field of the fake is guarded by mutex_. The MixerIO
// state field is read by the engine without a lock, so the test thread changes it only
// through SetStateAtNextCall (applied on the engine thread), or with SetState before the
// output is handed to an engine. WriteFrame allocates the copy.
class FakeOutput : public Output {
public:
    typedef std::chrono::steady_clock Clock;

    explicit FakeOutput(const std::string& name_ = "ALSA", tInOutState state_ = STATE_ACTIVE);
    ~FakeOutput() override;

    // Output. Pause sets state 3, Resume state 0. WriteFrame returns 0 while the state
    // is 0 or 3 after the write, -1 otherwise.
    void Pause() override;
    void Resume() override;
    int WriteFrame(boost::shared_ptr<AudioFrame> frame) override;
    void IdleTick() override;
    void PostWrite() override;
    int SetVolume(int volume) override;

    // Configuration.
    // The nth write (counting from 1) sets state to failState after capturing its frame.
    void FailAtWrite(int nth, tInOutState failState);
    void SetStateAtNextCall(tInOutState st);
    void SetState(tInOutState st);  // only while no engine thread uses the output
    void SetVolumeResult(int result);
    // false: Frames() holds the written frames themselves instead of copies, for tests
    // of which frame object reached which output (the samples may change after the
    // write then).
    void SetCopyFrames(bool copy);

    // Records (copies).
    std::vector<boost::shared_ptr<AudioFrame> > Frames() const;
    int FrameCount() const;
    int PauseCount() const;
    int ResumeCount() const;
    int IdleTickCount() const;
    int PostWriteCount() const;
    std::vector<Clock::time_point> WriteTimes() const;
    std::vector<Clock::time_point> PauseTimes() const;
    std::vector<Clock::time_point> ResumeTimes() const;
    std::vector<Clock::time_point> IdleTickTimes() const;
    std::vector<Clock::time_point> PostWriteTimes() const;
    std::vector<int> Volumes() const;  // arguments of SetVolume, in order
    tInOutState State() const;          // the state as of the last operation
    // Blocks until at least n frames were written; false on time-out.
    bool WaitForFrames(int n, std::chrono::milliseconds timeout) const;

private:
    void ApplyPendingLocked();  // expects mutex_ held; called on the engine thread

    mutable std::mutex mutex_;
    mutable std::condition_variable written_;        // signalled after every write
    std::vector<boost::shared_ptr<AudioFrame> > frames_;  // GUARDED_BY(mutex_)
    std::vector<Clock::time_point> writeTimes_;      // GUARDED_BY(mutex_)
    std::vector<Clock::time_point> pauseTimes_;      // GUARDED_BY(mutex_)
    std::vector<Clock::time_point> resumeTimes_;     // GUARDED_BY(mutex_)
    std::vector<Clock::time_point> idleTimes_;       // GUARDED_BY(mutex_)
    std::vector<Clock::time_point> postTimes_;       // GUARDED_BY(mutex_)
    std::vector<int> volumes_;                       // GUARDED_BY(mutex_)
    int volumeResult_;                               // GUARDED_BY(mutex_)
    bool copyFrames_;                                // GUARDED_BY(mutex_)
    int failAt_;                                     // GUARDED_BY(mutex_), 0: never
    tInOutState failState_;                          // GUARDED_BY(mutex_)
    bool hasPending_;                                // GUARDED_BY(mutex_)
    tInOutState pending_;                            // GUARDED_BY(mutex_)
    tInOutState stateCopy_;                          // GUARDED_BY(mutex_), mirrors state
};

}  // namespace test
}  // namespace mixer
