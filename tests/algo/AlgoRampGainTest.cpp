#include "mixer/algo/AlgoRampGain.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/LogCapture.h"

namespace mixer {
namespace {

const unsigned kNoRef = AlgoRampGain::kNoRef;

boost::shared_ptr<AudioFrame> Frame16(int value, unsigned numCh = 2, unsigned rate = 24000) {
    // 24000 Hz and 20 ms: 480 samples per channel.
    boost::shared_ptr<AudioFrame> f(new AudioFrame(SAMPLE_SIZE_16, rate, numCh));
    for (uint32_t i = 0; i < f->len * f->numCh; ++i) f->Samples16()[i] = static_cast<int16_t>(value);
    return f;
}

// The rule for one sample, written out independently of the library's kernels.
int16_t Scaled16(int s, unsigned index) {
    const int64_t p = (static_cast<int64_t>(s) * AlgoRampGain::kGainTable[index] + 16384) >> 15;
    return static_cast<int16_t>(p > 32767 ? 32767 : (p < -32768 ? -32768 : p));
}

TEST(AlgoRampGainTest, GainTableFollowsTheHalfDecibelLaw) {
    EXPECT_EQ(AlgoRampGain::kGainTable[0], 0u);
    for (unsigned i = 1; i < AlgoRampGain::kGainTableSize; ++i) {
        const double exact = 32768.0 * std::pow(10.0, (static_cast<double>(i) - 127.0) / 40.0);
        EXPECT_EQ(AlgoRampGain::kGainTable[i], static_cast<uint32_t>(std::floor(exact))) << "row " << i;
    }
    const std::pair<unsigned, uint32_t> telling[] = {{1, 23},       {2, 24},       {7, 32},
                                                     {87, 3276},    {126, 30934},  {127, 32768},
                                                     {128, 34709},  {175, 519337}, {200, 2190029}};
    for (const auto& row : telling) EXPECT_EQ(AlgoRampGain::kGainTable[row.first], row.second);
}

TEST(AlgoRampGainTest, PercentTableRunsWithTheirSeams) {
    for (unsigned p = 0; p < AlgoRampGain::kPercentTableSize; ++p) {
        unsigned expected;
        if (p == 0) expected = 0;
        else if (p <= 17) expected = 38 + 2 * p;
        else if (p <= 34) expected = 39 + 2 * p;
        else if (p == 35) expected = 110;
        else expected = 75 + p;
        EXPECT_EQ(AlgoRampGain::kPercentTable[p], expected) << "percent " << p;
    }
    EXPECT_EQ(AlgoRampGain::kPercentTable[52], 127u);
    EXPECT_EQ(AlgoRampGain::kPercentTable[100], 175u);
    EXPECT_EQ(AlgoRampGain::kPercentTable[1], 40u);
}

TEST(AlgoRampGainTest, StartsAtUnityAsRampGain) {
    AlgoRampGain g;
    EXPECT_EQ(g.id, ALGO_ID_RAMP_GAIN);
    EXPECT_FALSE(g.bypass);
    EXPECT_EQ(g.gainIndex, 127u);
    EXPECT_EQ(g.ramping, 0);
    EXPECT_EQ(g.delayLeft, 0u);
    EXPECT_EQ(g.sampleRate, 48000u);
    EXPECT_EQ(g.GetLatencyUs(), 0u);
    EXPECT_FALSE(g.Process(boost::shared_ptr<AudioFrame>()));
}

TEST(AlgoRampGainTest, UnityAndSilence) {
    test::LogCapture log;
    AlgoRampGain g;
    g.SetVolume(52, kNoRef);
    EXPECT_EQ(g.gainIndex, 127u);
    EXPECT_TRUE(log.Has("I Mixer_AlgoRampGain:SetRamp:gain 52 127dB:")) << log.Dump();
    boost::shared_ptr<AudioFrame> f = Frame16(-1234);
    f->Samples16()[5] = 32767;
    EXPECT_EQ(g.Process(f), f);
    EXPECT_EQ(f->Samples16()[0], -1234);
    EXPECT_EQ(f->Samples16()[5], 32767);
    EXPECT_TRUE(log.Has("D Mixer_AlgoRampGain:Process:Gain 100 960:")) << log.Dump();

    g.SetVolume(0, kNoRef);
    EXPECT_EQ(g.gainIndex, 0u);
    f = Frame16(-1234);
    g.Process(f);
    for (uint32_t i = 0; i < 960; ++i) ASSERT_EQ(f->Samples16()[i], 0) << i;
    EXPECT_TRUE(log.Has("D Mixer_AlgoRampGain:Process:Gain 0 960:")) << log.Dump();
}

TEST(AlgoRampGainTest, FullVolumeIsPlusTwentyFourDecibelsAndSaturates) {
    test::LogCapture log;
    AlgoRampGain g;
    g.SetVolume(100, kNoRef);
    EXPECT_EQ(g.gainIndex, 175u);
    boost::shared_ptr<AudioFrame> f = Frame16(0);
    f->Samples16()[0] = 2000;
    f->Samples16()[1] = 3000;
    f->Samples16()[2] = -3000;
    f->Samples16()[959] = 2000;
    g.Process(f);
    EXPECT_EQ(f->Samples16()[0], 31698);
    EXPECT_EQ(f->Samples16()[1], 32767);
    EXPECT_EQ(f->Samples16()[2], -32768);
    EXPECT_EQ(f->Samples16()[959], 31698);
    EXPECT_TRUE(log.Has("D Mixer_AlgoRampGain:Process:Gain 175 dB:ns 960")) << log.Dump();
}

TEST(AlgoRampGainTest, ReferenceSitsAtUnity) {
    test::LogCapture log;
    AlgoRampGain g;
    g.SetVolume(20, 80);  // 79 + 127 - 155
    EXPECT_EQ(g.gainIndex, 51u);
    EXPECT_TRUE(log.Has("D Mixer_AlgoRampGain:SetRamp:gain 20 ref 80 51dB:")) << log.Dump();

    g.SetVolume(60, 40);
    EXPECT_EQ(log.Count("W Mixer_AlgoRampGain:SetRamp:Gain above ref 60 > 40 !!:"), 1);
    EXPECT_TRUE(log.Has("D Mixer_AlgoRampGain:SetRamp:gain 40 ref 40 127dB:")) << log.Dump();
    EXPECT_EQ(g.gainIndex, 127u);

    g.SetVolume(1, 100);  // 40 + 127 - 175 < 0: silence
    EXPECT_EQ(g.gainIndex, 0u);
    g.SetVolume(30, 101);  // a reference above 100 is no reference
    EXPECT_EQ(g.gainIndex, AlgoRampGain::kPercentTable[30]);
}

TEST(AlgoRampGainTest, GainAboveHundredIsClamped) {
    test::LogCapture log;
    AlgoRampGain g;
    g.SetVolume(150, kNoRef);
    EXPECT_EQ(log.Count("W Mixer_AlgoRampGain:SetRamp:Gain too high 150:Using 100"), 1);
    EXPECT_EQ(g.gainIndex, 175u);
    // Above the no-reference value itself both clamps apply.
    log.Clear();
    g.SetVolume(0x100000, kNoRef);
    EXPECT_EQ(log.Count("W Mixer_AlgoRampGain:SetRamp:Gain above ref 1048576 > 1048575 !!:"), 1);
    EXPECT_EQ(log.Count("W Mixer_AlgoRampGain:SetRamp:Gain too high 1048575:Using 100"), 1);
}

TEST(AlgoRampGainTest, RampShorterThanOneStepIsImmediate) {
    AlgoRampGain g;
    g.SetRamp(30, 31, 0, kNoRef);
    EXPECT_EQ(g.gainIndex, AlgoRampGain::kPercentTable[30]);
    EXPECT_EQ(g.ramping, 0);
    g.SetRamp(60, 32, 0, kNoRef);
    EXPECT_EQ(g.ramping, 1);
    EXPECT_EQ(g.stepsLeft, 2u);
    // Asking for the gain already in force needs no ramp at all.
    AlgoRampGain h;
    h.SetRamp(52, 4800, 100, kNoRef);
    EXPECT_EQ(h.ramping, 0);
    EXPECT_EQ(h.delayLeft, 0u);
}

TEST(AlgoRampGainTest, RampMsUsesTheRateOfTheLastFrame) {
    test::LogCapture log;
    AlgoRampGain g;
    g.SetRampMs(0, 50, 0, kNoRef);  // 2400 samples at the default 48000 Hz: 75 + 1 steps
    EXPECT_EQ(g.stepsLeft, 76u);
    EXPECT_TRUE(log.Has("I Mixer_AlgoRampGain:SetRamp:gain 0 Ramp 127 -> 0 dB steps 76 start 0 dB "
                        "-1.671053:"))
        << log.Dump();
    g.Process(Frame16(100, 1, 16000));
    EXPECT_EQ(g.sampleRate, 16000u);
    g.SetRampMs(52, 50, 20, 60);  // 800 samples: 25 + 1 steps, after 320 samples
    EXPECT_EQ(g.stepsLeft, 26u);
    EXPECT_EQ(g.delayLeft, 320u);
    const std::string from = std::to_string(g.gainIndex);
    EXPECT_EQ(log.CountPrefix("I Mixer_AlgoRampGain:SetRamp:gain 52 ref 60 Ramp " + from +
                              " -> 119 dB steps 26 start 320 dB "),
              1)
        << log.Dump();
}

TEST(AlgoRampGainTest, RampEndsInSixthFrame) {
    test::LogCapture log;
    AlgoRampGain g;
    g.SetRamp(0, 2400, 0, kNoRef);  // 76 steps from 127 to 0
    int previous = 10000;
    for (int frame = 1; frame <= 7; ++frame) {
        log.Clear();
        boost::shared_ptr<AudioFrame> f = Frame16(10000);
        g.Process(f);
        const int steps = log.CountPrefix("D Mixer_AlgoRampGain:Process:Ramp ") -
                          log.CountPrefix("D Mixer_AlgoRampGain:Process:Ramp ns ") -
                          log.CountPrefix("D Mixer_AlgoRampGain:Process:Ramp -- ") -
                          log.CountPrefix("D Mixer_AlgoRampGain:Process:Ramp done ");
        const int16_t* s = f->Samples16();
        if (frame <= 6) {
            // 15 chunks of 32 stereo samples per frame, each one step lower (or equal,
            // the index is truncated) and flat inside.
            EXPECT_EQ(steps, frame <= 5 ? 15 : 1) << "frame " << frame;
            for (int chunk = 0; chunk < 15; ++chunk) {
                for (int k = 1; k < 64; ++k) ASSERT_EQ(s[chunk * 64 + k], s[chunk * 64]);
                ASSERT_LE(s[chunk * 64], previous) << "frame " << frame << " chunk " << chunk;
                previous = s[chunk * 64];
            }
        } else {
            EXPECT_EQ(steps, 0);
            EXPECT_TRUE(log.Has("D Mixer_AlgoRampGain:Process:Gain 0 960:")) << log.Dump();
        }
        EXPECT_EQ(g.ramping, frame < 6 ? 1 : 0) << "frame " << frame;
        if (frame == 6) {
            EXPECT_TRUE(log.Has("D Mixer_AlgoRampGain:Process:Ramp done 0:")) << log.Dump();
            EXPECT_EQ(s[0], Scaled16(10000, g.gainIndex));
            for (int k = 64; k < 960; ++k) ASSERT_EQ(s[k], 0) << k;
        }
    }
    EXPECT_EQ(g.gainIndex, 0u);
}

TEST(AlgoRampGainTest, RampWithDelayStartsMidFrame) {
    test::LogCapture log;
    AlgoRampGain g;
    g.SetVolume(100, kNoRef);
    g.SetRamp(52, 320, 100, kNoRef);  // 11 steps from 175 to 127 after 100 samples
    EXPECT_EQ(g.stepsLeft, 11u);
    EXPECT_EQ(g.gainIndex, 175u);
    boost::shared_ptr<AudioFrame> f = Frame16(1000);
    g.Process(f);
    const int16_t* s = f->Samples16();
    for (int k = 0; k < 200; ++k) ASSERT_EQ(s[k], Scaled16(1000, 175)) << k;
    EXPECT_TRUE(log.Has("D Mixer_AlgoRampGain:Process:Gain 175 dB:ns 200")) << log.Dump();
    EXPECT_TRUE(log.Has("D Mixer_AlgoRampGain:Process:Ramp -- ns 200 nsr 760:")) << log.Dump();
    // First step: 175 + (127 - 175) / 11, truncated.
    const unsigned first = static_cast<unsigned>(175.0f + (-48.0f / 11.0f));
    EXPECT_EQ(first, 170u);
    for (int k = 200; k < 264; ++k) ASSERT_EQ(s[k], Scaled16(1000, first)) << k;
    EXPECT_TRUE(log.Has("D Mixer_AlgoRampGain:Process:Ramp 10 170:")) << log.Dump();
    EXPECT_TRUE(log.Has("D Mixer_AlgoRampGain:Process:Ramp ns 264 nsr 696:")) << log.Dump();
    // 11 steps of 64 samples end at 904; the tail keeps the final gain.
    for (int k = 840; k < 960; ++k) ASSERT_EQ(s[k], Scaled16(1000, g.gainIndex)) << k;
    EXPECT_EQ(g.ramping, 0);
    EXPECT_GE(g.gainIndex, 126u);
    EXPECT_LE(g.gainIndex, 127u);
}

TEST(AlgoRampGainTest, DelayLongerThanAFrameCarriesOver) {
    AlgoRampGain g;
    g.SetRamp(0, 64, 600, kNoRef);  // 3 steps after 600 samples per channel
    boost::shared_ptr<AudioFrame> f = Frame16(1000);
    g.Process(f);
    EXPECT_EQ(g.delayLeft, 120u);
    EXPECT_EQ(g.ramping, 1);
    for (int k = 0; k < 960; ++k) ASSERT_EQ(f->Samples16()[k], 1000);
    f = Frame16(1000);
    g.Process(f);
    for (int k = 0; k < 240; ++k) ASSERT_EQ(f->Samples16()[k], 1000);
    EXPECT_LT(f->Samples16()[240], 1000);
    EXPECT_EQ(f->Samples16()[240 + 3 * 64], 0);
    EXPECT_EQ(g.ramping, 0);
}

TEST(AlgoRampGainTest, ImmediateChangeLeavesPendingDelayInPlace) {
    AlgoRampGain g;
    g.SetRamp(0, 320, 600, kNoRef);
    g.Process(Frame16(1000));  // 120 samples per channel of delay remain
    g.SetVolume(100, kNoRef);
    EXPECT_EQ(g.gainIndex, 175u);
    EXPECT_EQ(g.ramping, 0);
    EXPECT_EQ(g.delayLeft, 120u);
    boost::shared_ptr<AudioFrame> f = Frame16(1000);
    g.Process(f);
    for (int k = 0; k < 240; ++k) ASSERT_EQ(f->Samples16()[k], Scaled16(1000, 175)) << k;
    for (int k = 240; k < 960; ++k) ASSERT_EQ(f->Samples16()[k], 1000) << k;
    EXPECT_EQ(g.delayLeft, 0u);
    f = Frame16(1000);
    g.Process(f);
    for (int k = 0; k < 960; ++k) ASSERT_EQ(f->Samples16()[k], Scaled16(1000, 175)) << k;
}

TEST(AlgoRampGainTest, NewRampStartsFromTheCurrentIndex) {
    AlgoRampGain g;
    g.SetRamp(0, 2400, 0, kNoRef);
    g.Process(Frame16(1000));  // 15 steps down
    const unsigned mid = g.gainIndex;
    EXPECT_LT(mid, 127u);
    EXPECT_GT(mid, 0u);
    g.SetRamp(52, 320, 0, kNoRef);
    EXPECT_FLOAT_EQ(g.indexAcc, static_cast<float>(mid));
    EXPECT_FLOAT_EQ(g.step, (127.0f - mid) / 11.0f);
    EXPECT_EQ(g.gainIndex, mid);
}

TEST(AlgoRampGainTest, RampMayEndOneRowShortAndStaysThere) {
    test::LogCapture log;
    AlgoRampGain g;
    g.SetRamp(6, 64, 0, 100);  // 50 + 127 - 175: target row 2, in 3 steps of -125/3
    EXPECT_TRUE(log.Has("I Mixer_AlgoRampGain:SetRamp:gain 6 ref 100 Ramp 127 -> 2 dB steps 3 "
                        "start 0 dB -41.666668:"))
        << log.Dump();
    g.Process(Frame16(1000));
    EXPECT_EQ(g.ramping, 0);
    EXPECT_EQ(g.gainIndex, 1u);  // the float sum lands just under 2
    EXPECT_TRUE(log.Has("D Mixer_AlgoRampGain:Process:Ramp done 1:")) << log.Dump();
    boost::shared_ptr<AudioFrame> f = Frame16(30000);
    g.Process(f);
    EXPECT_EQ(g.gainIndex, 1u);
    EXPECT_EQ(f->Samples16()[0], Scaled16(30000, 1));
}

TEST(AlgoRampGainTest, ThirtyTwoBitFramesAreNotClamped) {
    AlgoRampGain g;
    g.SetVolume(100, kNoRef);
    boost::shared_ptr<AudioFrame> f(new AudioFrame(SAMPLE_SIZE_32, 24000, 2));
    for (uint32_t i = 0; i < 960; ++i) f->Samples32()[i] = 100000;
    f->Samples32()[1] = 1 << 30;
    f->Samples32()[2] = -(1 << 30);
    g.Process(f);
    EXPECT_EQ(f->Samples32()[0], (100000LL * 519337 + 16384) >> 15);
    EXPECT_EQ(f->Samples32()[0], 1584891);
    // Beyond 32 bits only the low 32 bits remain.
    const int64_t big = ((int64_t(1) << 30) * 519337 + 16384) >> 15;
    EXPECT_EQ(f->Samples32()[1], static_cast<int32_t>(static_cast<uint32_t>(big)));
    EXPECT_EQ(f->Samples32()[1], -162234368);
    EXPECT_EQ(f->Samples32()[2], 162234368);
    EXPECT_EQ(f->Samples32()[959], 1584891);
}

TEST(AlgoRampGainTest, BypassLeavesFramesAlone) {
    test::LogCapture log;
    AlgoRampGain g;
    g.SetVolume(0, kNoRef);
    g.bypass = true;
    boost::shared_ptr<AudioFrame> f = Frame16(777, 1, 8000);
    EXPECT_EQ(g.Process(f), f);
    EXPECT_EQ(f->Samples16()[0], 777);
    EXPECT_EQ(g.sampleRate, 48000u);
    EXPECT_EQ(log.Count("W Mixer_AlgoRampGain:Process:Bypassed:"), 1);
}

TEST(AlgoRampGainTest, ApplyGainBothWidths) {
    short s16[3] = {2000, -2000, 3000};
    AlgoRampGain::ApplyGain(s16, 175, 3);
    EXPECT_EQ(s16[0], 31698);
    EXPECT_EQ(s16[1], -31698);
    EXPECT_EQ(s16[2], 32767);
    short half[2] = {1, -1};
    AlgoRampGain::ApplyGain(half, 126, 2);  // rounding: (30934 + 16384) >> 15 = 1
    EXPECT_EQ(half[0], 1);
    EXPECT_EQ(half[1], -1);
    int s32[2] = {3000, -3000};
    AlgoRampGain::ApplyGain(s32, 175, 2);
    EXPECT_EQ(s32[0], 47547);  // 47547.46
    EXPECT_EQ(s32[1], -47547);  // -47546.6: the arithmetic shift rounds toward minus infinity
    test::LogCapture log;
    short untouched[1] = {5};
    AlgoRampGain::ApplyGain(untouched, 201, 1);
    AlgoRampGain::ApplyGain(untouched, -1, 1);
    EXPECT_EQ(untouched[0], 5);
    EXPECT_EQ(log.CountPrefix("E Mixer_AlgoRampGain:ApplyGain:Bad index "), 2);
}

}  // namespace
}  // namespace mixer
