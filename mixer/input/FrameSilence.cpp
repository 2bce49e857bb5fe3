#include "mixer/input/FrameSilence.h"

#include <cstddef>

namespace mixer {

bool FrameIsSilent(const AudioFrame& frame) {
    // A sample is zero exactly when its bytes are, so one byte scan serves 16- and
    // 32-bit samples alike and cannot run past the data for the odd sizes 1 and 3.
    size_t bytes = static_cast<size_t>(frame.numCh) * frame.len * frame.sampleSize;
    if (bytes > frame.size) bytes = frame.size;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(frame.data);
    for (size_t i = 0; i < bytes; ++i)
        if (p[i] != 0) return false;
    return true;
}

}  // namespace mixer
