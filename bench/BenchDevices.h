#pragma once

// Devices for driving the engines' real code in a benchmark: an input that hands out a
// fresh frame per call, copied from a prepared period (as the shared-memory inputs copy
// a client's block), and an output that only counts, optionally calling a hook on each
// write.

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "bench/BenchFrames.h"
#include "mixer/core/AudioFrame.h"
#include "mixer/core/Output.h"
#include "mixer/input/Input.h"

namespace mixer {
namespace bench {

class CopyingInput : public Input {
public:
    CopyingInput(unsigned rate_, unsigned seed, const std::string& desc_ = "music")
        : Input(rate_, kChannels, SAMPLE_SIZE_16, desc_),
          samples_(Noise<int16_t>(seed, rate_ / 1000 * kPeriodMs * kChannels)) {
        name = desc_;
    }
    void Pause() override { state = STATE_PAUSED; }
    boost::shared_ptr<AudioFrame> Process() override {
        boost::shared_ptr<AudioFrame> f(new AudioFrame(sampleSize, rate, numCh, kPeriodMs));
        std::memcpy(f->data, samples_.data(), std::min<size_t>(f->size, samples_.size() * 2));
        char id[] = "17";
        UtilConcatBufId(f->bufId, id, ' ');
        return f;
    }

private:
    std::vector<int16_t> samples_;
};

class CountingOutput : public Output {
public:
    explicit CountingOutput(const std::string& name_) { name = name_; }
    void Pause() override { state = STATE_PAUSED; }
    void Resume() override { state = STATE_ACTIVE; }
    int WriteFrame(boost::shared_ptr<AudioFrame> frame) override {
        ++writes;
        last = frame;
        if (onWrite) onWrite();
        return 0;
    }
    long writes = 0;
    boost::shared_ptr<AudioFrame> last;  // kept, as a device would until its next write
    std::function<void()> onWrite;
};

}  // namespace bench
}  // namespace mixer
