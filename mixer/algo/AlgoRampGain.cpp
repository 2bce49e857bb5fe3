#include "mixer/algo/AlgoRampGain.h"

#include <algorithm>
#include <cstring>

#include "mixer/algo/MixKernels.h"
#include "mixer/core/Log.h"

namespace mixer {

const unsigned AlgoRampGain::kGainTableSize;
const unsigned AlgoRampGain::kPercentTableSize;
const unsigned AlgoRampGain::kUnityIndex;
const unsigned AlgoRampGain::kNoRef;

// Row i (i >= 1) is floor(32768 * 10^((i - 127) / 40)): 0.5 dB per row, 127 at 0 dB.
const uint32_t AlgoRampGain::kGainTable[AlgoRampGain::kGainTableSize] = {
    0, 23, 24, 26, 27, 29, 30, 32,
    34, 36, 38, 41, 43, 46, 49, 51,
    55, 58, 61, 65, 69, 73, 77, 82,
    87, 92, 97, 103, 109, 116, 123, 130,
    138, 146, 155, 164, 173, 184, 195, 206,
    219, 231, 245, 260, 275, 292, 309, 327,
    347, 367, 389, 412, 436, 462, 490, 519,
    550, 582, 617, 653, 692, 733, 777, 823,
    871, 923, 978, 1036, 1097, 1162, 1231, 1304,
    1381, 1463, 1550, 1642, 1739, 1842, 1951, 2067,
    2190, 2319, 2457, 2602, 2757, 2920, 3093, 3276,
    3470, 3676, 3894, 4125, 4369, 4628, 4902, 5193,
    5501, 5827, 6172, 6538, 6925, 7335, 7770, 8230,
    8718, 9235, 9782, 10362, 10976, 11626, 12315, 13045,
    13818, 14636, 15504, 16422, 17396, 18426, 19518, 20675,
    21900, 23197, 24572, 26028, 27570, 29204, 30934, 32768,
    34709, 36766, 38944, 41252, 43696, 46286, 49028, 51933,
    55011, 58270, 61723, 65380, 69254, 73358, 77705, 82309,
    87186, 92352, 97825, 103621, 109761, 116265, 123154, 130451,
    138181, 146369, 155042, 164229, 173960, 184268, 195186, 206752,
    219002, 231979, 245725, 260285, 275708, 292045, 309349, 327680,
    347096, 367663, 389448, 412524, 436968, 462860, 490286, 519337,
    550110, 582706, 617234, 653807, 692548, 733584, 777051, 823094,
    871866, 923527, 978250, 1036215, 1097614, 1162652, 1231544, 1304517,
    1381815, 1463692, 1550422, 1642290, 1739602, 1842680, 1951865, 2067521,
    2190029,
};

// 1 dB per percent up to 34 %, 0.5 dB per percent from 36 %, with a jump of three
// half-decibels at 17/18 and at 34/35/36 kept so that 52 % lands on unity.
const uint32_t AlgoRampGain::kPercentTable[AlgoRampGain::kPercentTableSize] = {
    0, 40, 42, 44, 46, 48, 50, 52, 54, 56,
    58, 60, 62, 64, 66, 68, 70, 72, 75, 77,
    79, 81, 83, 85, 87, 89, 91, 93, 95, 97,
    99, 101, 103, 105, 107, 110, 111, 112, 113, 114,
    115, 116, 117, 118, 119, 120, 121, 122, 123, 124,
    125, 126, 127, 128, 129, 130, 131, 132, 133, 134,
    135, 136, 137, 138, 139, 140, 141, 142, 143, 144,
    145, 146, 147, 148, 149, 150, 151, 152, 153, 154,
    155, 156, 157, 158, 159, 160, 161, 162, 163, 164,
    165, 166, 167, 168, 169, 170, 171, 172, 173, 174,
    175,
};

namespace {

const unsigned kStepSamples = 32;  // samples per channel that one ramp step holds
const unsigned kMaxPercent = 100;

}  // namespace

AlgoRampGain::AlgoRampGain()
    : Algo(ALGO_ID_RAMP_GAIN),
      gainIndex(kUnityIndex),
      ramping(0),
      stepsLeft(0),
      step(0.0f),
      indexAcc(0.0f),
      delayLeft(0),
      sampleRate(48000) {}

AlgoRampGain::~AlgoRampGain() {}

void AlgoRampGain::ApplyGain(short* samples, int gainIndex_, int count) {
    if (gainIndex_ < 0 || gainIndex_ >= static_cast<int>(kGainTableSize) || count < 0) {
        MIXER_LOG_E("Mixer_AlgoRampGain:ApplyGain:Bad index %d count %d:", gainIndex_, count);
        return;
    }
    kernels::ApplyGain16(samples, kGainTable[gainIndex_], static_cast<size_t>(count));
}

void AlgoRampGain::ApplyGain(int* samples, int gainIndex_, int count) {
    if (gainIndex_ < 0 || gainIndex_ >= static_cast<int>(kGainTableSize) || count < 0) {
        MIXER_LOG_E("Mixer_AlgoRampGain:ApplyGain:Bad index %d count %d:", gainIndex_, count);
        return;
    }
    kernels::ApplyGain32(reinterpret_cast<int32_t*>(samples), kGainTable[gainIndex_],
                         static_cast<size_t>(count));
}

void AlgoRampGain::SetRamp(unsigned int gain, unsigned int rampSamples, unsigned int delaySamples,
                           unsigned int ref) {
    if (gain > ref) {
        MIXER_LOG_W("Mixer_AlgoRampGain:SetRamp:Gain above ref %u > %u !!:", gain, ref);
        gain = ref;
    }
    if (gain > kMaxPercent) {
        MIXER_LOG_W("Mixer_AlgoRampGain:SetRamp:Gain too high %u:Using %u", gain, kMaxPercent);
        gain = kMaxPercent;
    }
    uint32_t target = kPercentTable[gain];
    if (ref <= kMaxPercent && target != 0) {
        // Measured from the reference, which sits at unity.
        const uint32_t r = kPercentTable[ref];
        target = target + kUnityIndex > r ? target + kUnityIndex - r : 0;
    }
    if (target == gainIndex) {
        rampSamples = 0;
        delaySamples = 0;
    }
    const unsigned steps = rampSamples / kStepSamples;
    if (steps == 0 && delaySamples == 0) {
        // delayLeft is left as it is: a delay still pending from an earlier ramp keeps
        // counting, and the next frame scales only its first delayLeft samples.
        gainIndex = target;
        indexAcc = static_cast<float>(target);
        ramping = 0;
        if (ref == kNoRef)
            MIXER_LOG_I("Mixer_AlgoRampGain:SetRamp:gain %u %udB:", gain, target);
        else
            MIXER_LOG_D("Mixer_AlgoRampGain:SetRamp:gain %u ref %u %udB:", gain, ref, target);
        return;
    }
    stepsLeft = steps + 1;
    ramping = 1;
    delayLeft = delaySamples;
    indexAcc = static_cast<float>(gainIndex);
    step = static_cast<float>(static_cast<int32_t>(target) - static_cast<int32_t>(gainIndex));
    if (stepsLeft != 1) step /= static_cast<float>(stepsLeft);
    if (ref == kNoRef)
        MIXER_LOG_I("Mixer_AlgoRampGain:SetRamp:gain %u Ramp %u -> %u dB steps %u start %u dB %f:",
                    gain, gainIndex, target, stepsLeft, delaySamples, static_cast<double>(step));
    else
        MIXER_LOG_I(
            "Mixer_AlgoRampGain:SetRamp:gain %u ref %u Ramp %u -> %u dB steps %u start %u dB %f:",
            gain, ref, gainIndex, target, stepsLeft, delaySamples, static_cast<double>(step));
}

void AlgoRampGain::SetRampMs(unsigned int gain, unsigned int rampMs, unsigned int delayMs,
                             unsigned int ref) {
    // 32-bit products on purpose: the same wrap as the sample counts everywhere else.
    SetRamp(gain, sampleRate * rampMs / 1000u, sampleRate * delayMs / 1000u, ref);
}

void AlgoRampGain::SetVolume(unsigned int gain, unsigned int ref) { SetRamp(gain, 0, 0, ref); }

boost::shared_ptr<AudioFrame> AlgoRampGain::Process(boost::shared_ptr<AudioFrame> frame) {
    if (!frame) return frame;
    if (bypass) {
        MIXER_LOG_W("Mixer_AlgoRampGain:Process:Bypassed:");
        return frame;
    }
    sampleRate = frame->rate;

    const bool wide = frame->sampleSize == SAMPLE_SIZE_32;
    const int len = static_cast<int>(frame->len);
    const int ch = static_cast<int>(frame->numCh);
    // Never touch more samples than the buffer holds, whatever len and numCh claim.
    const int held = static_cast<int>(frame->size / (wide ? 4u : 2u));
    auto apply = [&](uint32_t index, int from, int n) {
        n = std::min(n, held - from);
        if (n <= 0) return;
        if (wide)
            ApplyGain(reinterpret_cast<int*>(frame->Samples32()) + from, static_cast<int>(index), n);
        else
            ApplyGain(reinterpret_cast<short*>(frame->Samples16()) + from, static_cast<int>(index), n);
    };

    int ns = 0;
    if (!(ramping && delayLeft == 0)) {
        // Fixed gain: the whole frame, or the part of it that a pending delay covers.
        if (delayLeft < frame->len) {
            ns = ch * len;
            if (delayLeft != 0) {
                ns = ch * static_cast<int>(delayLeft);
                delayLeft = 0;
            }
        } else {
            ns = ch * len;
            delayLeft -= frame->len;
        }
        if (gainIndex == 0) {
            const size_t bytes = static_cast<size_t>(ns) * frame->sampleSize;
            std::memset(frame->data, 0, std::min<size_t>(bytes, frame->size));
            MIXER_LOG_D("Mixer_AlgoRampGain:Process:Gain 0 %d:", ns);
        } else if (gainIndex == kUnityIndex) {
            MIXER_LOG_D("Mixer_AlgoRampGain:Process:Gain 100 %d:", ns);
        } else {
            MIXER_LOG_D("Mixer_AlgoRampGain:Process:Gain %u dB:ns %d", gainIndex, ns);
            apply(gainIndex, 0, ns);
        }
    }

    if (ramping && delayLeft == 0) {
        int nsr = ch * len - ns;
        MIXER_LOG_D("Mixer_AlgoRampGain:Process:Ramp -- ns %d nsr %d:", ns, nsr);
        const int chunk = static_cast<int>(kStepSamples) * ch;
        while (nsr >= 1) {
            if (stepsLeft > 0) {
                --stepsLeft;
                indexAcc += step;
                // Truncated, not rounded: the ramp may end one row short of its target
                // and stays there.
                gainIndex = static_cast<uint32_t>(static_cast<int32_t>(indexAcc));
                MIXER_LOG_D("Mixer_AlgoRampGain:Process:Ramp %u %u:", stepsLeft, gainIndex);
            }
            const int n = std::min(nsr, chunk);
            MIXER_LOG_D("Mixer_AlgoRampGain:Process:Ramp ns %d nsr %d:", ns, nsr);
            apply(gainIndex, ns, n);
            ns += n;
            nsr -= n;
        }
        if (stepsLeft == 0) {
            ramping = 0;
            MIXER_LOG_D("Mixer_AlgoRampGain:Process:Ramp done %u:", gainIndex);
        }
    }
    return frame;
}

}  // namespace mixer
