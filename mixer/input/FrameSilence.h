#pragma once

#include "mixer/core/AudioFrame.h"

namespace mixer {

// True when every one of the frame's numCh * len samples is zero. Internal to the
// library (not exported). Any thread; reads the frame only.
bool FrameIsSilent(const AudioFrame& frame);

}  // namespace mixer
