#pragma once

#include <boost/shared_ptr.hpp>

#include "mixer/core/PlaybackModes.h"
#include "mixer/core/MsgHead.h"

namespace mixer {

class Output;

// A new device output for the playback engine, or a new output stream for the record
// engine (which uses output only).
class MIXER_API MsgNewOutput : public MsgHead {
public:
    MsgNewOutput() : MsgHead(MSG_NEW_OUTPUT), mode(PLAYBACK_MODE_DEFAULT) {}
    MsgNewOutput(boost::shared_ptr<Output> output_, tPlaybackModes mode_)
        : MsgHead(MSG_NEW_OUTPUT), output(output_), mode(mode_) {}

    boost::shared_ptr<Output> output;
    tPlaybackModes mode;
};

}  // namespace mixer
