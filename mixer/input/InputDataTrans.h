#pragma once

#include <cstdint>
#include <string>

#include <boost/shared_ptr.hpp>

#include "mixer/core/AudioFrame.h"
#include "mixer/core/InOut.h"
#include "mixer/input/Input.h"
#include "mixer/transport/DataTrans.h"

namespace mixer {

// The input that reads a client's shared block queue: it assembles 20-ms frames from
// blocks of any size (a block may span frames, a frame may take several blocks), carries
// out the client's commands and turns read errors into states (Hangup, Fault).
//
// Threading: every operation runs on the thread of the engine that owns its stream; the
// input has no lock (the queue synchronises with the client itself). Process allocates
// one frame per call and never waits unless `blocking` is set (then up to 320 ms). The
// queue's locks are bounded (DataTrans::kEngineLockWaitMs): a client that stalls holding
// one costs a period no more than the bound; a period that could not take it yields
// what it has, and a lock held for kMaxBusyPeriods periods in a row faults the input.
class MIXER_API InputDataTrans : public Input {
public:
    // Consecutive periods in which the queue's lock could not be taken before the input
    // gives the client up: 25 periods, half a second. A client that holds its lock that
    // long is stopped or dead, and its stream would otherwise stay silent for ever.
    static const unsigned kMaxBusyPeriods = 25;

    // dataTrans must be non-null and open. The destructor only drops the share of it:
    // a held block is not released and the queue closes when its last owner lets go.
    InputDataTrans(boost::shared_ptr<DataTrans> dataTrans_, unsigned rate_, unsigned numCh_,
                   unsigned sampleSize_, const std::string& desc_);
    virtual ~InputDataTrans();

    virtual void Pause();
    virtual void Resume();
    virtual boost::shared_ptr<AudioFrame> Process();
    virtual tInOutCmd GetCmd();
    // Carries out cmd and acknowledges it to the client; 1 (and no acknowledgement) for
    // an unknown command or without a queue, else 0.
    virtual int HandleCmd(tInOutCmd cmd);
    virtual void PauseDelay(unsigned ms);
    virtual void Drain();
    virtual void Flush();
    // Refuses further writes by the client; what is queued is still delivered.
    void Stop();

    boost::shared_ptr<DataTrans> dataTrans;
    char* readPtr;             // next unread byte of the held block, null when none
    char bufId[kBufIdLen];     // id of the held block, all zero when none
    uint32_t blockLeft;        // unread bytes of the held block
    uint32_t eagainCount;      // consecutive Process calls that found the queue empty
    uint32_t pauseDelayMs;     // audio still to play before a pausing input is paused
    bool releasePending;       // a used-up block whose release met a busy lock
    uint32_t busyPeriods;      // consecutive Process calls that met a busy lock

private:
    // Gives the used-up block back; when the lock is busy it stays pending, and no other
    // block is read until it is given back.
    void ReleaseUsedBlock();
};

}  // namespace mixer
