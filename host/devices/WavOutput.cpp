#include "host/devices/WavOutput.h"

#include "mixer/algo/Algo.h"
#include "mixer/core/Log.h"

namespace mixer {
namespace host {

namespace {
const unsigned kPeriodMs = 20;
// A caller more than this far behind the clock is re-anchored rather than let through
// in a burst; the engine's own 40-ms pacing keeps the file behind the clock while it
// plays, which is fine for a file.
const int64_t kMaxLagUs = INT64_C(1) << 62;
}  // namespace

WavOutput::WavOutput(const std::string& path, unsigned rate, unsigned numCh,
                     client::RealTimePacer::Clock* clock)
    : path_(path), rate_(rate), numCh_(numCh), file_(nullptr),
      pacer_(kLeadUs, kMaxLagUs, clock), framesWritten_(0), silenceWritten_(0) {
    name = "WAV";
    state = STATE_ACTIVE;
}

WavOutput::~WavOutput() { Close(); }

int WavOutput::Open() {
    Close();
    SF_INFO info = SF_INFO();
    info.samplerate = static_cast<int>(rate_);
    info.channels = static_cast<int>(numCh_);
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    file_ = sf_open(path_.c_str(), SFM_WRITE, &info);
    if (!file_) {
        MIXER_LOG_E("Mixerd_WavOutput:Open:%s: %s:", path_.c_str(), sf_strerror(nullptr));
        state = STATE_FAULT;
        return -1;
    }
    sf_command(file_, SFC_SET_UPDATE_HEADER_AUTO, nullptr, SF_TRUE);
    framesWritten_ = silenceWritten_ = 0;
    pacer_.Reset();
    state = STATE_ACTIVE;
    MIXER_LOG_I("Mixerd_WavOutput:Open:%s %u Hz %u ch:", path_.c_str(), rate_, numCh_);
    return 0;
}

void WavOutput::Close() {
    if (file_) {
        sf_close(file_);
        file_ = nullptr;
        MIXER_LOG_I("Mixerd_WavOutput:Close:%s %llu frames:", path_.c_str(),
                    static_cast<unsigned long long>(framesWritten_));
    }
}

void WavOutput::Pause() { state = STATE_PAUSED; }

void WavOutput::Resume() {
    // The time spent paused is not in the file; the timeline restarts here.
    pacer_.Reset();
    state = STATE_ACTIVE;
}

int WavOutput::WriteSamples(const int16_t* samples, uint64_t count) {
    if (!file_) {
        state = STATE_FAULT;
        return -1;
    }
    sf_count_t n = sf_writef_short(file_, samples, static_cast<sf_count_t>(count));
    if (n != static_cast<sf_count_t>(count)) {
        MIXER_LOG_E("Mixerd_WavOutput:Write:%s: %s:", path_.c_str(), sf_strerror(file_));
        state = STATE_FAULT;
        return -1;
    }
    framesWritten_ += count;
    pacer_.Advance(static_cast<int64_t>(count) * 1000000 / rate_);
    return 0;
}

int WavOutput::WriteFrame(boost::shared_ptr<AudioFrame> frame) {
    if (!frame) return -1;
    if (frame->rate != rate_ || frame->numCh != numCh_ ||
        (frame->sampleSize != SAMPLE_SIZE_16 && frame->sampleSize != SAMPLE_SIZE_32)) {
        MIXER_LOG_W("Mixerd_WavOutput:WriteFrame:format %u Hz %u ch ss %u, file %u Hz %u ch:",
                    frame->rate, frame->numCh, frame->sampleSize, rate_, numCh_);
        return -1;
    }
    uint64_t count = frame->len;
    if (count * numCh_ * frame->sampleSize > frame->size) count = frame->size / (numCh_ * frame->sampleSize);
    if (frame->sampleSize == SAMPLE_SIZE_16) return WriteSamples(frame->Samples16(), count);
    // A wide mix is clamped to 16 bits on the way out.
    buf_.resize(count * numCh_);
    const int32_t* src = frame->Samples32();
    for (size_t i = 0; i < buf_.size(); ++i) buf_[i] = Algo::saturate16(src[i]);
    return WriteSamples(buf_.data(), count);
}

void WavOutput::IdleTick() {
    uint64_t count = rate_ * kPeriodMs / 1000;
    if (buf_.size() < count * numCh_) buf_.resize(count * numCh_);
    std::fill(buf_.begin(), buf_.begin() + count * numCh_, 0);
    if (WriteSamples(buf_.data(), count) == 0) silenceWritten_ += count;
}

void WavOutput::PostWrite() {
    if (file_) sf_write_sync(file_);
}

}  // namespace host
}  // namespace mixer
