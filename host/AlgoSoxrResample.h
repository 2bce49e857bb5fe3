#pragma once

#include <cstdint>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "mixer/algo/Algo.h"

struct soxr;

namespace mixer {
namespace host {

// The daemon's cheaper resampler: the same job as the library's AlgoResample (16-bit
// frames in, a new frame of the output rate out, the input's buffer-id trace kept, the
// input frame unchanged on any failure), done by libsoxr at 16-bit quality, whose SIMD
// filters cost a fraction of the speex resampler's for a passband at least as flat and
// a stop band at least as deep (the tests measure both against quality 7).
//
// libsoxr hands out its output in blocks, not evenly per call: some 20-ms frames yield
// nothing, the next two frames' worth. So that every frame still yields one full frame,
// the output starts with a fixed lead of silence (found at construction by running a
// scratch converter of the same rates over silence) that covers the largest shortfall,
// and the converted samples queue behind it. GetLatencyUs counts that lead.
//
// Threading: runs on the thread of the engine that owns its stream; no lock. Process
// allocates one frame per call (the queue grows only in the first calls); construction
// allocates the converter and takes about as long as 30 frames of conversion.
class AlgoSoxrResample : public Algo {
public:
    AlgoSoxrResample(unsigned channels, unsigned inRate, unsigned outRate);
    ~AlgoSoxrResample() override;
    AlgoSoxrResample(const AlgoSoxrResample&) = delete;
    AlgoSoxrResample& operator=(const AlgoSoxrResample&) = delete;

    boost::shared_ptr<AudioFrame> Process(boost::shared_ptr<AudioFrame> frame) override;
    // The lead in microseconds; 0 when inert or bypassed.
    uint32_t GetLatencyUs() override;

private:
    soxr* soxr_;  // owned, or null when inert
    unsigned channels_;
    unsigned inRate_;
    unsigned outRate_;
    uint32_t latencyUs_;
    std::vector<int16_t> queue_;  // converted samples not yet handed out, interleaved
    size_t maxQueued_;            // samples queue_ keeps at most between calls
};

}  // namespace host
}  // namespace mixer
