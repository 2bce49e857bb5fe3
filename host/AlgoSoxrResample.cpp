#include "host/AlgoSoxrResample.h"

#include <soxr.h>

#include <algorithm>
#include <cstring>

#include "mixer/core/Log.h"

namespace mixer {
namespace host {

namespace {

const unsigned kFrameMs = 20;
// Frames of silence the scratch converter runs to find the largest shortfall; the
// block pattern of every rate pair the daemon accepts repeats well within it.
const unsigned kProbeFrames = 30;

soxr_t Create(unsigned channels, unsigned inRate, unsigned outRate, const char** error) {
    soxr_io_spec_t io = soxr_io_spec(SOXR_INT16_I, SOXR_INT16_I);
    io.flags = SOXR_NO_DITHER;  // the same input gives the same output
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_16_BITQ, 0);
    // Small transforms: the converter's output blocks, and with them the lead, halve
    // (10 ms instead of 21 from 44.1 kHz) at about the same cost.
    soxr_runtime_spec_t runtime = soxr_runtime_spec(1);
    runtime.log2_min_dft_size = runtime.log2_large_dft_size = 8;
    soxr_error_t err = nullptr;
    soxr_t s = soxr_create(inRate, outRate, channels, &err, &io, &quality, &runtime);
    if (err && s) soxr_delete(s), s = nullptr;
    *error = err ? err : "no converter";
    return s;
}

}  // namespace

AlgoSoxrResample::AlgoSoxrResample(unsigned channels, unsigned inRate, unsigned outRate)
    : Algo(ALGO_ID_RESAMPLE), soxr_(nullptr), channels_(channels), inRate_(inRate), outRate_(outRate),
      latencyUs_(0), maxQueued_(0) {
    if (channels == 0 || channels > 10 || inRate == 0 || outRate == 0) {
        MIXER_LOG_E("Mixerd_AlgoSoxrResample:Constructor:Bad param in %u out %u c %u:", inRate, outRate, channels);
        return;
    }
    const char* error = nullptr;
    soxr_t probe = Create(channels, inRate, outRate, &error);
    if (probe) soxr_ = Create(channels, inRate, outRate, &error);
    if (!soxr_) {
        if (probe) soxr_delete(probe);
        MIXER_LOG_E("Mixerd_AlgoSoxrResample:Constructor:CouldNotInitResampler:%s:", error);
        return;
    }
    const size_t inLen = inRate * kFrameMs / 1000, outLen = outRate * kFrameMs / 1000;
    std::vector<int16_t> in(inLen * channels), out(4 * (outLen + 1) * channels);
    int64_t ahead = 0, lead = 0;  // output produced less output due, and its low point
    for (unsigned k = 0; k < kProbeFrames; ++k) {
        size_t used = 0, made = 0;
        soxr_process(probe, in.data(), inLen, &used, out.data(), out.size() / channels, &made);
        ahead += static_cast<int64_t>(made) - static_cast<int64_t>(outLen);
        lead = std::max(lead, -ahead);
    }
    soxr_delete(probe);
    queue_.assign(static_cast<size_t>(lead) * channels, 0);
    maxQueued_ = (static_cast<size_t>(lead) + 2 * outLen) * channels;
    queue_.reserve(maxQueued_ + 8 * (outLen + 1) * channels);
    // The converter's own output is aligned with its input: the lead is all the delay.
    latencyUs_ = static_cast<uint32_t>((lead * INT64_C(1000000) + outRate / 2) / outRate);
    MIXER_LOG_I("Mixerd_AlgoSoxrResample:Constructor:ResamplerReady:%u to %u lead %lld latency %u us:", inRate,
                outRate, static_cast<long long>(lead), latencyUs_);
}

AlgoSoxrResample::~AlgoSoxrResample() {
    if (soxr_) soxr_delete(soxr_);
}

boost::shared_ptr<AudioFrame> AlgoSoxrResample::Process(boost::shared_ptr<AudioFrame> frame) {
    if (!frame || bypass) return frame;
    if (!soxr_) {
        MIXER_LOG_E("Mixerd_AlgoSoxrResample:Process:No Resampler!:");
        return frame;
    }
    if (frame->sampleSize != SAMPLE_SIZE_16) {
        MIXER_LOG_E("Mixerd_AlgoSoxrResample:Process:Supports only 16bits samples:");
        return frame;
    }
    boost::shared_ptr<AudioFrame> out(new AudioFrame(SAMPLE_SIZE_16, outRate_, channels_, frame->lenMs));
    // The converter is told this algorithm's channel count; a frame that disagrees must
    // still not be read past its buffer.
    const size_t frameBytes = 2u * channels_;
    const size_t inCount = std::min<size_t>(frame->len, frame->size / frameBytes);
    const size_t outCount = std::min<size_t>(out->len, out->size / frameBytes);
    // Room for what this frame can bring out: a block or two of the converter.
    const size_t queued = queue_.size() / channels_;
    const size_t room = 4 * (outCount + 1) + inCount * outRate_ / inRate_;
    queue_.resize((queued + room) * channels_);
    size_t used = 0, made = 0;
    const soxr_error_t err =
        soxr_process(soxr_, frame->Samples16(), inCount, &used, queue_.data() + queued * channels_, room, &made);
    queue_.resize((queued + made) * channels_);
    if (err) {
        MIXER_LOG_E("Mixerd_AlgoSoxrResample:Process:Resampling Error %s:", err);
        return frame;
    }
    // More than the lead queues only when input frames were longer than their rate says;
    // the surplus is dropped so the delay stays bounded.
    const size_t give = std::min(outCount, queue_.size() / channels_);
    std::memcpy(out->Samples16(), queue_.data(), give * frameBytes);
    std::memset(out->Samples16() + give * channels_, 0, (outCount - give) * frameBytes);
    queue_.erase(queue_.begin(), queue_.begin() + static_cast<std::ptrdiff_t>(give * channels_));
    if (queue_.size() > maxQueued_)
        queue_.erase(queue_.begin(), queue_.end() - static_cast<std::ptrdiff_t>(maxQueued_));
    std::memcpy(out->bufId, frame->bufId, kBufIdLen);
    out->bufId[kBufIdLen - 1] = '\0';
    MIXER_LOG_D("Mixerd_AlgoSoxrResample:Process:In %u %zu Out %u %zu:", frame->len, used, out->len, made);
    return out;
}

uint32_t AlgoSoxrResample::GetLatencyUs() { return soxr_ && !bypass ? latencyUs_ : 0; }

}  // namespace host
}  // namespace mixer
