#include "host/LatencyProbe.h"

#include <gtest/gtest.h>

#include <thread>

#include "host/LatencyCarrierInput.h"
#include "host/LatencyListener.h"

namespace mixer {
namespace {

using host::LatencyProbe;

AudioFrame Quiet(unsigned rate, unsigned numCh) {
    AudioFrame f(SAMPLE_SIZE_16, rate, numCh, 20);
    for (uint32_t i = 0; i < f.len * numCh; ++i) f.Samples16()[i] = static_cast<int16_t>(i % 2 ? -3000 : 3000);
    return f;
}

TEST(LatencyProbeTest, MarkComingBackGivesTheDelayToTheSample) {
    LatencyProbe probe;
    probe.Arm();
    EXPECT_TRUE(probe.WantsMark());
    probe.Marked(1000000);
    EXPECT_FALSE(probe.WantsMark());
    probe.Marked(2000000);  // only the first mark counts

    // A frame with nothing loud: still listening.
    probe.OnMicFrame(Quiet(16000, 2), 1050000);
    EXPECT_TRUE(probe.Active());
    // The mark heard at sample 80 of a frame that ended at 1 100 000 us: that frame
    // started 20 ms earlier, so the sample was taken at 1 085 000 us.
    AudioFrame heard = Quiet(16000, 2);
    heard.Samples16()[2 * 80 + 1] = -LatencyProbe::kDetectLevel;
    probe.OnMicFrame(heard, 1100000);
    int64_t delayUs = -1;
    EXPECT_EQ(probe.Wait(0, delayUs), LatencyProbe::kMeasured);
    EXPECT_EQ(delayUs, 85000);
    EXPECT_FALSE(probe.Active());
}

TEST(LatencyProbeTest, SoundCapturedBeforeTheMarkIsNotTakenForIt) {
    LatencyProbe probe;
    probe.Arm();
    probe.Marked(1000000);
    AudioFrame early(SAMPLE_SIZE_16, 8000, 1, 20);
    LatencyProbe::WriteMark(early);
    probe.OnMicFrame(early, 1000000);  // every sample predates the mark
    int64_t delayUs = -1;
    EXPECT_EQ(probe.Wait(0, delayUs), LatencyProbe::kNoEcho);
}

TEST(LatencyProbeTest, OutcomesWithoutAMarkOrWithoutAnEcho) {
    LatencyProbe probe;
    int64_t delayUs = 0;
    probe.Arm();
    EXPECT_EQ(probe.Wait(0, delayUs), LatencyProbe::kNoMark);
    EXPECT_FALSE(probe.Active());
    // Frames and marks outside a test change nothing.
    probe.Marked(5);
    EXPECT_FALSE(probe.Active());
    probe.Arm();
    probe.Marked(10);
    EXPECT_EQ(probe.Wait(0, delayUs), LatencyProbe::kNoEcho);
}

TEST(LatencyProbeTest, WaitReturnsWhenTheEchoArrivesOnAnotherThread) {
    LatencyProbe probe;
    probe.Arm();
    std::thread record([&probe] {
        probe.Marked(0);
        AudioFrame f(SAMPLE_SIZE_32, 48000, 1, 20);
        LatencyProbe::WriteMark(f);
        probe.OnMicFrame(f, 40000);
    });
    int64_t delayUs = 0;
    // The limit is far beyond what the test needs; the echo ends the wait.
    EXPECT_EQ(probe.Wait(60000, delayUs), LatencyProbe::kMeasured);
    EXPECT_EQ(delayUs, 20000);
    record.join();
}

TEST(LatencyProbeTest, MarkIsLoudSquareWaveInBothSampleWidths) {
    AudioFrame f16(SAMPLE_SIZE_16, 48000, 2, 20);
    LatencyProbe::WriteMark(f16);
    EXPECT_EQ(f16.Samples16()[0], LatencyProbe::kMarkLevel);
    EXPECT_EQ(f16.Samples16()[3], LatencyProbe::kMarkLevel);   // frame 1, channel 1
    EXPECT_EQ(f16.Samples16()[4], -LatencyProbe::kMarkLevel);  // frame 2
    AudioFrame f32(SAMPLE_SIZE_32, 48000, 1, 20);
    LatencyProbe::WriteMark(f32);
    EXPECT_EQ(f32.Samples32()[2], -LatencyProbe::kMarkLevel);
    EXPECT_EQ(f32.Samples32()[f32.len - 1], -LatencyProbe::kMarkLevel);
}

TEST(LatencyListenerTest, FeedsTheProbeAndHangsUpWhenTheTestEnds) {
    boost::shared_ptr<LatencyProbe> probe(new LatencyProbe);
    host::LatencyListener listener(probe);
    probe->Arm();
    probe->Marked(0);
    boost::shared_ptr<AudioFrame> f(new AudioFrame(SAMPLE_SIZE_16, 16000, 1, 20));
    LatencyProbe::WriteMark(*f);
    EXPECT_EQ(listener.WriteFrame(f), 0);  // heard: the test is over
    EXPECT_EQ(listener.state, STATE_HANGUP);
    int64_t delayUs = 0;
    EXPECT_EQ(probe->Wait(0, delayUs), LatencyProbe::kMeasured);
    EXPECT_GT(delayUs, 0);
    // A listener posted after its test ended leaves at its first frame.
    host::LatencyListener late(probe);
    EXPECT_EQ(late.WriteFrame(f), -1);
    EXPECT_EQ(late.state, STATE_HANGUP);
}

TEST(LatencyCarrierInputTest, FaintNonSilentFramesWhileTheTestRunsThenHangsUp) {
    boost::shared_ptr<LatencyProbe> probe(new LatencyProbe);
    host::LatencyCarrierInput carrier(probe, 48000, 2, 2);
    EXPECT_EQ(carrier.desc, "latencyTest");
    EXPECT_FALSE(carrier.Process());  // no test armed
    EXPECT_EQ(carrier.state, STATE_HANGUP);

    host::LatencyCarrierInput limited(probe, 48000, 2, 2);
    probe->Arm();
    for (int i = 0; i < 2; ++i) {
        boost::shared_ptr<AudioFrame> f = limited.Process();
        ASSERT_TRUE(f);
        for (uint32_t k = 0; k < f->len * 2; ++k) {
            ASSERT_NE(f->Samples16()[k], 0);
            ASSERT_LE(std::abs(f->Samples16()[k]), 1);
        }
    }
    EXPECT_FALSE(limited.Process());  // frame budget spent
    EXPECT_EQ(limited.state, STATE_HANGUP);
}

}  // namespace
}  // namespace mixer
