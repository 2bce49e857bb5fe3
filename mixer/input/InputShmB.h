#pragma once

#include <cstdint>
#include <string>

#include <boost/shared_ptr.hpp>

#include "mixer/core/AudioFrame.h"
#include "mixer/input/Input.h"

// The platform's shared-buffer handle; opaque here.
struct ShmbufHandle;

namespace mixer {

// Reads a client's PCM from a platform shared buffer of fixed-size messages: one
// 20 ms frame per Process. A blocking input waits up to 200 ms for a whole frame and
// takes a short result for the writer's hang-up; a non-blocking one returns what has
// arrived padded with zeros and counts the short reads. A buffer the writer broke (the
// library's error) or shrank (ClientMappings) faults it.
//
// Threading: Process, Pause and Resume run on the owning engine's thread; no lock of
// its own (the buffer is synchronised with the writing process by the platform
// library). Process allocates one frame per call and, when blocking is set, holds the
// calling thread for up to 200 ms.
class MIXER_API InputShmB : public Input {
public:
    // Opens the buffer and starts reading at the writer's next message; STATE_ACTIVE
    // when it opened, STATE_FAULT (logged) when it did not or its message size is 0.
    InputShmB(const std::string& name_, unsigned int rate_, unsigned int numCh_,
              unsigned int sampleSize_, const std::string& desc_);
    ~InputShmB() override;

    // Hangup and Fault are final: both leave them alone.
    void Pause() override;
    // Restarts reading at the writer's next message and clears the underflow count.
    void Resume() override;
    boost::shared_ptr<AudioFrame> Process() override;

    ShmbufHandle* buffer;    // owned; null when the open failed
    int32_t underflowCount;  // consecutive short non-blocking reads
    int32_t msgSize;         // bytes per message; 0 when the open failed
    int mappingSlot;         // the buffer's mapping in ClientMappings, -1 when unguarded

private:
    void Fail();  // STATE_FAULT, with the one line that says why
};

}  // namespace mixer
