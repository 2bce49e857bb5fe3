#include "host/devices/WavOutput.h"

#include "host/devices/OutputSamples.h"
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
      clock_(clock ? *clock : client::RealTimePacer::Monotonic()), pacer_(kLeadUs, kMaxLagUs, &clock_),
      lastSyncUs_(0), syncs_(0), pendingMax_(0), framesWritten_(0), silenceWritten_(0) {
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
    framesWritten_ = silenceWritten_ = syncs_ = 0;
    // A second and a period of audio: the samples reach the file at the syncs.
    pendingMax_ = (static_cast<size_t>(rate_) * (kSyncUs + 20000) / 1000000) * numCh_;
    pending_.clear();
    pending_.reserve(pendingMax_ + static_cast<size_t>(rate_) * numCh_ / 10);
    lastSyncUs_ = clock_.NowUs();
    pacer_.Reset();
    state = STATE_ACTIVE;
    MIXER_LOG_I("Mixerd_WavOutput:Open:%s %u Hz %u ch:", path_.c_str(), rate_, numCh_);
    return 0;
}

void WavOutput::Close() {
    if (file_) {
        Sync();
        sf_close(file_);
        file_ = nullptr;
        MIXER_LOG_I("Mixerd_WavOutput:Close:%s %llu frames:", path_.c_str(),
                    static_cast<unsigned long long>(framesWritten_));
    }
}

void WavOutput::Pause() {
    Sync();
    state = STATE_PAUSED;
}

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
    pending_.insert(pending_.end(), samples, samples + count * numCh_);
    if (pending_.size() >= pendingMax_ && Flush() != 0) return -1;
    framesWritten_ += count;
    pacer_.Advance(static_cast<int64_t>(count) * 1000000 / rate_);
    return 0;
}

int WavOutput::Flush() {
    const sf_count_t frames = static_cast<sf_count_t>(pending_.size() / numCh_);
    const sf_count_t n = frames ? sf_writef_short(file_, pending_.data(), frames) : 0;
    pending_.clear();
    if (n != frames) {
        MIXER_LOG_E("Mixerd_WavOutput:Write:%s: %s:", path_.c_str(), sf_strerror(file_));
        state = STATE_FAULT;
        return -1;
    }
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
    size_t count = 0;
    const int16_t* samples = OutputSamples(*frame, numCh_, buf_, count);
    const int r = WriteSamples(samples, count);
    if (r == 0 && trace_) trace_->Record(*frame);
    return r;
}

void WavOutput::IdleTick() {
    uint64_t count = rate_ * kPeriodMs / 1000;
    if (buf_.size() < count * numCh_) buf_.resize(count * numCh_);
    std::fill(buf_.begin(), buf_.begin() + count * numCh_, 0);
    if (WriteSamples(buf_.data(), count) == 0) silenceWritten_ += count;
    PostWrite();  // the engine calls it only after frames
}

void WavOutput::PostWrite() {
    if (clock_.NowUs() - lastSyncUs_ >= kSyncUs) Sync();
}

void WavOutput::Sync() {
    if (!file_) return;
    if (Flush() == 0) sf_command(file_, SFC_UPDATE_HEADER_NOW, nullptr, 0);
    sf_write_sync(file_);
    lastSyncUs_ = clock_.NowUs();
    ++syncs_;
}

}  // namespace host
}  // namespace mixer
