#include "mixer/algo/MixKernels.h"

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

TEST(MixKernelsTest, ReportsItsPath) {
    const std::string path = kernels::SimdPath();
#if defined(__SSE2__)
    EXPECT_EQ(path, "sse2");
#elif defined(MIXER_HAVE_NEON)
    EXPECT_EQ(path, "neon");
#else
    EXPECT_EQ(path, "portable");
#endif
}

}  // namespace
}  // namespace mixer
