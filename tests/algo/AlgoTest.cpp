#include <gtest/gtest.h>
#include <speex/speex_resampler.h>
#include <climits>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <type_traits>
#include <vector>
#include "mixer/algo/AlgoRampGain.h"
#include "mixer/algo/AlgoResample.h"
#include "mixer/algo/MixKernels.h"
#include "tests/support/LogCapture.h"
namespace mixer {
namespace {
typedef boost::shared_ptr<AudioFrame> FramePtr;
typedef std::vector<std::string> Lines;
const unsigned kNoRef = AlgoRampGain::kNoRef;

// A frame of value (zeros by default); 24000 Hz stereo frames hold 480 samples per channel.
FramePtr Frame(unsigned sampleSize, unsigned numCh, unsigned rate, int value = 0) {
    FramePtr f(new AudioFrame(sampleSize, rate, numCh));
    std::memset(f->data, 0, f->size);
    for (uint32_t i = 0; value && i < f->len * f->numCh; ++i) f->Samples16()[i] = static_cast<int16_t>(value);
    return f;
}

FramePtr Frame16(int value) { return Frame(2, 2, 24000, value); }
// "D Process:x" -> "D Mixer_AlgoRampGain:Process:x".
std::string L(const std::string& s) { return s.substr(0, 2) + "Mixer_AlgoRampGain:" + s.substr(2); }
// Row, ramping, steps left and delay left as "row/ramping/steps/delay".
std::string State(const AlgoRampGain& g) {
    return std::to_string(g.gainIndex) + "/" + std::to_string(g.ramping) + "/" + std::to_string(g.stepsLeft) + "/" +
           std::to_string(g.delayLeft);
}

// The gain rule for one sample, written out independently of the library's kernels.
int64_t Product(int64_t s, unsigned row) { return (s * AlgoRampGain::kGainTable[row] + 16384) >> 15; }
int16_t Scaled16(int s, unsigned row) { return static_cast<int16_t>(std::max<int64_t>(-32768, std::min<int64_t>(32767, Product(s, row)))); }
// Samples [from, to) of f are v scaled by row (row 127 leaves v as it is).
::testing::AssertionResult Scaled(const FramePtr& f, int from, int to, int v, unsigned row) {
    for (int k = from; k < to; ++k)
        if (f->Samples16()[k] != Scaled16(v, row))
            return ::testing::AssertionFailure() << "sample " << k << " is " << f->Samples16()[k] << " at row " << row;
    return ::testing::AssertionSuccess();
}

TEST(AlgoRampGainTest, TablesFollowTheirLaws) {
    EXPECT_EQ(AlgoRampGain::kGainTable[0], 0u);
    for (unsigned i = 1; i < AlgoRampGain::kGainTableSize; ++i)
        EXPECT_EQ(AlgoRampGain::kGainTable[i], uint32_t(std::floor(32768.0 * std::pow(10.0, (i - 127.0) / 40.0)))) << i;
    // 1 dB per percent, 0.5 dB from 36 %, with the seams at 17/18 and 34/35/36.
    for (unsigned p = 0; p < AlgoRampGain::kPercentTableSize; ++p)
        EXPECT_EQ(AlgoRampGain::kPercentTable[p],
                  p == 0 ? 0 : p <= 17 ? 38 + 2 * p : p <= 34 ? 39 + 2 * p : p == 35 ? 110 : 75 + p) << p;
}

// An immediate change, then one frame of each width through it: the row reached, every
// sample against the rule (16 bits clamped, rails included; 32 bits keep the low 32 bits)
// and the lines logged, each once.
TEST(AlgoRampGainTest, ImmediateChangesSetTheRowAndScaleTheWholeFrame) {
    struct Case { unsigned gain, ref, row; Lines lines; };
    const Case cases[] = {
        {52, kNoRef, 127, {"I SetRamp:gain 52 127dB:", "D Process:Gain 100 960:"}},
        {100, kNoRef, 175, {"D Process:Gain 175 dB:ns 960"}},
        {150, kNoRef, 175, {"W SetRamp:Gain too high 150:Using 100"}},
        // Above the no-reference value itself both clamps apply.
        {0x100000, kNoRef, 175, {"W SetRamp:Gain above ref 1048576 > 1048575 !!:", "W SetRamp:Gain too high 1048575:Using 100"}},
        // The reference percent sits at unity: 79 + 127 - 155.
        {20, 80, 51, {"D SetRamp:gain 20 ref 80 51dB:"}},
        {60, 40, 127, {"W SetRamp:Gain above ref 60 > 40 !!:", "D SetRamp:gain 40 ref 40 127dB:"}},
        {1, 100, 0, {"D Process:Gain 0 960:"}},  // 40 + 127 - 175 < 0: silence
        {0, 20, 0, {}},       // silence is not lifted by a low reference
        {30, 101, 99, {}}};   // a reference above 100 is no reference
    const int edges[] = {2000, 3000, -3000, 32767, -32768, 1, -1};
    std::vector<int> in(960);
    for (int k = 0; k < 960; ++k) in[k] = k < 7 ? edges[k] : static_cast<int16_t>(k * 2731);
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.gain) + " % ref " + std::to_string(c.ref));
        test::LogCapture log;
        AlgoRampGain g;
        g.SetVolume(c.gain, c.ref);
        EXPECT_EQ(g.gainIndex, c.row);
        FramePtr f = Frame16(0), w = Frame(4, 2, 24000);
        for (int k = 0; k < 960; ++k) f->Samples16()[k] = int16_t(in[k]), w->Samples32()[k] = in[k] * (k % 3 ? 1 : 65536);
        EXPECT_EQ(g.Process(f), f);
        for (const std::string& line : c.lines) EXPECT_EQ(log.Count(L(line)), 1) << line << "\n" << log.Dump();
        g.Process(w);
        for (int k = 0; k < 960; ++k) {
            ASSERT_EQ(f->Samples16()[k], Scaled16(in[k], c.row)) << k;
            ASSERT_EQ(w->Samples32()[k], int32_t(Product(in[k] * (k % 3 ? 1 : 65536), c.row))) << k;
        }
    }
}

TEST(AlgoRampGainTest, RampsInStepsOfThirtyTwoSamplesAtTheLastFramesRate) {
    test::LogCapture log;
    AlgoRampGain g, h;
    EXPECT_EQ(State(g), "127/0/0/0");
    g.SetRamp(30, 31, 0, kNoRef);  // shorter than one step: immediate
    EXPECT_EQ(State(g), "99/0/0/0");
    g.SetRamp(60, 32, 0, kNoRef);
    EXPECT_EQ(State(g), "99/1/2/0");
    h.SetRamp(52, 4800, 100, kNoRef);  // the row already in force needs neither ramp nor delay
    EXPECT_EQ(State(h), "127/0/0/0");
    g.SetRampMs(0, 50, 0, kNoRef);  // 2400 samples at 48000 Hz before any frame: 75 + 1 steps
    EXPECT_EQ(log.Count(L("I SetRamp:gain 0 Ramp 99 -> 0 dB steps 76 start 0 dB -1.302632:")), 1) << log.Dump();
    for (unsigned frame = 1; frame <= 6; ++frame) {  // 15 steps per frame
        FramePtr f = Frame16(10000);
        g.Process(f);
        EXPECT_EQ(g.stepsLeft, frame < 6 ? 76 - 15 * frame : 0) << frame;
        EXPECT_EQ(g.ramping, frame < 6 ? 1 : 0) << frame;
        EXPECT_TRUE(frame != 1 || Scaled(f, 0, 64, 10000, 97));  // the first step comes before the first chunk
        EXPECT_TRUE(frame != 6 || Scaled(f, 0, 960, 10000, 0));  // the last lands on row 0
    }
    EXPECT_EQ(log.Count(L("D Process:Ramp done 0:")), 1) << log.Dump();
    g.SetRampMs(52, 50, 20, 60);  // at 24000 Hz now: 1200 samples, 37 + 1 steps, after 480
    EXPECT_EQ(log.Count(L("I SetRamp:gain 52 ref 60 Ramp 0 -> 119 dB steps 38 start 480 dB 3.131579:")), 1);
}

// The library itself never delays a ramp; clients may.
TEST(AlgoRampGainTest, DelayCarriesOverFramesThenStepsFromTheCurrentRow) {
    AlgoRampGain g;
    g.SetVolume(100, kNoRef);
    g.SetRamp(52, 320, 600, kNoRef);  // 11 steps from 175 to 127 after 600 samples
    EXPECT_EQ(State(g), "175/1/11/600");
    FramePtr f = Frame16(1000);
    g.Process(f);
    EXPECT_TRUE(Scaled(f, 0, 960, 1000, 175));
    EXPECT_EQ(State(g), "175/1/11/120");
    g.Process(f = Frame16(1000));
    EXPECT_TRUE(Scaled(f, 0, 240, 1000, 175));
    EXPECT_TRUE(Scaled(f, 240, 304, 1000, 170));  // 175 - 48 / 11, truncated, not rounded
    EXPECT_TRUE(Scaled(f, 880, 960, 1000, 127));  // 11 steps of 64 samples end at 944
    EXPECT_EQ(State(g), "127/0/0/0");
    g.SetRamp(6, 64, 0, 100);  // 50 + 127 - 175: row 2, in 3 steps from the row in force
    EXPECT_FLOAT_EQ(g.indexAcc, 127.0f);
    EXPECT_FLOAT_EQ(g.step, -125.0f / 3.0f);
    g.Process(Frame16(1000));
    EXPECT_EQ(State(g), "1/0/0/0");  // the float sum lands just under 2 and stays there
}

TEST(AlgoSumTest, AddFramesByWidthIntoTheLastSampleJoinsTracesAndRefusesOtherShapes) {
    // Samples 0, 1, 2 and the last of a stereo 20 ms frame at 48000 Hz.
    struct Case { unsigned dstSize, srcSize; int64_t d[4], s[4], want[4]; };
    const Case cases[] = {
        {2, 2, {32767, 30000, -32767, 100}, {-1000, 10000, -1, -300}, {32767, 32767, -32768, -200}},
        {2, 4, {0, 10, 32767, 5}, {100000, -100000, -100000, -20}, {32767, -32768, 32767, -15}},
        // A 32-bit destination accumulates without clamp and wraps silently.
        {4, 2, {40000, INT_MAX, 5, 0}, {-32768, 1, -5, 7}, {7232, INT_MIN, 0, 7}},
        {4, 4, {7232, INT_MAX, 0, -1}, {INT_MAX, 1, -70000, -1}, {INT_MIN + 7231, INT_MIN, -70000, -2}},
    };
    const int at[4] = {0, 1, 2, 1919};
    auto put = [](FramePtr& f, int k, int64_t v) {
        if (f->sampleSize == 4) f->Samples32()[k] = static_cast<int32_t>(v);
        else f->Samples16()[k] = static_cast<int16_t>(v);
    };
    for (const Case& c : cases) {
        FramePtr d = Frame(c.dstSize, 2, 48000), s = Frame(c.srcSize, 2, 48000);
        for (int i = 0; i < 4; ++i) put(d, at[i], c.d[i]), put(s, at[i], c.s[i]);
        std::strcpy(d->bufId, "A");
        std::strcpy(s->bufId, "B C");
        ASSERT_EQ(Algo::AddFrames(d, s), 0);
        for (int i = 0; i < 4; ++i)
            EXPECT_EQ(d->sampleSize == 4 ? d->Samples32()[at[i]] : d->Samples16()[at[i]], c.want[i])
                << c.dstSize << " + " << c.srcSize << " at " << at[i];
        EXPECT_STREQ(d->bufId, "A B C");
    }
    test::LogCapture log;  // other lengths or channel counts are refused
    EXPECT_EQ(Algo::AddFrames(Frame(2, 2, 48000), Frame(2, 2, 16000)), -1);
    EXPECT_EQ(Algo::AddFrames(Frame(2, 2, 96000), Frame(2, 1, 96000)), -1);
    EXPECT_EQ(log.Lines(), Lines({"W Mixer_Algo:AddFrames:Frame len mismatch 960 != 320:",
                                  "W Mixer_Algo:AddFrames:numCh mismatch 2 != 1:"}));
}

// Random samples that often sit at or next to the rails, so that sums overflow and the
// sticky rule is exercised in every lane position.
template <typename T>
std::vector<T> Noise(std::mt19937& rng, size_t n) {
    typedef std::numeric_limits<T> Lim;
    const T specials[] = {Lim::max(), Lim::min(), T(Lim::max() - 1), T(Lim::min() + 1), 0, 1, -1};
    std::uniform_int_distribution<int64_t> any(Lim::min(), Lim::max());
    std::vector<T> v(n);
    for (T& x : v) x = rng() % 4 == 0 ? specials[rng() % 7] : static_cast<T>(any(rng));
    return v;
}

// One kernel's fast path and scalar reference on the same n random samples, with a
// second operand of random samples (the sums) or the gain given (the gains).
template <typename D, typename S, void (*Fast)(D*, S, size_t), void (*Ref)(D*, S, size_t)>
bool Same(std::mt19937& rng, size_t n, uint32_t gain) {
    std::vector<D> a = Noise<D>(rng, n), b = a;
    if constexpr (std::is_pointer<S>::value) {
        const auto src = Noise<std::remove_const_t<std::remove_pointer_t<S>>>(rng, n);
        Fast(a.data(), src.data(), n);
        Ref(b.data(), src.data(), n);
    } else {
        Fast(a.data(), gain, n);
        Ref(b.data(), gain, n);
    }
    return a == b;
}

// Every row of the gain table and more: for the 16-bit form, which picks its way by the
// gain's bits, the gains either side of each switch and random ones below 1 << 22 (where
// it is exact); the 32-bit form takes any gain.
std::vector<uint32_t> Gains(bool wide) {
    std::vector<uint32_t> g(AlgoRampGain::kGainTable, AlgoRampGain::kGainTable + AlgoRampGain::kGainTableSize);
    if (wide) g.insert(g.end(), {0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu, 123456789u});
    else g.insert(g.end(), {1, 16383, 16384, 16385, 32767, 32769, 49151, 49152, 65535, 65536, 65537, 98303, 98304, 4194303});
    std::mt19937 rng(13);
    for (int k = 0; !wide && k < 200; ++k) g.push_back(rng() % (1u << 22));
    return g;
}

TEST(MixKernelsTest, FastPathsEqualTheScalarReferences) {
    using namespace kernels;
    // One round of every length per gain; the sums take no gain: 20 random rounds.
    const std::vector<uint32_t> rounds(20);
    const struct { const char* name; bool (*same)(std::mt19937&, size_t, uint32_t); std::vector<uint32_t> gains; } cases[] = {
        {"AddSat16", Same<int16_t, const int16_t*, AddSat16, AddSat16Scalar>, rounds},
        {"AddSat16From32", Same<int16_t, const int32_t*, AddSat16From32, AddSat16From32Scalar>, rounds},
        {"Add32From16", Same<int32_t, const int16_t*, Add32From16, Add32From16Scalar>, rounds},
        {"Add32", Same<int32_t, const int32_t*, Add32, Add32Scalar>, rounds},
        {"ApplyGain16", Same<int16_t, uint32_t, ApplyGain16, ApplyGain16Scalar>, Gains(false)},
        {"ApplyGain32", Same<int32_t, uint32_t, ApplyGain32, ApplyGain32Scalar>, Gains(true)}};
    std::mt19937 rng(20261121);
    for (const auto& c : cases)
        for (uint32_t gain : c.gains)
            for (size_t n : {0, 1, 7, 8, 9, 15, 16, 17, 31, 67, 1923})
                ASSERT_TRUE(c.same(rng, n, gain)) << c.name << " n=" << n << " gain=" << gain;
}

TEST(AlgoResampleTest, ChannelsKeepTheirLevelsInNewFramesOfTheOutputRateAfterTheLatency) {
    test::LogCapture log;
    AlgoResample down(2, 48000, 16000), up(2, 16000, 48000);
    for (int i = 0; i < 5; ++i) {  // two steady levels, one per channel, down and up again
        FramePtr a = Frame(2, 2, 48000);
        for (uint32_t k = 0; k < 2 * a->len; ++k) a->Samples16()[k] = k % 2 ? -5000 : 10000;
        std::strcpy(a->bufId, "7 8 9");
        FramePtr b = down.Process(a), c = up.Process(b);
        EXPECT_EQ(std::vector<unsigned>({b->len, b->rate, b->numCh, b->sampleSize, b->lenMs, c->len, c->rate}),
                  std::vector<unsigned>({320, 16000, 2, 2, 20, 960, 48000}));
        EXPECT_STREQ(c->bufId, "7 8 9");
        for (uint32_t k = 0; i >= 3 && k < 2 * c->len; ++k) {  // once the filters have settled
            ASSERT_NEAR(b->Samples16()[k / 6 * 2 + k % 2], k % 2 ? -5000 : 10000, 50) << k;
            ASSERT_NEAR(c->Samples16()[k], k % 2 ? -5000 : 10000, 50) << k;
        }
    }
    EXPECT_EQ(log.CountPrefix("D Mixer_AlgoResample:Process:In 960 960 Out 320 "), 5) << log.Dump();
    log.Clear();
    FramePtr wide = Frame(4, 2, 48000);  // passes unchanged
    EXPECT_EQ(down.Process(wide), wide);
    EXPECT_EQ(log.Lines(), Lines{"E Mixer_AlgoResample:Process:Supports only 16bits samples:"});
    // The latency: speexdsp's delay in output samples, over the input rate, rounded.
    int err = 0;
    SpeexResamplerState* st = speex_resampler_init(2, 48000, 16000, 7, &err);
    ASSERT_NE(st, nullptr);
    const uint32_t want = (1000000u * uint32_t(speex_resampler_get_output_latency(st)) + 24000) / 48000;
    speex_resampler_destroy(st);
    EXPECT_EQ(down.GetLatencyUs(), want);
    EXPECT_EQ(log.Lines().back(), "I Mixer_AlgoResample:GetLatencyUs:" + std::to_string(want) + ":");
}
}  // namespace
}  // namespace mixer
