#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <alsa/asoundlib.h>

#include "host/devices/WriteTrace.h"
#include "mixer/core/Output.h"

namespace mixer {
namespace host {

// The sound card: an ALSA playback PCM opened for blocking interleaved 16-bit writes.
// Named "ALSA", so the playback engine lets its blocking WriteFrame set the pace.
// Under-runs (and a suspended device) are recovered in place and the write retried;
// any other write error closes the device and sets state Fault, which makes the engine
// ask the host for its default output again.
//
// Threading: Open/Close by the host before handing it over or after taking it back;
// everything else on the playback thread. No lock. WriteFrame blocks until the device
// has room; it allocates only to widen a 32-bit mix the first time.
class AlsaOutput : public Output {
public:
    // device: an ALSA PCM name ("default", "hw:0,0", ...). latencyUs: the device buffer.
    AlsaOutput(const std::string& device, unsigned rate, unsigned numCh,
               unsigned latencyUs = 60000);
    ~AlsaOutput() override;

    // 0, or -1 with state Fault and an error line naming the device.
    int Open() override;
    void Close() override;

    void Pause() override;   // drops what is queued; state Paused
    void Resume() override;  // prepares the device again; state Active
    int WriteFrame(boost::shared_ptr<AudioFrame> frame) override;
    // One period of silence, so the device does not run dry between sounds.
    void IdleTick() override;
    uint32_t GetDelayUs() override;

    const std::string& Device() const { return device_; }
    unsigned Rate() const { return rate_; }
    unsigned NumCh() const { return numCh_; }
    uint32_t Recoveries() const { return recoveries_; }

    // Every frame written is recorded in trace from now on (benchmarks).
    void SetTrace(std::shared_ptr<WriteTrace> trace) { trace_ = trace; }

private:
    int Write(const int16_t* samples, snd_pcm_uframes_t frames);

    std::string device_;
    unsigned rate_;
    unsigned numCh_;
    unsigned latencyUs_;
    snd_pcm_t* pcm_;
    std::vector<int16_t> buf_;
    uint32_t recoveries_;
    std::shared_ptr<WriteTrace> trace_;  // or none
};

}  // namespace host
}  // namespace mixer
