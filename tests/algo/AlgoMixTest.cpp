#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "mixer/algo/Algo.h"
#include "mixer/algo/AlgoRampGain.h"
#include "mixer/algo/MixKernels.h"
#include "tests/support/LogCapture.h"

namespace mixer {
namespace {

typedef boost::shared_ptr<AudioFrame> FramePtr;

FramePtr Frame(unsigned sampleSize, unsigned numCh = 2, unsigned rate = 48000) {
    FramePtr f(new AudioFrame(sampleSize, rate, numCh));
    std::memset(f->data, 0, f->size);
    return f;
}

TEST(AlgoSumTest, SaturatingSumsWithStickyRails) {
    const int sat[][2] = {{32768, 32767}, {32767, 32767}, {-32768, -32768}, {-32769, -32768},
                          {INT_MAX, 32767}, {INT_MIN, -32768}, {-5, -5}};
    for (const auto& c : sat) EXPECT_EQ(Algo::saturate16(c[0]), c[1]) << c[0];
    // a, b, a + b saturated: a rail stays whatever is added, and a 32-bit addend wraps
    // before the clamp. Addends that fit 16 bits go through both forms.
    const int sum[][3] = {{32767, -1000, 32767}, {-32768, 5, -32768},   {32766, 1, 32767},
                          {-32767, -1, -32768},  {30000, 10000, 32767}, {32766, -32768, -2},
                          {0, 100000, 32767},    {32767, -100000, 32767}, {-5, -100000, -32768},
                          {1, INT_MAX, -32768},  {-1, INT_MIN, 32767}};
    for (const auto& c : sum) {
        EXPECT_EQ(Algo::sumSat16(short(c[0]), c[1]), c[2]) << c[0] << " + " << c[1];
        EXPECT_TRUE(c[1] != short(c[1]) || Algo::sumSat16(short(c[0]), short(c[1])) == c[2]) << c[0] << " + " << c[1];
    }
}

TEST(AlgoSumTest, AddFramesByWidthIntoTheLastSampleAndJoinsTraces) {
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
        FramePtr d = Frame(c.dstSize), s = Frame(c.srcSize);
        for (int i = 0; i < 4; ++i) put(d, at[i], c.d[i]), put(s, at[i], c.s[i]);
        std::strcpy(d->bufId, "A");
        std::strcpy(s->bufId, "B C");
        ASSERT_EQ(Algo::AddFrames(d, s), 0);
        for (int i = 0; i < 4; ++i)
            EXPECT_EQ(d->sampleSize == 4 ? d->Samples32()[at[i]] : d->Samples16()[at[i]], c.want[i])
                << c.dstSize << " + " << c.srcSize << " at " << at[i];
        EXPECT_STREQ(d->bufId, "A B C");
    }
}

TEST(AlgoSumTest, AddFramesComparesLengthsAndChannelsOnly) {
    // Rates are not compared (44100 and 44101 Hz both give 882 samples per channel); an
    // empty frame still joins its trace; a one-byte frame is summed as 16-bit samples as
    // far as its buffer holds them (the sanitizer build sees an overrun).
    struct Case { unsigned dSize, dCh, dRate, sSize, sCh, sRate; int rc; std::string warning; };
    const Case cases[] = {
        {2, 2, 48000, 2, 2, 16000, -1, "W Mixer_Algo:AddFrames:Frame len mismatch 960 != 320:"},
        {2, 2, 96000, 2, 1, 96000, -1, "W Mixer_Algo:AddFrames:numCh mismatch 2 != 1:"},
        {2, 2, 44100, 2, 2, 44101, 0, ""},
        {2, 2, 10, 2, 2, 10, 0, ""},
        {1, 1, 48000, 1, 1, 48000, 0, ""},
    };
    for (const Case& c : cases) {
        test::LogCapture log;
        FramePtr d = Frame(c.dSize, c.dCh, c.dRate), s = Frame(c.sSize, c.sCh, c.sRate);
        const int last = static_cast<int>(std::min(d->len * d->numCh, d->size / 2)) - 1;
        if (last >= 0) s->Samples16()[std::min<int>(last, s->size / 2 - 1)] = 9;
        std::strcpy(d->bufId, "A");
        std::strcpy(s->bufId, "B");
        EXPECT_EQ(Algo::AddFrames(d, s), c.rc) << c.dRate;
        EXPECT_TRUE(last < 0 || d->Samples16()[last] == (c.rc == 0 ? 9 : 0)) << c.dRate;
        EXPECT_STREQ(d->bufId, c.rc == 0 ? "A B" : "A");
        EXPECT_EQ(log.Lines(), c.warning.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.warning});
    }
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

struct KernelCase {
    const char* name;
    bool (*same)(std::mt19937&, size_t, uint32_t);
    std::vector<uint32_t> gains;  // one round of every length per gain
};

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

class MixKernelsTest : public ::testing::TestWithParam<KernelCase> {};

TEST_P(MixKernelsTest, FastPathEqualsTheScalarReference) {
    std::mt19937 rng(20261121);
    for (uint32_t gain : GetParam().gains)
        for (size_t n : {0, 1, 7, 8, 9, 15, 16, 17, 31, 67, 1923})
            ASSERT_TRUE(GetParam().same(rng, n, gain)) << "n=" << n << " gain=" << gain;
}

using namespace kernels;
const std::vector<uint32_t> kRounds(20);  // the sums: 20 random rounds of every length
INSTANTIATE_TEST_SUITE_P(Kernels, MixKernelsTest, ::testing::Values(
    KernelCase{"AddSat16", Same<int16_t, const int16_t*, AddSat16, AddSat16Scalar>, kRounds},
    KernelCase{"AddSat16From32", Same<int16_t, const int32_t*, AddSat16From32, AddSat16From32Scalar>, kRounds},
    KernelCase{"Add32From16", Same<int32_t, const int16_t*, Add32From16, Add32From16Scalar>, kRounds},
    KernelCase{"Add32", Same<int32_t, const int32_t*, Add32, Add32Scalar>, kRounds},
    KernelCase{"ApplyGain16", Same<int16_t, uint32_t, ApplyGain16, ApplyGain16Scalar>, Gains(false)},
    KernelCase{"ApplyGain32", Same<int32_t, uint32_t, ApplyGain32, ApplyGain32Scalar>, Gains(true)}),
    [](const ::testing::TestParamInfo<KernelCase>& p) { return std::string(p.param.name); });

TEST(SimdPathTest, NamesTheBuildsPath) {
#if defined(MIXER_PORTABLE_KERNELS)
    EXPECT_STREQ(kernels::SimdPath(), "portable");
#elif defined(__SSE2__)
    EXPECT_STREQ(kernels::SimdPath(), "sse2");
#elif defined(MIXER_HAVE_NEON)
    EXPECT_STREQ(kernels::SimdPath(), "neon");
#else
    EXPECT_STREQ(kernels::SimdPath(), "portable");
#endif
}

}  // namespace
}  // namespace mixer
