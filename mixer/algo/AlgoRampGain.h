#pragma once

#include <cstdint>

#include <boost/shared_ptr.hpp>

#include "mixer/algo/Algo.h"
#include "mixer/core/Api.h"
#include "mixer/core/AudioFrame.h"

namespace mixer {

// The volume control of a stream: scales every sample by a row of a half-decibel gain
// table and moves between gains in steps of 32 samples per channel, optionally after a
// delay, so that volume, focus and ducking changes do not click. Gains are asked for in
// percent (52 is unity, 100 is +24 dB), optionally relative to a reference percent.
//
// Threading: runs on the thread of the engine that owns its stream; SetRamp, SetRampMs
// and SetVolume are called on that thread between frames. No lock, no allocation.
class MIXER_API AlgoRampGain : public Algo {
public:
    static const unsigned kGainTableSize = 201;
    static const unsigned kPercentTableSize = 101;
    static const unsigned kUnityIndex = 127;
    // The reference value that means "no reference".
    static const unsigned kNoRef = 0xfffff;

    // Q15 multiplier of each gain index: 0 is silence, 127 unity, 0.5 dB per row.
    static const uint32_t kGainTable[kGainTableSize];
    // Gain index of each percent.
    static const uint32_t kPercentTable[kPercentTableSize];

    AlgoRampGain();
    ~AlgoRampGain() override;

    // Scales frame in place (empty frames pass through) and returns it.
    boost::shared_ptr<AudioFrame> Process(boost::shared_ptr<AudioFrame> frame) override;

    // New target gain in percent, reached over rampSamples samples per channel after
    // delaySamples samples per channel at the present gain; ref (a percent, or kNoRef)
    // is the percent that sits at unity.
    void SetRamp(unsigned int gain, unsigned int rampSamples, unsigned int delaySamples,
                 unsigned int ref);
    // The same with times in milliseconds at the rate of the last frame (48000 before).
    void SetRampMs(unsigned int gain, unsigned int rampMs, unsigned int delayMs, unsigned int ref);
    // Immediate change.
    void SetVolume(unsigned int gain, unsigned int ref);

    // Multiply count samples by the gain table row gainIndex, Q15 with rounding; the
    // 16-bit form saturates, the 32-bit form keeps the low 32 bits. An index outside
    // the table or a negative count leaves the samples untouched, with an error line.
    static void ApplyGain(short* samples, int gainIndex, int count);
    static void ApplyGain(int* samples, int gainIndex, int count);

    uint32_t gainIndex;   // current table row
    uint8_t ramping;      // a ramp (or its delay) is under way
    uint32_t stepsLeft;
    float step;           // change of the index per step
    float indexAcc;       // the index as a fraction, advanced once per step
    uint32_t delayLeft;   // samples per channel still at the old gain
    uint32_t sampleRate;  // Hz of the last frame, for SetRampMs
};

}  // namespace mixer
