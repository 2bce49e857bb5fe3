#pragma once

#include <cstdint>
#include <string>

#include <boost/shared_ptr.hpp>

#include "mixer/core/AudioFrame.h"
#include "mixer/core/InOut.h"
#include "mixer/input/MixerIO.h"

namespace mixer {

// A source from which a stream pulls one frame per period.
//
// Threading: called only by the thread of the engine that owns its stream (Process,
// commands and state changes alike); an input has no lock of its own.
class MIXER_API Input : public MixerIO {
public:
    virtual ~Input();
    virtual void Pause() = 0;
    virtual void Resume();
    // The next frame, or an empty pointer when there is none this period.
    virtual boost::shared_ptr<AudioFrame> Process();
    virtual tInOutCmd GetCmd();
    virtual int HandleCmd(tInOutCmd cmd);
    virtual void PauseDelay(unsigned ms);
    virtual void Drain();
    virtual void Flush();

    uint32_t rate;
    uint32_t numCh;
    uint32_t sampleSize;
    std::string desc;   // the stream's type text, reported as its meta
    uint32_t priority;  // focus priority; only streams read and write it

protected:
    Input(unsigned rate, unsigned numCh, unsigned sampleSize, const std::string& desc);
};

}  // namespace mixer
