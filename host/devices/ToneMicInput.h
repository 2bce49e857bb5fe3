#pragma once

#include <cstdint>

#include <boost/shared_ptr.hpp>

#include "client/RealTimePacer.h"
#include "mixer/input/Input.h"

namespace mixer {
namespace host {

// A stand-in microphone that hears a steady sine tone: for machines without a capture
// device. Process paces itself like a capture device: it hands out each 20-ms frame
// once the 20 ms have passed on the monotonic clock.
//
// Threading: the record thread only. No lock; Process allocates the frame.
class ToneMicInput : public Input {
public:
    // amplitude: peak as a fraction of full scale (0..1).
    ToneMicInput(unsigned rate, unsigned numCh, double freqHz, double amplitude,
                 client::RealTimePacer::Clock* clock = nullptr);

    void Pause() override;
    void Resume() override;
    boost::shared_ptr<AudioFrame> Process() override;

private:
    double step_;    // phase increment per sample, radians
    double phase_;
    double peak_;    // in sample units
    client::RealTimePacer pacer_;
};

}  // namespace host
}  // namespace mixer
