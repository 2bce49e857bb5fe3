#pragma once

#include <cstring>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include "mixer/core/AudioFrame.h"
#include "mixer/core/InOut.h"

namespace mixer {
namespace host {

// An input of the library that, once its client has hung up, yields one more period of
// silence before it reports nothing. A stream's resampler holds back the last few
// samples of its client in its filter; without a frame behind them they are never
// played, and the sound stops short of its own fade-out: a click.
//
// Threading: like Base, the thread of the engine that owns its stream. Process
// allocates the extra frame once.
template <class Base>
class TrailingSilence : public Base {
public:
    using Base::Base;

    boost::shared_ptr<AudioFrame> Process() override {
        boost::shared_ptr<AudioFrame> frame = Base::Process();
        if (frame || tailGiven_ || this->state != STATE_HANGUP) return frame;
        tailGiven_ = true;
        frame = boost::make_shared<AudioFrame>(SAMPLE_SIZE_16, this->rate, this->numCh, 20);
        std::memset(frame->data, 0, frame->size);
        return frame;
    }

private:
    bool tailGiven_ = false;
};

}  // namespace host
}  // namespace mixer
