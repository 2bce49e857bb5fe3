#pragma once

#include <cstdint>
#include <string>

#include <boost/shared_ptr.hpp>

#include "mixer/core/AudioFrame.h"
#include "mixer/input/Input.h"

// The platform's shared-queue handle; opaque here.
struct ShmQHandle;

namespace mixer {

// Reads a client's PCM from a platform shared byte queue: one 20 ms frame per
// Process when the queue holds a whole frame, nothing otherwise. Detects the writer's
// hang-up (or a writer silent for 1001 calls in a row) and drops all-zero frames. A
// queue the writer broke (the library's error) or shrank (ClientMappings) faults it.
//
// Threading: Process, Pause and Resume run on the owning engine's thread; no lock of
// its own (the queue is synchronised with the writing process by the platform
// library). Process never waits and allocates one frame per call.
class MIXER_API InputShmQ : public Input {
public:
    // Opens the queue; STATE_ACTIVE when it opened, STATE_FAULT (logged) otherwise.
    InputShmQ(const std::string& name_, unsigned int rate_, unsigned int numCh_,
              unsigned int sampleSize_, const std::string& desc_);
    ~InputShmQ() override;

    // Hangup and Fault are final: both leave them alone.
    void Pause() override;
    void Resume() override;  // keeps the underflow count
    boost::shared_ptr<AudioFrame> Process() override;

    ShmQHandle* queue;       // owned; null when the open failed
    int32_t underflowCount;  // consecutive calls that found less than a frame
    int mappingSlot;         // the queue's mapping in ClientMappings, -1 when unguarded
};

}  // namespace mixer
