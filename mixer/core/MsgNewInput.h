#pragma once

#include <boost/shared_ptr.hpp>

#include "mixer/input/Input.h"
#include "mixer/core/MsgHead.h"

namespace mixer {

// A new client input for the playback engine.
class MIXER_API MsgNewInput : public MsgHead {
public:
    MsgNewInput() : MsgHead(MSG_NEW_INPUT) {}
    explicit MsgNewInput(boost::shared_ptr<Input> input_) : MsgHead(MSG_NEW_INPUT), input(input_) {}

    boost::shared_ptr<Input> input;
};

}  // namespace mixer
