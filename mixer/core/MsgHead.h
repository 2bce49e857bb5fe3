#pragma once

#include <cstdint>

#include "mixer/core/Api.h"

namespace mixer {

// Type codes of the engines' messages.
enum tMsgType : uint32_t {
    MSG_NEW_INPUT = 0,
    MSG_NEW_OUTPUT = 1,
    MSG_SET_STREAM_VOL = 2,
    MSG_SET_SPEAKER_VOL = 3,
    MSG_ENABLE_MIC = 4,
    MSG_LATENCY_TEST = 5,  // a bare MsgHead
    MSG_PING = 6,
    MSG_WRITE_INFO = 7,
    MSG_SET_FOCUS = 8,
};

// Base of every message; the handler switches on type and down-casts. Immutable once
// posted; shared between the posting thread and the engine thread.
class MIXER_API MsgHead {
public:
    MsgHead() : type(0) {}
    explicit MsgHead(uint32_t type_) : type(type_) {}
    virtual ~MsgHead() {}

    uint32_t type;
};

}  // namespace mixer
