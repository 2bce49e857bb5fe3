#pragma once

#include <string>

#include "mixer/core/MsgHead.h"

namespace mixer {

// Asks for the status report in fileName (playback first, then record).
class MIXER_API MsgWriteInfo : public MsgHead {
public:
    MsgWriteInfo() : MsgHead(MSG_WRITE_INFO) {}
    explicit MsgWriteInfo(const std::string& fileName_) : MsgHead(MSG_WRITE_INFO), fileName(fileName_) {}

    std::string fileName;
};

}  // namespace mixer
