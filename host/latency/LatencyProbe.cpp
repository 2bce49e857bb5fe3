#include "host/latency/LatencyProbe.h"

#include <chrono>
#include <cstdlib>

namespace mixer {
namespace host {

void LatencyProbe::Arm() {
    std::lock_guard<std::mutex> guard(mutex_);
    outcome_ = kArmed;
    markUs_ = delayUs_ = 0;
    changed_.notify_all();
}

bool LatencyProbe::WantsMark() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return outcome_ == kArmed;
}

void LatencyProbe::Marked(int64_t nowUs) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (outcome_ != kArmed) return;
    outcome_ = kMarked;
    markUs_ = nowUs;
    changed_.notify_all();
}

void LatencyProbe::OnMicFrame(const AudioFrame& frame, int64_t endUs) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (outcome_ != kMarked || frame.rate == 0 || frame.numCh == 0) return;
    const uint32_t count = frame.len * frame.numCh;
    const int64_t startUs = endUs - static_cast<int64_t>(frame.len) * 1000000 / frame.rate;
    for (uint32_t i = 0; i < count; ++i) {
        int32_t v = frame.sampleSize == SAMPLE_SIZE_32
                        ? reinterpret_cast<const int32_t*>(frame.data)[i]
                        : reinterpret_cast<const int16_t*>(frame.data)[i];
        if (std::abs(v) < kDetectLevel) continue;
        int64_t atUs = startUs + static_cast<int64_t>(i / frame.numCh) * 1000000 / frame.rate;
        if (atUs < markUs_) continue;  // captured before the mark went out: not ours
        outcome_ = kMeasured;
        delayUs_ = atUs - markUs_;
        changed_.notify_all();
        return;
    }
}

LatencyProbe::Outcome LatencyProbe::Wait(unsigned timeoutMs, int64_t& delayUs) {
    std::unique_lock<std::mutex> guard(mutex_);
    changed_.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                      [this] { return outcome_ != kArmed && outcome_ != kMarked; });
    Outcome result = outcome_;
    if (result == kArmed) result = kNoMark;
    if (result == kMarked) result = kNoEcho;
    delayUs = delayUs_;
    outcome_ = kIdle;
    changed_.notify_all();
    return result;
}

bool LatencyProbe::Active() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return outcome_ == kArmed || outcome_ == kMarked;
}

void LatencyProbe::WriteMark(AudioFrame& frame) {
    const uint32_t count = frame.len * frame.numCh;
    for (uint32_t i = 0; i < count; ++i) {
        int32_t v = ((i / frame.numCh) / 2) % 2 ? -kMarkLevel : kMarkLevel;
        if (frame.sampleSize == SAMPLE_SIZE_32)
            frame.Samples32()[i] = v;
        else
            frame.Samples16()[i] = static_cast<int16_t>(v);
    }
}

}  // namespace host
}  // namespace mixer
