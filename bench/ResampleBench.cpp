// The resampler on one 20-ms period of 44.1-kHz stereo converted to 48 kHz: through
// AlgoResample (a new output frame per period, the trace copied), beside the same
// conversion asked of speexdsp directly into a buffer kept across periods, which
// leaves the wrapper's own cost as the difference.
#include <benchmark/benchmark.h>

#include <speex/speex_resampler.h>

#include <vector>

#include <boost/make_shared.hpp>

#include "bench/BenchFrames.h"
#include "mixer/algo/AlgoResample.h"

namespace {

using namespace mixer;
using namespace mixer::bench;

const unsigned kInRate = 44100;

void BM_ResampleAlgo(benchmark::State& state) {
    AlgoResample algo(kChannels, kInRate, kRate);
    boost::shared_ptr<AudioFrame> in =
        boost::make_shared<AudioFrame>(SAMPLE_SIZE_16, kInRate, kChannels, kPeriodMs);
    const std::vector<int16_t> noise = Noise<int16_t>(5, in->size / 2);
    std::copy(noise.begin(), noise.end(), in->Samples16());
    for (auto _ : state) {
        boost::shared_ptr<AudioFrame> out = algo.Process(in);
        benchmark::DoNotOptimize(out->data[0]);
    }
}

void BM_ResampleSpeex(benchmark::State& state) {
    int err = 0;
    SpeexResamplerState* rs =
        speex_resampler_init(kChannels, kInRate, kRate, AlgoResample::kQuality, &err);
    if (rs == nullptr) {
        state.SkipWithError("speex_resampler_init failed");
        return;
    }
    const spx_uint32_t inFrames = kInRate / 1000 * kPeriodMs, outFrames = kRate / 1000 * kPeriodMs;
    const std::vector<int16_t> in = Noise<int16_t>(5, inFrames * kChannels);
    std::vector<int16_t> out(outFrames * kChannels);
    for (auto _ : state) {
        spx_uint32_t inLen = inFrames, outLen = outFrames;
        speex_resampler_process_interleaved_int(rs, in.data(), &inLen, out.data(), &outLen);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    speex_resampler_destroy(rs);
}

BENCHMARK(BM_ResampleAlgo)->Name("Resample44100to48000/AlgoResample");
BENCHMARK(BM_ResampleSpeex)->Name("Resample44100to48000/speexdsp");

}  // namespace
