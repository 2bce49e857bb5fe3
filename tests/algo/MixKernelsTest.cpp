#include "mixer/algo/MixKernels.h"

#include "mixer/algo/AlgoRampGain.h"

#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <vector>

namespace mixer {
namespace {

// Random samples that often sit at or next to the rails, so that sums overflow and the
// sticky rule is exercised in every lane position.
template <typename T>
std::vector<T> Noise(std::mt19937& rng, size_t n) {
    std::vector<T> v(n);
    const T specials[] = {std::numeric_limits<T>::max(), std::numeric_limits<T>::min(),
                          static_cast<T>(std::numeric_limits<T>::max() - 1),
                          static_cast<T>(std::numeric_limits<T>::min() + 1), 0, 1, -1};
    std::uniform_int_distribution<int64_t> any(std::numeric_limits<T>::min(),
                                               std::numeric_limits<T>::max());
    for (T& x : v) {
        const unsigned pick = rng() % 4;
        x = pick == 0 ? specials[rng() % 7] : static_cast<T>(any(rng));
    }
    return v;
}

template <typename D, typename S>
void ExpectSame(void (*fast)(D*, const S*, size_t), void (*ref)(D*, const S*, size_t)) {
    std::mt19937 rng(20261121);
    for (size_t n : {size_t(0), size_t(1), size_t(7), size_t(8), size_t(9), size_t(31),
                     size_t(1920), size_t(1923)}) {
        for (int round = 0; round < 20; ++round) {
            std::vector<D> a = Noise<D>(rng, n), b = a;
            const std::vector<S> s = Noise<S>(rng, n);
            fast(a.data(), s.data(), n);
            ref(b.data(), s.data(), n);
            ASSERT_EQ(a, b) << "n=" << n << " round=" << round;
        }
    }
}

TEST(MixKernelsTest, FastPathEqualsScalarSixteenPlusSixteen) {
    ExpectSame<int16_t, int16_t>(kernels::AddSat16, kernels::AddSat16Scalar);
}

TEST(MixKernelsTest, FastPathEqualsScalarSixteenPlusThirtyTwo) {
    ExpectSame<int16_t, int32_t>(kernels::AddSat16From32, kernels::AddSat16From32Scalar);
}

TEST(MixKernelsTest, FastPathEqualsScalarThirtyTwoPlusSixteen) {
    ExpectSame<int32_t, int16_t>(kernels::Add32From16, kernels::Add32From16Scalar);
}

TEST(MixKernelsTest, FastPathEqualsScalarThirtyTwoPlusThirtyTwo) {
    ExpectSame<int32_t, int32_t>(kernels::Add32, kernels::Add32Scalar);
}

TEST(MixKernelsTest, RailInEveryLaneStaysWhateverTheAddend) {
    for (int lane = 0; lane < 16; ++lane) {
        std::vector<int16_t> a(16, 100), s(16, -30000);
        a[lane] = lane % 2 ? 32767 : -32768;
        s[lane] = lane % 2 ? -32768 : 32767;
        kernels::AddSat16(a.data(), s.data(), a.size());
        EXPECT_EQ(a[lane], lane % 2 ? 32767 : -32768) << "lane " << lane;
        EXPECT_EQ(a[(lane + 1) % 16], -29900);
    }
}

template <typename T>
void ExpectSameGain(void (*fast)(T*, uint32_t, size_t), void (*ref)(T*, uint32_t, size_t)) {
    std::mt19937 rng(7);
    for (unsigned row = 0; row < AlgoRampGain::kGainTableSize; ++row) {
        const uint32_t gain = AlgoRampGain::kGainTable[row];
        for (size_t n : {size_t(0), size_t(1), size_t(7), size_t(8), size_t(9), size_t(67)}) {
            std::vector<T> a = Noise<T>(rng, n), b = a;
            fast(a.data(), gain, n);
            ref(b.data(), gain, n);
            ASSERT_EQ(a, b) << "row=" << row << " n=" << n;
        }
    }
    // A whole stereo period at a few rows, rails in every lane included.
    for (unsigned row : {1u, 126u, 127u, 128u, 175u, 200u}) {
        std::vector<T> a = Noise<T>(rng, 1923), b = a;
        fast(a.data(), AlgoRampGain::kGainTable[row], a.size());
        ref(b.data(), AlgoRampGain::kGainTable[row], b.size());
        ASSERT_EQ(a, b) << "row=" << row;
    }
}

TEST(MixKernelsTest, ApplyGainFastPathEqualsScalarSixteen) {
    ExpectSameGain<int16_t>(kernels::ApplyGain16, kernels::ApplyGain16Scalar);
}

TEST(MixKernelsTest, ApplyGainFastPathEqualsScalarAtEveryFormsEdges) {
    // The fast 16-bit path picks its form by the gain's bits; the gains either side of
    // each switch, and random ones up to 1 << 22, must all give the scalar result.
    std::mt19937 rng(13);
    std::vector<uint32_t> gains = {0,     1,     16383, 16384, 16385, 32767, 32768, 32769,
                                   49151, 49152, 65535, 65536, 65537, 98303, 98304, 4194303};
    for (int k = 0; k < 200; ++k) gains.push_back(rng() % (1u << 22));
    for (uint32_t gain : gains) {
        std::vector<int16_t> a = Noise<int16_t>(rng, 83), b = a;
        kernels::ApplyGain16(a.data(), gain, a.size());
        kernels::ApplyGain16Scalar(b.data(), gain, b.size());
        ASSERT_EQ(a, b) << "gain=" << gain;
    }
}

TEST(MixKernelsTest, ApplyGainFastPathEqualsScalarThirtyTwo) {
    ExpectSameGain<int32_t>(kernels::ApplyGain32, kernels::ApplyGain32Scalar);
    // The 32-bit form takes any gain, not only the table's.
    std::mt19937 rng(11);
    for (uint32_t gain : {0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu, 123456789u}) {
        std::vector<int32_t> a = Noise<int32_t>(rng, 37), b = a;
        kernels::ApplyGain32(a.data(), gain, a.size());
        kernels::ApplyGain32Scalar(b.data(), gain, b.size());
        ASSERT_EQ(a, b) << "gain=" << gain;
    }
}

TEST(MixKernelsTest, ApplyGainScalarRoundsShiftsAndClamps) {
    int16_t s[6] = {2000, 3000, -3000, 1, -1, -32768};
    kernels::ApplyGain16Scalar(s, 519337, 3);
    EXPECT_EQ(s[0], 31698);
    EXPECT_EQ(s[1], 32767);
    EXPECT_EQ(s[2], -32768);
    kernels::ApplyGain16Scalar(s + 3, 16384, 3);  // halving: 0.5 rounds up, -0.5 up to 0
    EXPECT_EQ(s[3], 1);
    EXPECT_EQ(s[4], 0);
    EXPECT_EQ(s[5], -16384);
    int32_t w[2] = {-2147483647 - 1, 2147483647};
    kernels::ApplyGain32Scalar(w, 65536, 2);  // doubling: the low 32 bits wrap
    EXPECT_EQ(w[0], 0);
    EXPECT_EQ(w[1], -2);
}

TEST(MixKernelsTest, ReportsItsPath) {
    const std::string path = kernels::SimdPath();
#if defined(MIXER_PORTABLE_KERNELS)
    EXPECT_EQ(path, "portable");
#elif defined(__SSE2__)
    EXPECT_EQ(path, "sse2");
#elif defined(MIXER_HAVE_NEON)
    EXPECT_EQ(path, "neon");
#else
    EXPECT_EQ(path, "portable");
#endif
}

}  // namespace
}  // namespace mixer
