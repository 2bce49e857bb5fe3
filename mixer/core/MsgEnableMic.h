#pragma once

#include "mixer/core/MsgHead.h"

namespace mixer {

// Non-zero enables the microphone of the record engine.
class MIXER_API MsgEnableMic : public MsgHead {
public:
    MsgEnableMic() : MsgHead(MSG_ENABLE_MIC), enable(0) {}
    explicit MsgEnableMic(int32_t enable_) : MsgHead(MSG_ENABLE_MIC), enable(enable_) {}

    int32_t enable;
};

}  // namespace mixer
