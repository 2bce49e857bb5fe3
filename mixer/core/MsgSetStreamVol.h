#pragma once

#include <string>

#include "mixer/core/MsgHead.h"

namespace mixer {

// Volume percent for one stream type, with the speaker volume it is relative to.
class MIXER_API MsgSetStreamVol : public MsgHead {
public:
    MsgSetStreamVol() : MsgHead(MSG_SET_STREAM_VOL), volume(0), speakerVolume(0) {}
    MsgSetStreamVol(const std::string& streamType_, uint32_t volume_, uint32_t speakerVolume_)
        : MsgHead(MSG_SET_STREAM_VOL), streamType(streamType_), volume(volume_),
          speakerVolume(speakerVolume_) {}

    std::string streamType;
    uint32_t volume;
    uint32_t speakerVolume;
};

}  // namespace mixer
