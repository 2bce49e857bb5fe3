#pragma once

#include "mixer/core/Output.h"

namespace mixer {
namespace host {

// Where the mix goes when the playback device cannot be opened again after a failure:
// frames are counted and dropped. Named "Discard", not "ALSA", so the playback engine
// keeps pacing itself and clients keep streaming in real time instead of stalling.
//
// Threading: the playback thread only. No lock, no allocation.
class DiscardOutput : public Output {
public:
    DiscardOutput() : frames_(0) {
        name = "Discard";
        state = STATE_ACTIVE;
    }
    void Pause() override { state = STATE_PAUSED; }
    void Resume() override { state = STATE_ACTIVE; }
    int WriteFrame(boost::shared_ptr<AudioFrame> frame) override {
        if (!frame) return -1;
        ++frames_;
        return 0;
    }
    unsigned long long Frames() const { return frames_; }

private:
    unsigned long long frames_;
};

}  // namespace host
}  // namespace mixer
