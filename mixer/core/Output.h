#pragma once

#include <cstdint>

#include <boost/shared_ptr.hpp>

#include "mixer/core/Api.h"
#include "mixer/core/AudioFrame.h"
#include "mixer/input/MixerIO.h"

namespace mixer {

// A device object of the host that an engine writes frames to. The engines read the
// MixerIO name ("ALSA" paces itself by blocking in WriteFrame) and state (0 working,
// 3 paused, anything else after a write: failed or closed).
//
// Threading: every operation is called only from the thread of the engine that holds
// the output. The slot order of the virtual operations is fixed (destructor 0 and 1,
// Pause 2, Resume 3, WriteFrame 4, host operations 5 to 7, IdleTick 8, PostWrite 9,
// SetVolume 10).
class MIXER_API Output : public MixerIO {
public:
    Output();
    virtual ~Output();

    // Pause: stop the device and set state to 3. Resume: restart it and set state to 0.
    virtual void Pause() = 0;
    virtual void Resume() = 0;

    // Writes one frame in the mix format.
    //   On entry: frame is a live frame the caller keeps sharing; the output may hold a
    //             reference past the call but must not change its samples.
    //   Success:  returns 0 (or a non-negative count); state stays 0.
    //   Failure:  returns -1; a fatal failure also sets state to a value other than 0
    //             and 3, which makes the playback engine fall back to its default
    //             output and the record engine drop the output stream.
    virtual int WriteFrame(boost::shared_ptr<AudioFrame> frame) = 0;

    // Host operations, never called by the library: the reference daemon opens and
    // closes its devices through them and reads the device's own delay.
    virtual int Open();
    virtual void Close();
    virtual uint32_t GetDelayUs();

    // Once per silent playback period, 20 ms after the previous pacing point: keep the
    // device fed or timed during silence.
    virtual void IdleTick();
    // After a successful write on an output not named "ALSA", at pacing points at least
    // 40 ms apart: the host's per-write completion for non-blocking outputs.
    virtual void PostWrite();
    // Applies a volume percent to the device or client side; the result goes back to
    // the caller of StreamOut::SetVolume.
    virtual int SetVolume(int volume);
};

}  // namespace mixer
