#pragma once

// Helpers shared by the playback engine's tests: the gain law written out on its own
// (so that expected values do not come from the code under test), and lookups of a
// test input's stream and ramp gain inside an engine.

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

}  // namespace test
}  // namespace mixer
