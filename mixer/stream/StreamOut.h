#pragma once

#include <boost/shared_ptr.hpp>

#include "mixer/core/Api.h"
#include "mixer/core/AudioFrame.h"
#include "mixer/core/Output.h"
#include "mixer/stream/Stream.h"

namespace mixer {

// A stream that also owns an output: it hands its frames to the output and sets the
// output's volume (and its own ramp gain, when the chain has one).
//
// Threading: used only by the thread of the engine that owns it; no lock. The output's
// operations are called on that thread too.
class MIXER_API StreamOut : public Stream {
public:
    StreamOut();
    ~StreamOut() override;

    // Ramps the chain's ramp gain (at once when paused, over 50 ms otherwise) and then
    // hands volume to the output; returns the output's result. The output must be set.
    int SetVolume(int volume) override;

    void SetOutput(boost::shared_ptr<Output> output_);
    boost::shared_ptr<Output> GetOutput();

    // Writes frame to the output and returns the output's state after the write
    // (STATE_FAULT without an output). WriteFrame's own result is not used.
    int ProcessOut(boost::shared_ptr<AudioFrame> frame);

private:
    boost::shared_ptr<Output> output;
};

}  // namespace mixer
