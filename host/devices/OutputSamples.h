#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "mixer/algo/Algo.h"
#include "mixer/core/AudioFrame.h"

namespace mixer {
namespace host {

// What an output writes of a frame whose format it has checked: the whole frames (count)
// its data holds, as 16-bit samples. A 16-bit frame's own samples; a wide mix is clamped
// to 16 bits into buf, which keeps its capacity, so only the first period allocates.
inline const int16_t* OutputSamples(AudioFrame& frame, unsigned numCh, std::vector<int16_t>& buf, size_t& count) {
    count = frame.len;
    if (count * numCh * frame.sampleSize > frame.size) count = frame.size / (numCh * frame.sampleSize);
    if (frame.sampleSize == SAMPLE_SIZE_16) return frame.Samples16();
    buf.resize(count * numCh);
    const int32_t* src = frame.Samples32();
    for (size_t i = 0; i < buf.size(); ++i) buf[i] = Algo::saturate16(src[i]);
    return buf.data();
}

}  // namespace host
}  // namespace mixer
