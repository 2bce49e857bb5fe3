#include "host/devices/WavMicInput.h"

#include <cstring>

#include "mixer/core/Log.h"

namespace mixer {
namespace host {

namespace {
const unsigned kPeriodMs = 20;
const int64_t kMaxLagUs = 200000;
}  // namespace

boost::shared_ptr<WavMicInput> WavMicInput::Open(const std::string& path, unsigned numCh_,
                                                 bool loop, client::RealTimePacer::Clock* clock) {
    SF_INFO info = SF_INFO();
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (!file) {
        MIXER_LOG_E("Mixerd_WavMicInput:Open:%s: %s:", path.c_str(), sf_strerror(nullptr));
        return boost::shared_ptr<WavMicInput>();
    }
    if (info.samplerate <= 0 || info.samplerate > 96000 || info.channels <= 0 || info.frames == 0) {
        MIXER_LOG_E("Mixerd_WavMicInput:Open:%s: unusable (%d Hz, %d ch, %lld frames):", path.c_str(),
                    info.samplerate, info.channels, static_cast<long long>(info.frames));
        sf_close(file);
        return boost::shared_ptr<WavMicInput>();
    }
    return boost::shared_ptr<WavMicInput>(new WavMicInput(
        file, static_cast<unsigned>(info.samplerate), static_cast<unsigned>(info.channels), numCh_,
        loop, clock));
}

WavMicInput::WavMicInput(SNDFILE* file, unsigned rate_, unsigned fileCh, unsigned numCh_,
                         bool loop, client::RealTimePacer::Clock* clock)
    : Input(rate_, numCh_, SAMPLE_SIZE_16, "mic"), file_(file), fileCh_(fileCh), loop_(loop),
      atEnd_(false), pacer_(0, kMaxLagUs, clock) {
    name = "WavMic";
    state = STATE_ACTIVE;
}

WavMicInput::~WavMicInput() { sf_close(file_); }

void WavMicInput::Pause() { state = STATE_PAUSED; }

void WavMicInput::Resume() {
    pacer_.Reset();
    state = STATE_ACTIVE;
}

// Reads up to frames sample frames in the file's layout into out; wraps at the end when
// looping. Returns the frames read.
uint32_t WavMicInput::ReadInto(int16_t* out, uint32_t frames) {
    uint32_t got = 0;
    while (got < frames && !atEnd_) {
        sf_count_t n = sf_readf_short(file_, out + got * fileCh_, frames - got);
        if (n > 0) {
            got += static_cast<uint32_t>(n);
            continue;
        }
        if (!loop_ || sf_seek(file_, 0, SEEK_SET) < 0) atEnd_ = true;
    }
    return got;
}

boost::shared_ptr<AudioFrame> WavMicInput::Process() {
    boost::shared_ptr<AudioFrame> frame(new AudioFrame(SAMPLE_SIZE_16, rate, numCh, kPeriodMs));
    buf_.assign(static_cast<size_t>(frame->len) * fileCh_, 0);  // what is not read stays silent
    ReadInto(buf_.data(), frame->len);
    int16_t* out = frame->Samples16();
    for (uint32_t i = 0; i < frame->len; ++i)
        for (uint32_t c = 0; c < numCh; ++c) *out++ = buf_[i * fileCh_ + c % fileCh_];
    pacer_.Advance(static_cast<int64_t>(frame->len) * 1000000 / rate);
    return frame;
}

}  // namespace host
}  // namespace mixer
