#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sndfile.h>

#include "client/RealTimePacer.h"
#include "host/devices/WriteTrace.h"
#include "mixer/core/Output.h"

namespace mixer {
namespace host {

// A playback device that writes 16-bit PCM into a WAV file instead of a sound card,
// for machines without one. Named "WAV", not "ALSA": the playback engine then paces it
// with PostWrite and feeds silent periods through IdleTick. Every frame and every idle
// tick is written in the order it arrives, an idle tick as one period of silence, so the
// file holds a continuous timeline of what a listener would have heard (only the time
// spent paused after a long silence is left out). The samples are gathered in memory and
// written at pause, at close and once a kSyncUs while playing, each time with the header
// brought up to date and the file synced to disk: whether the daemon is killed or the
// machine fails, the file is a valid WAV file holding all but at most the last second.
// Per period, those writes, header rewrites and syncs cost the daemon more than all its
// mixing.
//
// Like a device, it never lets the file run ahead of the clock by more than kLeadUs:
// WriteFrame and IdleTick block when they would.
//
// Threading: called only by the thread of the engine that holds it (Open/Close by the
// host before handing it over or after taking it back). No lock. Open allocates a
// second's buffer; WriteFrame allocates only when a frame is longer than any before.
class WavOutput : public Output {
public:
    static constexpr int64_t kLeadUs = 40000;
    static constexpr int64_t kSyncUs = 1000000;

    WavOutput(const std::string& path, unsigned rate, unsigned numCh,
              client::RealTimePacer::Clock* clock = nullptr);
    ~WavOutput() override;

    // Creates (truncates) the file. 0, or -1 with state Fault and an error line.
    int Open() override;
    void Close() override;

    void Pause() override;
    void Resume() override;
    // Takes the frame; -1 when the format is not the file's (not fatal) or a write
    // failed (fatal: state Fault).
    int WriteFrame(boost::shared_ptr<AudioFrame> frame) override;
    // One period (20 ms) of silence.
    void IdleTick() override;
    // Writes, updates the header and syncs when the last sync is kSyncUs old.
    void PostWrite() override;

    unsigned Rate() const { return rate_; }
    unsigned NumCh() const { return numCh_; }
    uint64_t FramesWritten() const { return framesWritten_; }    // sample frames (per channel)
    uint64_t SilenceWritten() const { return silenceWritten_; }  // of which from IdleTick
    uint64_t Syncs() const { return syncs_; }

    // Every frame written is recorded in trace from now on (benchmarks).
    void SetTrace(std::shared_ptr<WriteTrace> trace) { trace_ = trace; }

private:
    int WriteSamples(const int16_t* samples, uint64_t count);
    int Flush();  // writes the gathered samples: 0, or -1 with state Fault
    void Sync();

    std::string path_;
    unsigned rate_;
    unsigned numCh_;
    SNDFILE* file_;
    client::RealTimePacer::Clock& clock_;
    client::RealTimePacer pacer_;
    int64_t lastSyncUs_;
    uint64_t syncs_;
    std::vector<int16_t> buf_;
    std::vector<int16_t> pending_;  // samples not yet written, interleaved
    size_t pendingMax_;             // written once this many are gathered
    uint64_t framesWritten_;
    uint64_t silenceWritten_;
    std::shared_ptr<WriteTrace> trace_;  // or none
};

}  // namespace host
}  // namespace mixer
