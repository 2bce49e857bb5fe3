#include "host/devices/AlsaOutput.h"

#include "host/devices/AlsaErrors.h"
#include "host/devices/OutputSamples.h"
#include "mixer/core/Log.h"

namespace mixer {
namespace host {

namespace {
const unsigned kPeriodMs = 20;
}

AlsaOutput::AlsaOutput(const std::string& device, unsigned rate, unsigned numCh, unsigned latencyUs)
    : device_(device), rate_(rate), numCh_(numCh), latencyUs_(latencyUs), pcm_(nullptr),
      recoveries_(0) {
    name = "ALSA";
    state = STATE_ACTIVE;
}

AlsaOutput::~AlsaOutput() { Close(); }

int AlsaOutput::Open() {
    Close();
    AlsaRouteErrorsToLog();
    int err = snd_pcm_open(&pcm_, device_.c_str(), SND_PCM_STREAM_PLAYBACK, 0);
    if (err < 0) {
        MIXER_LOG_E("Mixerd_AlsaOutput:Open:%s: %s:", device_.c_str(), snd_strerror(err));
        pcm_ = nullptr;
        state = STATE_FAULT;
        return -1;
    }
    // Resampling in alsa-lib is allowed, so a card that lacks the rate still plays.
    err = snd_pcm_set_params(pcm_, SND_PCM_FORMAT_S16, SND_PCM_ACCESS_RW_INTERLEAVED, numCh_,
                             rate_, 1, latencyUs_);
    if (err < 0) {
        MIXER_LOG_E("Mixerd_AlsaOutput:Open:%s: set_params %u Hz %u ch: %s:", device_.c_str(),
                    rate_, numCh_, snd_strerror(err));
        Close();
        state = STATE_FAULT;
        return -1;
    }
    state = STATE_ACTIVE;
    MIXER_LOG_I("Mixerd_AlsaOutput:Open:%s %u Hz %u ch:", device_.c_str(), rate_, numCh_);
    return 0;
}

void AlsaOutput::Close() {
    if (pcm_) {
        snd_pcm_close(pcm_);
        pcm_ = nullptr;
    }
}

void AlsaOutput::Pause() {
    if (pcm_) snd_pcm_drop(pcm_);
    state = STATE_PAUSED;
}

void AlsaOutput::Resume() {
    if (pcm_) {
        int err = snd_pcm_prepare(pcm_);
        if (err < 0) MIXER_LOG_W("Mixerd_AlsaOutput:Resume:%s:", snd_strerror(err));
    }
    state = STATE_ACTIVE;
}

int AlsaOutput::Write(const int16_t* samples, snd_pcm_uframes_t frames) {
    if (!pcm_) {
        state = STATE_FAULT;
        return -1;
    }
    while (frames > 0) {
        snd_pcm_sframes_t n = snd_pcm_writei(pcm_, samples, frames);
        if (n >= 0) {
            samples += static_cast<size_t>(n) * numCh_;
            frames -= static_cast<snd_pcm_uframes_t>(n);
            continue;
        }
        if (n == -EAGAIN || n == -EINTR) continue;
        // Under-run (-EPIPE) or suspend (-ESTRPIPE): recover and write again.
        int err = snd_pcm_recover(pcm_, static_cast<int>(n), 1);
        if (err == 0) {
            ++recoveries_;
            MIXER_LOG_W("Mixerd_AlsaOutput:WriteFrame:recovered from %s:", snd_strerror(static_cast<int>(n)));
            continue;
        }
        MIXER_LOG_E("Mixerd_AlsaOutput:WriteFrame:%s: %s:", device_.c_str(), snd_strerror(static_cast<int>(n)));
        Close();
        state = STATE_FAULT;
        return -1;
    }
    return 0;
}

int AlsaOutput::WriteFrame(boost::shared_ptr<AudioFrame> frame) {
    if (!frame) return -1;
    if (frame->numCh != numCh_ ||
        (frame->sampleSize != SAMPLE_SIZE_16 && frame->sampleSize != SAMPLE_SIZE_32)) {
        MIXER_LOG_W("Mixerd_AlsaOutput:WriteFrame:format %u ch ss %u, device %u ch:", frame->numCh,
                    frame->sampleSize, numCh_);
        return -1;
    }
    size_t count = 0;
    const int16_t* samples = OutputSamples(*frame, numCh_, buf_, count);
    const int r = Write(samples, count);
    if (r == 0 && trace_) trace_->Record(*frame);
    return r;
}

void AlsaOutput::IdleTick() {
    size_t count = rate_ * kPeriodMs / 1000;
    buf_.assign(count * numCh_, 0);
    Write(buf_.data(), count);
}

uint32_t AlsaOutput::GetDelayUs() {
    snd_pcm_sframes_t delay = 0;
    if (!pcm_ || snd_pcm_delay(pcm_, &delay) < 0 || delay < 0) return 0;
    return static_cast<uint32_t>(static_cast<uint64_t>(delay) * 1000000 / rate_);
}

}  // namespace host
}  // namespace mixer
