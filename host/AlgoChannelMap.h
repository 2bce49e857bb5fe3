#pragma once

#include <boost/shared_ptr.hpp>

#include "mixer/algo/Algo.h"

namespace mixer {
namespace host {

// Converts frames from one channel count to another, so that a mono client can be
// mixed into a stereo mix (or a stereo microphone recorded by a mono client): the
// playback engine refuses to sum frames whose channel count differs from the mix.
// Down to mono: the average of the channels. Otherwise output channel c takes input
// channel c modulo the input count (mono is heard on every channel). 16- and 32-bit
// samples. A frame with another channel count than inCh passes untouched.
//
// Threading: the thread of the engine that runs its stream. Process allocates the new
// frame.
class AlgoChannelMap : public Algo {
public:
    static const tAlgoID kId = static_cast<tAlgoID>(4);  // an id the library leaves to hosts

    AlgoChannelMap(unsigned inCh, unsigned outCh);
    boost::shared_ptr<AudioFrame> Process(boost::shared_ptr<AudioFrame> frame) override;

private:
    unsigned inCh_;
    unsigned outCh_;
};

}  // namespace host
}  // namespace mixer
