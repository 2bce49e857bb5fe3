#pragma once

#include <mutex>
#include <string>

#include <boost/shared_ptr.hpp>

#include "mixer/core/AudioFrame.h"
#include "mixer/input/Input.h"

namespace mixer {
namespace test {

// An input that gives frames of zeros, or (withFrames false) no frame at all, every
// time it is asked. Starts active.
//
// Threading: the engine thread calls the Input operations; the test thread reads the
// counter (guarded by mutex_) and changes the state only through SetStateAtNextCall.
class SilenceInput : public Input {
public:
    SilenceInput(unsigned rate_, unsigned numCh_, const std::string& desc_ = "silence",
                 bool withFrames = true, unsigned sampleSize_ = 2);

    void Pause() override;
    void Resume() override;
    boost::shared_ptr<AudioFrame> Process() override;

    void SetStateAtNextCall(tInOutState st);
    int ProcessCount() const;

private:
    void ApplyPendingLocked();  // expects mutex_ held

    const bool withFrames_;
    mutable std::mutex mutex_;
    int calls_;            // GUARDED_BY(mutex_)
    bool hasPending_;      // GUARDED_BY(mutex_)
    tInOutState pending_;  // GUARDED_BY(mutex_)
};

}  // namespace test
}  // namespace mixer
