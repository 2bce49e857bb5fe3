#pragma once

#include "mixer/core/MsgHead.h"

namespace mixer {

// Carries nothing: wakes an engine blocked on its queue.
class MIXER_API MsgPing : public MsgHead {
public:
    MsgPing() : MsgHead(MSG_PING) {}
};

}  // namespace mixer
