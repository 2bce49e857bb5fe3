// Frame summing on one 20-ms, 48-kHz stereo period, each width pair beside its two
// baselines in the same run: the plain scalar loop of the same rule (one sample at a
// time) and memcpy of the frame that is added in (the bandwidth bound).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "bench/BenchFrames.h"
#include "mixer/algo/MixKernels.h"

namespace {

using mixer::bench::kSamples;
using mixer::bench::Noise;

template <typename D, typename S, void (*Kernel)(D*, const S*, size_t)>
void BM_Sum(benchmark::State& state) {
    std::vector<D> dst = Noise<D>(1);
    const std::vector<S> src = Noise<S>(2);
    for (auto _ : state) {
        Kernel(dst.data(), src.data(), kSamples);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kSamples * (2 * sizeof(D) + sizeof(S)));
}

// memcpy of the frame that the sum reads from its source, into a buffer the size of
// the destination.
template <typename D, typename S>
void BM_SumMemcpy(benchmark::State& state) {
    std::vector<char> a(kSamples * sizeof(S)), b(kSamples * sizeof(D));
    const size_t bytes = std::min(a.size(), b.size());
    for (auto _ : state) {
        memcpy(b.data(), a.data(), bytes);
        benchmark::DoNotOptimize(b.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * bytes * 2);
}

using namespace mixer::kernels;

BENCHMARK(BM_Sum<int16_t, int16_t, AddSat16>)->Name("AddFrames16+16/fast");
BENCHMARK(BM_Sum<int16_t, int16_t, AddSat16Scalar>)->Name("AddFrames16+16/scalar");
BENCHMARK(BM_SumMemcpy<int16_t, int16_t>)->Name("AddFrames16+16/memcpy");
BENCHMARK(BM_Sum<int32_t, int16_t, Add32From16>)->Name("AddFrames32+16/fast");
BENCHMARK(BM_Sum<int32_t, int16_t, Add32From16Scalar>)->Name("AddFrames32+16/scalar");
BENCHMARK(BM_SumMemcpy<int32_t, int16_t>)->Name("AddFrames32+16/memcpy");
BENCHMARK(BM_Sum<int16_t, int32_t, AddSat16From32>)->Name("AddFrames16+32/fast");
BENCHMARK(BM_Sum<int16_t, int32_t, AddSat16From32Scalar>)->Name("AddFrames16+32/scalar");
BENCHMARK(BM_SumMemcpy<int16_t, int32_t>)->Name("AddFrames16+32/memcpy");

// Which fast path the figures above are of: "sse2", "neon" or "portable".
const bool kPathNoted = (benchmark::AddCustomContext("kernels", SimdPath()), true);

}  // namespace
