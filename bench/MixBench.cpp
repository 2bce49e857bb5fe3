// Per-sample loops on one 20-ms, 48-kHz stereo period, each beside its baselines: the
// plain scalar loop of the same rule and memcpy of the same bytes (the bandwidth bound).
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "mixer/algo/MixKernels.h"

namespace {

const size_t kSamples = 960 * 2;

template <typename T>
std::vector<T> Noise(unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<T> v(kSamples);
    for (T& x : v) x = static_cast<T>(static_cast<int32_t>(rng()) >> (sizeof(T) == 2 ? 18 : 8));
    return v;
}

template <typename D, typename S, void (*Kernel)(D*, const S*, size_t)>
void BM_Kernel(benchmark::State& state) {
    std::vector<D> dst = Noise<D>(1);
    const std::vector<S> src = Noise<S>(2);
    for (auto _ : state) {
        Kernel(dst.data(), src.data(), kSamples);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kSamples * (2 * sizeof(D) + sizeof(S)));
}

// memcpy of the bytes one sum reads from its source (plus the destination it rewrites).
template <typename D, typename S>
void BM_Memcpy(benchmark::State& state) {
    std::vector<char> a(kSamples * sizeof(S)), b(kSamples * sizeof(D));
    for (auto _ : state) {
        memcpy(b.data(), a.data(), std::min(a.size(), b.size()));
        benchmark::DoNotOptimize(b.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kSamples * (2 * sizeof(D) + sizeof(S)));
}

using namespace mixer::kernels;

BENCHMARK(BM_Kernel<int16_t, int16_t, AddSat16>)->Name("AddFrames16+16/simd");
BENCHMARK(BM_Kernel<int16_t, int16_t, AddSat16Scalar>)->Name("AddFrames16+16/scalar");
BENCHMARK(BM_Memcpy<int16_t, int16_t>)->Name("AddFrames16+16/memcpy");
BENCHMARK(BM_Kernel<int32_t, int16_t, Add32From16>)->Name("AddFrames32+16/simd");
BENCHMARK(BM_Kernel<int32_t, int16_t, Add32From16Scalar>)->Name("AddFrames32+16/scalar");
BENCHMARK(BM_Memcpy<int32_t, int16_t>)->Name("AddFrames32+16/memcpy");
BENCHMARK(BM_Kernel<int16_t, int32_t, AddSat16From32>)->Name("AddFrames16+32/simd");
BENCHMARK(BM_Kernel<int16_t, int32_t, AddSat16From32Scalar>)->Name("AddFrames16+32/scalar");
BENCHMARK(BM_Memcpy<int16_t, int32_t>)->Name("AddFrames16+32/memcpy");

}  // namespace
