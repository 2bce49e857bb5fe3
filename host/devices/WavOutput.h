#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sndfile.h>

#include "client/RealTimePacer.h"
#include "mixer/core/Output.h"

namespace mixer {
namespace host {

// A playback device that writes 16-bit PCM into a WAV file instead of a sound card,
// for machines without one. Named "WAV", not "ALSA": the playback engine then paces it
// with PostWrite and feeds silent periods through IdleTick. Every frame and every idle
// tick is written in the order it arrives, an idle tick as one period of silence, so the
// file holds a continuous timeline of what a listener would have heard (only the time
// spent paused after a long silence is left out). The header is kept valid after each
// write, so the file can be read while the daemon runs or after it was killed.
//
// Like a device, it never lets the file run ahead of the clock by more than kLeadUs:
// WriteFrame and IdleTick block when they would.
//
// Threading: called only by the thread of the engine that holds it (Open/Close by the
// host before handing it over or after taking it back). No lock. WriteFrame allocates
// only when a frame is longer than any before (conversion buffer).
class WavOutput : public Output {
public:
    static constexpr int64_t kLeadUs = 40000;

    WavOutput(const std::string& path, unsigned rate, unsigned numCh,
              client::RealTimePacer::Clock* clock = nullptr);
    ~WavOutput() override;

    // Creates (truncates) the file. 0, or -1 with state Fault and an error line.
    int Open() override;
    void Close() override;

    void Pause() override;
    void Resume() override;
    // Writes the frame; -1 when the format is not the file's (not fatal) or the write
    // failed (fatal: state Fault).
    int WriteFrame(boost::shared_ptr<AudioFrame> frame) override;
    // One period (20 ms) of silence.
    void IdleTick() override;
    // Flushes what was written to the file system.
    void PostWrite() override;

    unsigned Rate() const { return rate_; }
    unsigned NumCh() const { return numCh_; }
    uint64_t FramesWritten() const { return framesWritten_; }    // sample frames (per channel)
    uint64_t SilenceWritten() const { return silenceWritten_; }  // of which from IdleTick

private:
    int WriteSamples(const int16_t* samples, uint64_t count);

    std::string path_;
    unsigned rate_;
    unsigned numCh_;
    SNDFILE* file_;
    client::RealTimePacer pacer_;
    std::vector<int16_t> buf_;
    uint64_t framesWritten_;
    uint64_t silenceWritten_;
};

}  // namespace host
}  // namespace mixer
