#pragma once

#include <string>

#include <alsa/asoundlib.h>
#include <boost/shared_ptr.hpp>

#include "mixer/input/Input.h"

namespace mixer {
namespace host {

// The microphone: an ALSA capture PCM read with blocking interleaved 16-bit reads, one
// 20-ms frame per Process. Over-runs are recovered in place and the read retried; any
// other error closes the device, sets state Fault and yields no frame (the record
// engine then asks the host for its default input again).
//
// Threading: Open by the host before handing it over; everything else on the record
// thread. No lock. Process blocks until a period has been captured and allocates it.
class AlsaMicInput : public Input {
public:
    AlsaMicInput(const std::string& device, unsigned rate, unsigned numCh,
                 unsigned latencyUs = 60000);
    ~AlsaMicInput() override;

    // 0, or -1 with state Fault and an error line naming the device.
    int Open();
    void Close();

    void Pause() override;   // stops capturing; state Paused
    void Resume() override;  // prepares and starts again; state Active
    boost::shared_ptr<AudioFrame> Process() override;

    const std::string& Device() const { return device_; }

private:
    std::string device_;
    unsigned latencyUs_;
    snd_pcm_t* pcm_;
};

}  // namespace host
}  // namespace mixer
