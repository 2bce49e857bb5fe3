#pragma once

#include <cstdint>

#include "mixer/algo/Algo.h"
#include "mixer/core/Api.h"

namespace mixer {

// The silence algorithm of the playback output chain, id 3. The host supplies its
// Process (what it does with a running latency test is the host's business); the
// library only finds it by id and run-time type and arms the test through the three
// fields below (Playback::LatencyTestStart).
//
// Threading: like every algorithm, used only on the thread of the engine that runs its
// stream; no lock.
class MIXER_API AlgoSilence : public Algo {
public:
    AlgoSilence();
    // Defined in the library so that the type's identity is the library's: the engine's
    // run-time type test then recognises the host's subclasses.
    virtual ~AlgoSilence();

    uint8_t count;        // cleared when a latency test starts
    uint8_t running;      // 1 while a latency test runs
    int64_t startTimeMs;  // monotonic start of the test, ms (seconds wrap in 32 bits)
};

}  // namespace mixer
