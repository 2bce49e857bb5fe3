// A whole playback period with 1, 8 and 32 client streams: every input hands out a
// fresh frame, each stream's ramp gain scales it, the frames are summed into the mix,
// the output chain's gain scales the mix and the output takes it. The real mixing loop
// runs it (PlaybackrunLoop on this thread, writing to an output named "ALSA", which the
// loop never paces), one benchmark iteration per period. Beside it, the same period as
// plain scalar loops with the same allocations. Counters: budget_pct is the period's
// share of its own 20 ms, in
// percent, from wall time (as the time column).
#include <benchmark/benchmark.h>

#include <pthread.h>
#include <sched.h>

#include <chrono>
#include <cstring>
#include <vector>

#include <boost/make_shared.hpp>

#include "bench/BenchDevices.h"
#include "bench/BenchFrames.h"
#include "mixer/algo/AlgoRampGain.h"
#include "mixer/algo/MixKernels.h"
#include "mixer/playback/Playback.h"
#include "mixer/stream/Stream.h"
#include "mixer/stream/StreamOut.h"

namespace {

using namespace mixer;
using namespace mixer::bench;

// Stream volumes below unity and a speaker volume below unity: every sample goes through
// both gains, as in ordinary listening.
const unsigned kStreamPercent = 45;
const unsigned kSpeakerPercent = 40;

typedef std::chrono::steady_clock Clock;

// The periods' share of their own 20 ms, in percent, from the wall time they took.
void SetBudgetCounter(benchmark::State& state, Clock::duration spent) {
    const double perPeriod =
        std::chrono::duration<double>(spent).count() / static_cast<double>(state.iterations());
    state.counters["budget_pct"] = perPeriod / kPeriodSeconds * 100;
}

boost::shared_ptr<AlgoRampGain> Gain(unsigned percent) {
    boost::shared_ptr<AlgoRampGain> g = boost::make_shared<AlgoRampGain>();
    g->SetVolume(percent, AlgoRampGain::kNoRef);
    return g;
}

void BM_PlaybackPeriod(benchmark::State& state) {
    const int streams = static_cast<int>(state.range(0));
    Playback pb;
    pb.sumRate = kRate;
    pb.sumNumCh = kChannels;
    pb.sumSampleSize = SAMPLE_SIZE_16;
    for (int i = 0; i < streams; ++i) {
        boost::shared_ptr<Stream> s = boost::make_shared<Stream>();
        s->SetInput(boost::make_shared<CopyingInput>(kRate, 100 + i));
        s->AddAlgo(Gain(kStreamPercent));
        pb.inputs.push_back(s);
    }
    boost::shared_ptr<CountingOutput> out = boost::make_shared<CountingOutput>("ALSA");
    pb.outStream = boost::make_shared<StreamOut>();
    pb.outStream->SetOutput(out);
    pb.outStream->AddAlgo(Gain(kSpeakerPercent));
    pb.output = out;
    // Every write ends one iteration (one period); the last one stops the loop. The
    // first write only starts the clock.
    Clock::time_point first, last;
    bool started = false;
    out->onWrite = [&]() {
        if (!started) {
            started = true;
            first = Clock::now();
        }
        if (!state.KeepRunning()) {
            last = Clock::now();
            pb.running = false;
        }
    };

    // The loop raises its thread to the engine's real-time priority; give this thread
    // its own policy back afterwards.
    int policy;
    sched_param param;
    pthread_getschedparam(pthread_self(), &policy, &param);
    pb.running = true;
    PlaybackrunLoop(&pb);
    pthread_setschedparam(pthread_self(), policy, &param);

    if (out->last) benchmark::DoNotOptimize(out->last->data[0]);
    SetBudgetCounter(state, last - first);
}

// The same period without the engine: new frames copied from the sources, the scalar
// gain on each, the scalar sum into a new zeroed mix, the scalar gain on the mix.
void BM_ScalarPeriod(benchmark::State& state) {
    const int streams = static_cast<int>(state.range(0));
    std::vector<std::vector<int16_t> > sources;
    for (int i = 0; i < streams; ++i) sources.push_back(Noise<int16_t>(100 + i));
    const uint32_t streamGain = AlgoRampGain::kGainTable[AlgoRampGain::kPercentTable[kStreamPercent]];
    const uint32_t speakerGain = AlgoRampGain::kGainTable[AlgoRampGain::kPercentTable[kSpeakerPercent]];
    const Clock::time_point first = Clock::now();
    for (auto _ : state) {
        boost::shared_ptr<AudioFrame> mix =
            boost::make_shared<AudioFrame>(SAMPLE_SIZE_16, kRate, kChannels, kPeriodMs);
        std::memset(mix->data, 0, mix->size);
        for (const std::vector<int16_t>& src : sources) {
            boost::shared_ptr<AudioFrame> f(new AudioFrame(SAMPLE_SIZE_16, kRate, kChannels, kPeriodMs));
            std::memcpy(f->data, src.data(), f->size);
            kernels::ApplyGain16Scalar(f->Samples16(), streamGain, kSamples);
            kernels::AddSat16Scalar(mix->Samples16(), f->Samples16(), kSamples);
        }
        kernels::ApplyGain16Scalar(mix->Samples16(), speakerGain, kSamples);
        benchmark::DoNotOptimize(mix->data[0]);
        benchmark::ClobberMemory();
    }
    SetBudgetCounter(state, Clock::now() - first);
}

BENCHMARK(BM_PlaybackPeriod)->Name("PlaybackPeriod/engine")->Arg(1)->Arg(8)->Arg(32)->UseRealTime();
BENCHMARK(BM_ScalarPeriod)->Name("PlaybackPeriod/scalar")->Arg(1)->Arg(8)->Arg(32)->UseRealTime();

}  // namespace
