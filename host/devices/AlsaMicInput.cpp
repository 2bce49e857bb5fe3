#include "host/devices/AlsaMicInput.h"

#include "host/devices/AlsaErrors.h"
#include "mixer/core/Log.h"

namespace mixer {
namespace host {

namespace {
const unsigned kPeriodMs = 20;
}

AlsaMicInput::AlsaMicInput(const std::string& device, unsigned rate_, unsigned numCh_,
                           unsigned latencyUs)
    : Input(rate_, numCh_, SAMPLE_SIZE_16, "mic"), device_(device), latencyUs_(latencyUs),
      pcm_(nullptr) {
    name = "ALSA";
    state = STATE_ACTIVE;
}

AlsaMicInput::~AlsaMicInput() { Close(); }

int AlsaMicInput::Open() {
    Close();
    AlsaRouteErrorsToLog();
    int err = snd_pcm_open(&pcm_, device_.c_str(), SND_PCM_STREAM_CAPTURE, 0);
    if (err < 0) {
        MIXER_LOG_E("Mixerd_AlsaMicInput:Open:%s: %s:", device_.c_str(), snd_strerror(err));
        pcm_ = nullptr;
        state = STATE_FAULT;
        return -1;
    }
    err = snd_pcm_set_params(pcm_, SND_PCM_FORMAT_S16, SND_PCM_ACCESS_RW_INTERLEAVED, numCh, rate,
                             1, latencyUs_);
    if (err < 0) {
        MIXER_LOG_E("Mixerd_AlsaMicInput:Open:%s: set_params %u Hz %u ch: %s:", device_.c_str(),
                    rate, numCh, snd_strerror(err));
        Close();
        state = STATE_FAULT;
        return -1;
    }
    state = STATE_ACTIVE;
    MIXER_LOG_I("Mixerd_AlsaMicInput:Open:%s %u Hz %u ch:", device_.c_str(), rate, numCh);
    return 0;
}

void AlsaMicInput::Close() {
    if (pcm_) {
        snd_pcm_close(pcm_);
        pcm_ = nullptr;
    }
}

void AlsaMicInput::Pause() {
    if (pcm_) snd_pcm_drop(pcm_);
    state = STATE_PAUSED;
}

void AlsaMicInput::Resume() {
    if (pcm_) {
        int err = snd_pcm_prepare(pcm_);
        if (err < 0) MIXER_LOG_W("Mixerd_AlsaMicInput:Resume:%s:", snd_strerror(err));
    }
    state = STATE_ACTIVE;
}

boost::shared_ptr<AudioFrame> AlsaMicInput::Process() {
    if (!pcm_) {
        state = STATE_FAULT;
        return boost::shared_ptr<AudioFrame>();
    }
    boost::shared_ptr<AudioFrame> frame(new AudioFrame(SAMPLE_SIZE_16, rate, numCh, kPeriodMs));
    int16_t* out = frame->Samples16();
    snd_pcm_uframes_t left = frame->len;
    while (left > 0) {
        snd_pcm_sframes_t n = snd_pcm_readi(pcm_, out, left);
        if (n >= 0) {
            out += static_cast<size_t>(n) * numCh;
            left -= static_cast<snd_pcm_uframes_t>(n);
            continue;
        }
        if (n == -EAGAIN || n == -EINTR) continue;
        if (snd_pcm_recover(pcm_, static_cast<int>(n), 1) == 0) {
            MIXER_LOG_W("Mixerd_AlsaMicInput:Process:recovered from %s:", snd_strerror(static_cast<int>(n)));
            continue;
        }
        MIXER_LOG_E("Mixerd_AlsaMicInput:Process:%s: %s:", device_.c_str(), snd_strerror(static_cast<int>(n)));
        Close();
        state = STATE_FAULT;
        return boost::shared_ptr<AudioFrame>();
    }
    return frame;
}

}  // namespace host
}  // namespace mixer
