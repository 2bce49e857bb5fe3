#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <sndfile.h>

#include "client/RealTimePacer.h"
#include "mixer/input/Input.h"

namespace mixer {
namespace host {

// A stand-in microphone that hears a WAV (or any libsndfile-readable) file, at the
// file's own rate, with its channels mapped onto numCh (channel c takes file channel
// c modulo the file's count; a mono file is heard on every channel). At the end of the
// file it starts over (loop) or hears silence. Paced like a capture device: each 20-ms
// frame is handed out once its 20 ms have passed.
//
// Threading: Open by the host before handing the input over; everything else on the
// record thread only. No lock; Process allocates the frame.
class WavMicInput : public Input {
public:
    // Opens path for reading; an empty pointer (after an error line) when it cannot.
    static boost::shared_ptr<WavMicInput> Open(const std::string& path, unsigned numCh,
                                               bool loop, client::RealTimePacer::Clock* clock = nullptr);
    ~WavMicInput() override;

    void Pause() override;
    void Resume() override;
    boost::shared_ptr<AudioFrame> Process() override;

    bool AtEnd() const { return atEnd_; }

private:
    WavMicInput(SNDFILE* file, unsigned rate, unsigned fileCh, unsigned numCh, bool loop,
                client::RealTimePacer::Clock* clock);
    uint32_t ReadInto(int16_t* out, uint32_t frames);

    SNDFILE* file_;
    unsigned fileCh_;
    bool loop_;
    bool atEnd_;
    std::vector<int16_t> buf_;  // one period in the file's layout
    client::RealTimePacer pacer_;
};

}  // namespace host
}  // namespace mixer
