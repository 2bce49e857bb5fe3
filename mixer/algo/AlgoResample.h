#pragma once

#include <cstdint>

#include <boost/shared_ptr.hpp>

#include "mixer/algo/Algo.h"
#include "mixer/core/Api.h"
#include "mixer/core/AudioFrame.h"

struct SpeexResamplerState_;

namespace mixer {

// Converts the sample rate of a stream's 16-bit frames; every converted frame is a new
// one. Whatever fails leaves the input frame unchanged, so that a stream keeps playing
// (at the wrong rate) rather than falling silent. Keeps its filter history across
// frames: one resampler serves one stream for its whole life.
//
// Threading: runs on the thread of the engine that owns its stream; no lock. Process
// allocates one frame per call; construction allocates the resampler state.
class MIXER_API AlgoResample : public Algo {
public:
    static const int kQuality = 7;

    // A zero argument, or a resampler that cannot be made, leaves an inert object
    // (logged here; Process then returns its frames unchanged).
    AlgoResample(unsigned int channels_, unsigned int inRate_, unsigned int outRate_);
    ~AlgoResample() override;

    boost::shared_ptr<AudioFrame> Process(boost::shared_ptr<AudioFrame> frame) override;
    // The resampler's delay in microseconds; 0 when inert or bypassed.
    uint32_t GetLatencyUs() override;

private:
    AlgoResample(const AlgoResample&) = delete;
    AlgoResample& operator=(const AlgoResample&) = delete;

    SpeexResamplerState_* resampler;  // owned, or null when inert
    uint32_t channels;
    uint32_t inRate;
    uint32_t outRate;
};

}  // namespace mixer
