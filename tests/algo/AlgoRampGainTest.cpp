#include "mixer/algo/AlgoRampGain.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "tests/support/LogCapture.h"

namespace mixer {
namespace {

const unsigned kNoRef = AlgoRampGain::kNoRef;
typedef boost::shared_ptr<AudioFrame> FramePtr;
typedef std::vector<std::string> Lines;

// "D Process:x" -> "D Mixer_AlgoRampGain:Process:x".
std::string L(const std::string& s) { return s.substr(0, 2) + "Mixer_AlgoRampGain:" + s.substr(2); }
// Row, ramping, steps left and delay left as "row/ramping/steps/delay".
std::string State(const AlgoRampGain& g) {
    return std::to_string(g.gainIndex) + "/" + std::to_string(g.ramping) + "/" + std::to_string(g.stepsLeft) +
           "/" + std::to_string(g.delayLeft);
}

// 24000 Hz and 20 ms: 480 samples per channel.
FramePtr Frame16(int value, unsigned numCh = 2, unsigned rate = 24000) {
    FramePtr f(new AudioFrame(SAMPLE_SIZE_16, rate, numCh));
    for (uint32_t i = 0; i < f->len * f->numCh; ++i) f->Samples16()[i] = static_cast<int16_t>(value);
    return f;
}

// The rule for one sample, written out independently of the library's kernels.
int64_t Product(int64_t s, unsigned index) { return (s * AlgoRampGain::kGainTable[index] + 16384) >> 15; }
int16_t Scaled16(int s, unsigned index) {
    const int64_t p = Product(s, index);
    return static_cast<int16_t>(p > 32767 ? 32767 : (p < -32768 ? -32768 : p));
}

// Samples [from, to) of f are v scaled by row index (row 127 leaves v as it is).
::testing::AssertionResult Scaled(const FramePtr& f, int from, int to, int v, unsigned index) {
    for (int k = from; k < to; ++k)
        if (f->Samples16()[k] != Scaled16(v, index))
            return ::testing::AssertionFailure() << "sample " << k << " is " << f->Samples16()[k] << ", not "
                                                 << v << " at row " << index;
    return ::testing::AssertionSuccess();
}

TEST(AlgoRampGainTest, TablesFollowTheirLaws) {
    EXPECT_EQ(AlgoRampGain::kGainTable[0], 0u);
    for (unsigned i = 1; i < AlgoRampGain::kGainTableSize; ++i)
        EXPECT_EQ(AlgoRampGain::kGainTable[i],
                  static_cast<uint32_t>(std::floor(32768.0 * std::pow(10.0, (i - 127.0) / 40.0))))
            << "row " << i;
    // 1 dB per percent, 0.5 dB from 36 %, with the seams at 17/18 and 34/35/36.
    for (unsigned p = 0; p < AlgoRampGain::kPercentTableSize; ++p)
        EXPECT_EQ(AlgoRampGain::kPercentTable[p],
                  p == 0 ? 0 : p <= 17 ? 38 + 2 * p : p <= 34 ? 39 + 2 * p : p == 35 ? 110 : 75 + p)
            << "percent " << p;
}

TEST(AlgoRampGainTest, StartsAtUnityAndBypassLeavesFramesAndRateAlone) {
    test::LogCapture log;
    AlgoRampGain g;
    EXPECT_EQ(State(g), "127/0/0/0");
    EXPECT_EQ(g.id, ALGO_ID_RAMP_GAIN);
    EXPECT_EQ(g.GetLatencyUs(), 0u);
    EXPECT_FALSE(g.Process(FramePtr()));
    EXPECT_FALSE(g.bypass);
    g.SetVolume(0, kNoRef);
    g.bypass = true;
    FramePtr f = Frame16(777, 1, 8000);
    EXPECT_EQ(g.Process(f), f);
    EXPECT_EQ(f->Samples16()[0], 777);
    EXPECT_EQ(g.sampleRate, 48000u);
    EXPECT_EQ(log.Count(L("W Process:Bypassed:")), 1);
}

// An immediate change, then one frame of each width through it: the row reached, every
// sample against the rule (16-bit clamped, rails included; 32-bit keeps the low 32 bits),
// and the lines logged, each once.
struct VolumeCase {
    unsigned gain, ref, index;
    Lines lines;
};
class AlgoRampGainVolumeTest : public ::testing::TestWithParam<VolumeCase> {};

TEST_P(AlgoRampGainVolumeTest, SetsTheRowAndScalesTheWholeFrame) {
    const VolumeCase& c = GetParam();
    test::LogCapture log;
    AlgoRampGain g;
    g.SetVolume(c.gain, c.ref);
    EXPECT_EQ(g.gainIndex, c.index);
    FramePtr f = Frame16(0), w(new AudioFrame(SAMPLE_SIZE_32, 24000, 2));
    const int edges[] = {2000, 3000, -3000, 32767, -32768, 1, -1};
    std::vector<int> in(960);
    for (int k = 0; k < 960; ++k) {
        in[k] = k < 7 ? edges[k] : static_cast<int16_t>(k * 2731);
        f->Samples16()[k] = static_cast<int16_t>(in[k]);
        w->Samples32()[k] = in[k] * (k % 3 == 0 ? 65536 : 1);  // some far beyond 16 bits
    }
    EXPECT_EQ(g.Process(f), f);
    for (const std::string& line : c.lines) EXPECT_EQ(log.Count(L(line)), 1) << line << "\n" << log.Dump();
    g.Process(w);
    for (int k = 0; k < 960; ++k) {
        ASSERT_EQ(f->Samples16()[k], Scaled16(in[k], c.index)) << k;
        ASSERT_EQ(w->Samples32()[k], static_cast<int32_t>(Product(in[k] * (k % 3 == 0 ? 65536 : 1), c.index))) << k;
    }
}

INSTANTIATE_TEST_SUITE_P(Table, AlgoRampGainVolumeTest, ::testing::Values(
    VolumeCase{52, kNoRef, 127, {"I SetRamp:gain 52 127dB:", "D Process:Gain 100 960:"}},
    VolumeCase{0, kNoRef, 0, {"D Process:Gain 0 960:"}},
    VolumeCase{100, kNoRef, 175, {"D Process:Gain 175 dB:ns 960"}},
    VolumeCase{150, kNoRef, 175, {"W SetRamp:Gain too high 150:Using 100"}},
    // Above the no-reference value itself both clamps apply.
    VolumeCase{0x100000, kNoRef, 175,
               {"W SetRamp:Gain above ref 1048576 > 1048575 !!:", "W SetRamp:Gain too high 1048575:Using 100"}},
    // The reference percent sits at unity: 79 + 127 - 155.
    VolumeCase{20, 80, 51, {"D SetRamp:gain 20 ref 80 51dB:"}},
    VolumeCase{60, 40, 127, {"W SetRamp:Gain above ref 60 > 40 !!:", "D SetRamp:gain 40 ref 40 127dB:"}},
    VolumeCase{1, 100, 0, {}},      // 40 + 127 - 175 < 0: silence
    VolumeCase{0, 20, 0, {}},       // silence is not lifted by a low reference
    VolumeCase{30, 101, 99, {}}));  // a reference above 100 is no reference

TEST(AlgoRampGainTest, RampsInStepsOfThirtyTwoSamplesAtTheLastFramesRate) {
    test::LogCapture log;
    AlgoRampGain g;
    g.SetRamp(30, 31, 0, kNoRef);  // shorter than one step: immediate
    EXPECT_EQ(State(g), "99/0/0/0");
    g.SetRamp(60, 32, 0, kNoRef);
    EXPECT_EQ(State(g), "99/1/2/0");
    AlgoRampGain h;  // the row already in force needs neither ramp nor delay
    h.SetRamp(52, 4800, 100, kNoRef);
    EXPECT_EQ(State(h), "127/0/0/0");
    g.SetRampMs(0, 50, 0, kNoRef);  // 2400 samples at 48000 Hz before any frame: 75 + 1 steps
    EXPECT_EQ(log.Count(L("I SetRamp:gain 0 Ramp 99 -> 0 dB steps 76 start 0 dB -1.302632:")), 1) << log.Dump();
    for (int frame = 1; frame <= 6; ++frame) {  // 15 steps per stereo frame
        FramePtr f = Frame16(10000);
        g.Process(f);
        EXPECT_EQ(g.stepsLeft, frame < 6 ? 76u - 15 * frame : 0u) << frame;
        EXPECT_EQ(g.ramping, frame < 6 ? 1 : 0) << frame;
        if (frame == 1) { EXPECT_TRUE(Scaled(f, 0, 64, 10000, 97)); }  // a step before the first chunk
        if (frame == 6) { EXPECT_TRUE(Scaled(f, 0, 960, 10000, 0)); }   // the last lands on row 0
    }
    EXPECT_EQ(log.Count(L("D Process:Ramp done 0:")), 1) << log.Dump();
    g.SetRampMs(52, 50, 20, 60);  // at 24000 Hz now: 1200 samples, 37 + 1 steps, after 480
    EXPECT_EQ(log.Count(L("I SetRamp:gain 52 ref 60 Ramp 0 -> 119 dB steps 38 start 480 dB 3.131579:")), 1)
        << log.Dump();
}

TEST(AlgoRampGainTest, DelayWithinAFrameThenStepsFromTheCurrentRow) {
    test::LogCapture log;
    AlgoRampGain g;
    g.SetVolume(100, kNoRef);
    g.SetRamp(52, 320, 100, kNoRef);  // 11 steps from 175 to 127 after 100 samples
    EXPECT_EQ(State(g), "175/1/11/100");
    FramePtr f = Frame16(1000);
    g.Process(f);
    EXPECT_TRUE(Scaled(f, 0, 200, 1000, 175));
    EXPECT_TRUE(Scaled(f, 200, 264, 1000, 170));  // 175 - 48 / 11, truncated, not rounded
    EXPECT_TRUE(Scaled(f, 840, 960, 1000, 127));  // 11 steps of 64 samples end at 904
    EXPECT_EQ(State(g), "127/0/0/0");
    for (const char* line : {"D Process:Gain 175 dB:ns 200", "D Process:Ramp -- ns 200 nsr 760:",
                             "D Process:Ramp 10 170:", "D Process:Ramp ns 264 nsr 696:", "D Process:Ramp done 127:"})
        EXPECT_EQ(log.Count(L(line)), 1) << line << "\n" << log.Dump();
    g.SetRamp(6, 64, 0, 100);  // 50 + 127 - 175: row 2, in 3 steps from the row in force
    EXPECT_FLOAT_EQ(g.indexAcc, 127.0f);
    EXPECT_FLOAT_EQ(g.step, -125.0f / 3.0f);
    g.Process(Frame16(1000));
    EXPECT_EQ(State(g), "1/0/0/0");  // the float sum lands just under 2 and stays there
}

TEST(AlgoRampGainTest, DelayCarriesOverFramesAndOutlivesAnImmediateChange) {
    AlgoRampGain g;
    g.SetRamp(0, 320, 600, kNoRef);
    FramePtr f = Frame16(1000);
    g.Process(f);  // 600 - 480: 120 samples per channel of delay remain
    EXPECT_TRUE(Scaled(f, 0, 960, 1000, 127));
    EXPECT_EQ(State(g), "127/1/11/120");
    g.SetVolume(100, kNoRef);
    EXPECT_EQ(State(g), "175/0/11/120");
    f = Frame16(1000);
    g.Process(f);  // only the delayed part is scaled
    EXPECT_TRUE(Scaled(f, 0, 240, 1000, 175));
    EXPECT_TRUE(Scaled(f, 240, 960, 1000, 127));
    EXPECT_EQ(g.delayLeft, 0u);
    f = Frame16(1000);
    g.Process(f);
    EXPECT_TRUE(Scaled(f, 0, 960, 1000, 175));
}

TEST(AlgoRampGainTest, ApplyGainRoundsClampsAndRefusesBadRows) {
    struct Case { int index, in, out16, out32; };
    const Case cases[] = {
        {175, 2000, 31698, 31698}, {175, 3000, 32767, 47547},  // 47547.46
        {175, -3000, -32768, -47547},  // -47546.6: the arithmetic shift rounds toward minus infinity
        {126, -1, -1, -1},  // (-30934 + 16384) >> 15
        {201, 5, 5, 5}, {-1, 5, 5, 5},  // outside the table: untouched, logged
    };
    test::LogCapture log;
    for (const Case& c : cases) {
        short s16 = static_cast<short>(c.in);
        int s32 = c.in;
        AlgoRampGain::ApplyGain(&s16, c.index, 1);
        AlgoRampGain::ApplyGain(&s32, c.index, 1);
        EXPECT_EQ(s16, c.out16) << "row " << c.index << " sample " << c.in;
        EXPECT_EQ(s32, c.out32) << "row " << c.index << " sample " << c.in;
    }
    short two[2] = {1000, 1000};
    AlgoRampGain::ApplyGain(two, 175, -1);  // a negative count is refused too
    AlgoRampGain::ApplyGain(two, 175, 1);
    EXPECT_EQ(std::vector<short>(two, two + 2), std::vector<short>({15849, 1000}));
    EXPECT_EQ(log.CountPrefix(L("E ApplyGain:Bad index ")), 5) << log.Dump();
}

}  // namespace
}  // namespace mixer
