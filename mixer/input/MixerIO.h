#pragma once

#include <string>

#include "mixer/core/Api.h"
#include "mixer/core/InOut.h"

namespace mixer {

// Common base of inputs and of the host's outputs: a name, a state and the blocking
// flag. The engines read name and state directly.
//
// Threading: used only by the thread of the engine that owns it; no lock.
class MIXER_API MixerIO {
public:
    MixerIO();
    virtual ~MixerIO();
    virtual void Pause() = 0;
    virtual void Resume() = 0;

    // Display name of a state; anything past Fault, Stopped included, shows as "Unknown".
    static const std::string& GetStateStr(tInOutState state);

    std::string name;
    tInOutState state;
    bool blocking;  // a read waits for data instead of returning at once
};

}  // namespace mixer
