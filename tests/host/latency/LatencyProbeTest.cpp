#include <gtest/gtest.h>
#include <thread>
#include <vector>
#include "host/latency/LatencyCarrierInput.h"
#include "host/latency/LatencyListener.h"
#include "host/latency/LatencyProbe.h"
namespace mixer {
namespace {
using host::LatencyProbe;
using Frame = boost::shared_ptr<AudioFrame>;
using V = std::vector<int64_t>;

V S(AudioFrame& f, size_t n) { return V(f.Samples16(), f.Samples16() + n); }  // the first n samples

TEST(LatencyProbeTest, TheDelayIsToTheFirstLoudSampleCapturedAfterTheMark) {
    boost::shared_ptr<LatencyProbe> probe(new LatencyProbe);
    host::LatencyCarrierInput carrier(probe, 48000, 2, 1);
    host::LatencyListener listener(probe);
    int64_t delayUs = -1;
    EXPECT_FALSE(carrier.Process());  // no test armed
    probe->Marked(5);  // outside a test: nothing
    EXPECT_FALSE(probe->Active());
    probe->Arm();
    EXPECT_EQ(S(*carrier.Process(), 6), (V{1, 1, -1, -1, 1, 1}));  // faint, not silent
    EXPECT_TRUE(probe->WantsMark());
    probe->Marked(1000000), probe->Marked(2000000);  // only the first mark counts
    EXPECT_FALSE(probe->WantsMark() || carrier.Process());  // the carrier's frame budget spent
    // Sound captured before the mark is not taken for it; below the level it is nothing.
    AudioFrame early(SAMPLE_SIZE_16, 8000, 1, 20), heard(SAMPLE_SIZE_16, 16000, 2, 20);
    LatencyProbe::WriteMark(early);
    for (uint32_t i = 0; i < heard.len * 2; ++i) heard.Samples16()[i] = i % 2 ? 1 - LatencyProbe::kDetectLevel : 3000;
    probe->OnMicFrame(early, 1000000), probe->OnMicFrame(heard, 1050000);
    EXPECT_TRUE(probe->Active());
    // Heard at sample 80 of a frame that ended at 1 100 000 us: taken at 1 085 000 us.
    heard.Samples16()[2 * 80 + 1] = -LatencyProbe::kDetectLevel;
    probe->OnMicFrame(heard, 1100000);
    EXPECT_EQ(V({probe->Wait(0, delayUs), delayUs, probe->Active()}), (V{LatencyProbe::kMeasured, 85000, 0}));
    EXPECT_EQ(V({listener.WriteFrame(Frame(new AudioFrame(SAMPLE_SIZE_16, 16000, 1, 20))), listener.state}), (V{-1, STATE_HANGUP}));
    // The mark: a square wave at a quarter of the rate.
    const int L = LatencyProbe::kMarkLevel;
    AudioFrame mark(SAMPLE_SIZE_16, 48000, 2, 20);
    LatencyProbe::WriteMark(mark);
    EXPECT_EQ(S(mark, 10), (V{L, L, L, L, -L, -L, -L, -L, L, L}));
    // The echo arriving on another thread ends the wait long before its limit.
    probe->Arm();
    std::thread record([&probe, &mark] { probe->Marked(0), probe->OnMicFrame(mark, 40000); });
    EXPECT_EQ(probe->Wait(60000, delayUs), LatencyProbe::kMeasured);
    EXPECT_EQ(delayUs, 20000);
    record.join();
}
}  // namespace
}  // namespace mixer
