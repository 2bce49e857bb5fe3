#pragma once

#include "mixer/core/MsgHead.h"

namespace mixer {

// Speaker volume percent.
class MIXER_API MsgSetSpeakerVol : public MsgHead {
public:
    MsgSetSpeakerVol() : MsgHead(MSG_SET_SPEAKER_VOL), volume(0) {}
    explicit MsgSetSpeakerVol(uint32_t volume_) : MsgHead(MSG_SET_SPEAKER_VOL), volume(volume_) {}

    uint32_t volume;
};

}  // namespace mixer
