#pragma once

// Helpers shared by the playback engine's tests: the gain law written out on its own
// (so that expected values do not come from the code under test), and lookups of a
// test input's stream and ramp gain inside an engine.

#include <chrono>
#include <cstdint>

#include <boost/pointer_cast.hpp>
#include <boost/shared_ptr.hpp>

#include "mixer/algo/AlgoRampGain.h"
#include "mixer/input/Input.h"
#include "mixer/playback/Playback.h"
#include "mixer/stream/Stream.h"

namespace mixer {
namespace test {

// Gain-table row of a volume percent.
inline unsigned PercentIndex(unsigned p) {
    if (p == 0) return 0;
    if (p <= 17) return 38 + 2 * p;
    if (p <= 34) return 39 + 2 * p;
    if (p == 35) return 110;
    return 75 + p;
}

// Row for gain relative to ref (ref sits at unity, 127), gain not above ref.
inline unsigned RelIndex(unsigned gain, unsigned ref) {
    unsigned t = PercentIndex(gain), r = PercentIndex(ref);
    if (t == 0) return 0;
    return t + 127 > r ? t + 127 - r : 0;
}

// Ramp steps for a ramp of ms at 48 kHz: one per 32 samples, plus one.
inline unsigned RampSteps(unsigned ms) {
    return 48000u * ms / 1000u / 32u + 1u;
}

inline boost::shared_ptr<Stream> StreamOf(const Playback& pb, const boost::shared_ptr<Input>& in) {
    for (const boost::shared_ptr<Stream>& s : pb.inputs)
        if (s->GetInput() == in) return s;
    return boost::shared_ptr<Stream>();
}

inline boost::shared_ptr<AlgoRampGain> GainOf(const boost::shared_ptr<Stream>& s) {
    if (!s) return boost::shared_ptr<AlgoRampGain>();
    return boost::dynamic_pointer_cast<AlgoRampGain>(s->GetAlgoById(ALGO_ID_RAMP_GAIN));
}

// The engine's clock keeps its seconds' product in 32 bits, so once in about 4295 s it
// jumps back, and a period whose two clock readings straddle the jump is not slept on
// (rare: the readings are microseconds apart). True if the jump lies between monotonic
// times a and b (a before b): a short gap between them is then no fault.
inline bool EngineClockJumpsBetween(std::chrono::steady_clock::time_point a,
                                    std::chrono::steady_clock::time_point b) {
    using std::chrono::duration_cast;
    using std::chrono::seconds;
    auto secUs = [](int64_t s) { return static_cast<int32_t>(static_cast<uint32_t>(s) * 1000000u); };
    const int64_t first = duration_cast<seconds>(a.time_since_epoch()).count();
    const int64_t last = duration_cast<seconds>(b.time_since_epoch()).count();
    for (int64_t s = first + 1; s <= last; ++s)
        if (secUs(s) < secUs(s - 1)) return true;
    return false;
}

}  // namespace test
}  // namespace mixer
