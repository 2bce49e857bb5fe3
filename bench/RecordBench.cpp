// The record engine's fan-out of one microphone period to 1, 4 and 16 output streams,
// as its loop does it (minus the pacing sleep, which would swamp the figure): the
// frame itself to a single stream, a deep copy to each of several, each stream's chain
// (a ramp gain) and its output's write. Beside it, the copies alone as memcpy into
// buffers kept across periods (the bandwidth bound of the copying).
#include <benchmark/benchmark.h>

#include <cstring>
#include <list>
#include <vector>

#include <boost/make_shared.hpp>

#include "bench/BenchDevices.h"
#include "bench/BenchFrames.h"
#include "mixer/algo/AlgoRampGain.h"
#include "mixer/stream/StreamOut.h"

namespace {

using namespace mixer;
using namespace mixer::bench;

void BM_RecordFanOut(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    CopyingInput mic(kRate, 9, "micRaw");
    std::list<boost::shared_ptr<StreamOut> > outputs;
    for (int i = 0; i < n; ++i) {
        boost::shared_ptr<StreamOut> s = boost::make_shared<StreamOut>();
        s->SetOutput(boost::make_shared<CountingOutput>("client"));
        boost::shared_ptr<AlgoRampGain> g = boost::make_shared<AlgoRampGain>();
        g->SetVolume(45, AlgoRampGain::kNoRef);
        s->AddAlgo(g);
        outputs.push_back(s);
    }
    for (auto _ : state) {
        boost::shared_ptr<AudioFrame> frame = mic.Process();
        for (const boost::shared_ptr<StreamOut>& s : outputs) {
            boost::shared_ptr<AudioFrame> copy =
                outputs.size() == 1 ? frame : boost::shared_ptr<AudioFrame>(new AudioFrame(*frame));
            boost::shared_ptr<AudioFrame> result = s->Process(copy);
            benchmark::DoNotOptimize(s->ProcessOut(result));
        }
    }
}

void BM_RecordCopies(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const std::vector<int16_t> frame = Noise<int16_t>(9);
    std::vector<std::vector<int16_t> > copies(n, std::vector<int16_t>(kSamples));
    for (auto _ : state) {
        for (std::vector<int16_t>& c : copies) std::memcpy(c.data(), frame.data(), kSamples * 2);
        benchmark::ClobberMemory();
    }
}

BENCHMARK(BM_RecordFanOut)->Name("RecordFanOut/engine")->Arg(1)->Arg(4)->Arg(16);
BENCHMARK(BM_RecordCopies)->Name("RecordFanOut/memcpy")->Arg(1)->Arg(4)->Arg(16);

}  // namespace
