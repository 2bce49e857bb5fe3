#pragma once

#include <cstdint>

#include <boost/shared_ptr.hpp>

#include "mixer/core/Api.h"
#include "mixer/core/AudioFrame.h"

namespace mixer {

// Kinds of algorithm; a stream accepts ids 0 to 6.
enum tAlgoID : uint32_t {
    ALGO_ID_NONE = 0,
    ALGO_ID_RAMP_GAIN = 1,
    ALGO_ID_RESAMPLE = 2,
    ALGO_ID_SILENCE = 3,
};

// Base of every algorithm a stream runs over its frames, and the library's sample
// arithmetic.
//
// Threading: an algorithm belongs to one stream and runs on that stream's engine
// thread; it has no lock. The static operations are pure functions of their arguments
// and never allocate.
class MIXER_API Algo {
public:
    explicit Algo(tAlgoID id_);
    virtual ~Algo();

    // Runs over one frame (which may be empty) and returns the frame for the next
    // algorithm: the same one changed in place, or a new one.
    virtual boost::shared_ptr<AudioFrame> Process(boost::shared_ptr<AudioFrame> frame) = 0;
    // Delay in microseconds that the algorithm adds.
    virtual uint32_t GetLatencyUs();

    static short saturate16(int v) {
        return v >= 32768 ? 32767 : (v < -32768 ? -32768 : static_cast<short>(v));
    }
    // Saturating sum with a sticky rail: a sample already at 32767 or -32768 stays there.
    static short sumSat16(short a, short b) {
        if (static_cast<uint16_t>(a - 32769) > 65533) return a;
        return saturate16(a + b);
    }
    static short sumSat16(short a, int b) {
        if (static_cast<uint16_t>(a - 32769) > 65533) return a;
        return saturate16(static_cast<int>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b)));
    }

    // Adds src into dst in place, by the two sample widths (a 32-bit dst accumulates
    // without clamping, a 16-bit dst saturates with the sticky rail), and appends src's
    // buffer-id trace to dst's. 0, or -1 with a warning when the lengths or channel
    // counts differ. Neither pointer may be empty.
    static int AddFrames(boost::shared_ptr<AudioFrame> dst, boost::shared_ptr<AudioFrame> src);

    bool bypass;   // set: frames pass untouched
    tAlgoID id;
};

}  // namespace mixer
