// The per-sample gain on one 20-ms, 48-kHz stereo period, beside its baselines in the
// same run: the plain scalar loop of the same rule and memcpy of the same bytes (the
// frame read and written once per gain).
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "bench/BenchFrames.h"
#include "mixer/algo/AlgoRampGain.h"
#include "mixer/algo/MixKernels.h"

namespace {

using mixer::bench::kSamples;
using mixer::bench::Noise;

// Each iteration scales the period up by 3.5 dB and back down by 3.5 dB, so that the
// samples stay in range however long the benchmark runs; both calls are counted. The
// two rows take the two common forms: above unity (up to +6 dB) and below it.
template <typename T, void (*Kernel)(T*, uint32_t, size_t)>
void BM_Gain(benchmark::State& state) {
    std::vector<T> s = Noise<T>(1);
    const uint32_t up = mixer::AlgoRampGain::kGainTable[134];
    const uint32_t down = mixer::AlgoRampGain::kGainTable[120];
    for (auto _ : state) {
        Kernel(s.data(), up, kSamples);
        benchmark::ClobberMemory();
        Kernel(s.data(), down, kSamples);
        benchmark::DoNotOptimize(s.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * 2 * kSamples * 2 * sizeof(T));
}

// memcpy of the bytes the two gains read and write: the frame, twice.
template <typename T>
void BM_GainMemcpy(benchmark::State& state) {
    std::vector<T> a(kSamples), b(kSamples);
    for (auto _ : state) {
        memcpy(b.data(), a.data(), kSamples * sizeof(T));
        benchmark::ClobberMemory();
        memcpy(a.data(), b.data(), kSamples * sizeof(T));
        benchmark::DoNotOptimize(a.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * 2 * kSamples * 2 * sizeof(T));
}

using namespace mixer::kernels;

BENCHMARK(BM_Gain<int16_t, ApplyGain16>)->Name("ApplyGain16/fast");
BENCHMARK(BM_Gain<int16_t, ApplyGain16Scalar>)->Name("ApplyGain16/scalar");
BENCHMARK(BM_GainMemcpy<int16_t>)->Name("ApplyGain16/memcpy");
BENCHMARK(BM_Gain<int32_t, ApplyGain32>)->Name("ApplyGain32/fast");
BENCHMARK(BM_Gain<int32_t, ApplyGain32Scalar>)->Name("ApplyGain32/scalar");
BENCHMARK(BM_GainMemcpy<int32_t>)->Name("ApplyGain32/memcpy");

}  // namespace
