#pragma once

#include <string>

#include "mixer/core/MsgHead.h"

namespace mixer {

// Gives focus to a stream type.
class MIXER_API MsgSetFocus : public MsgHead {
public:
    MsgSetFocus() : MsgHead(MSG_SET_FOCUS) {}
    explicit MsgSetFocus(const std::string& streamType_) : MsgHead(MSG_SET_FOCUS), streamType(streamType_) {}

    std::string streamType;
};

}  // namespace mixer
