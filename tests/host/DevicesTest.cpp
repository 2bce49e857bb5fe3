#include <gtest/gtest.h>
#include <sndfile.h>

#include <cmath>
#include <thread>

#include "host/AlgoChannelMap.h"
#include "host/AlsaMicInput.h"
#include "host/AlsaOutput.h"
#include "host/DataTransOutput.h"
#include "host/LatencyCarrierInput.h"
#include "host/LatencyListener.h"
#include "host/ToneMicInput.h"
#include "host/WavOutput.h"
#include "tests/host/TempDir.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ShmName.h"

namespace mixer {
namespace {

using host::LatencyProbe;
using Frame = boost::shared_ptr<AudioFrame>;
using V = std::vector<int64_t>;

// A clock that moves only when slept on or moved by the test.
struct FakeClock : host::RealTimePacer::Clock {
    int64_t now = 1000000;
    int64_t NowUs() override { return now; }
    void SleepUntilUs(int64_t when) override { now = std::max(now, when); }
};

// A 20-ms frame whose samples count up from start.
Frame Ramp(unsigned ss, unsigned rate, unsigned numCh, int start = 0) {
    Frame f(new AudioFrame(ss, rate, numCh, 20));
    for (uint32_t i = 0; i < f->len * numCh; ++i)
        ss == SAMPLE_SIZE_32 ? f->Samples32()[i] = start + static_cast<int>(i) : f->Samples16()[i] = start + i;
    return f;
}

// n samples of a frame from index `from`, whatever their width.
V S(AudioFrame& f, size_t from, size_t n) {
    V v;
    for (size_t i = from; i < from + n; ++i) v.push_back(f.sampleSize == 4 ? f.Samples32()[i] : f.Samples16()[i]);
    return v;
}

TEST(RealTimePacerTest, PeriodsAreDueOnTheTimelineLessTheLeadAndAStalledCallerIsReanchored) {
    FakeClock clock;
    host::RealTimePacer capture(0, 100000, &clock), playback(40000, 200000, &clock);
    V slept;
    // The caller's own time beyond the last period: 15 ms leaves 5 to wait; 100 ms (the
    // limit) catches up at once; more re-anchors, and the next period is a full one away.
    for (int64_t late : {0, 15000, 120000, 500000, 0}) clock.now += late, slept.push_back(capture.Advance(20000));
    for (int i = 0; i < 3; ++i) slept.push_back(playback.Advance(20000));  // ahead of the clock by up to its lead
    EXPECT_EQ(slept, (V{20000, 5000, 0, 0, 20000, 0, 0, 20000}));
    EXPECT_EQ(V({clock.now, capture.Reanchors(), playback.PositionUs()}), (V{1700000, 1, 60000}));
}

TEST(AlgoChannelMapTest, ChannelsAreRepeatedInTurnOrAveragedIntoMono) {
    host::AlgoChannelMap up(1, 2), down(2, 1);
    Frame mono = Ramp(SAMPLE_SIZE_16, 8000, 1), loud(new AudioFrame(SAMPLE_SIZE_16, 8000, 2, 20));
    for (uint32_t i = 0; i < loud->len * 2; ++i) loud->Samples16()[i] = i % 4 == 1 ? -32767 : 32767;
    std::strcpy(mono->bufId, "7");
    Frame out = up.Process(mono);
    EXPECT_EQ(V({out->Samples16()[0], out->Samples16()[1], out->Samples16()[318], out->Samples16()[319], out->numCh,
                 out->size, out->bufId[0]}), (V{0, 0, 159, 159, 2, 640, '7'}));
    EXPECT_EQ(S(*down.Process(Ramp(SAMPLE_SIZE_32, 8000, 2, 1000)), 0, 2), (V{1000, 1002}));
    EXPECT_EQ(S(*down.Process(loud), 0, 2), (V{0, 32767}));  // no overflow
    EXPECT_TRUE(up.Process(loud) == loud && !up.Process(Frame()));  // another channel count, no frame: untouched
}

std::vector<int16_t> ReadWav(const std::string& path) {
    SF_INFO info = SF_INFO();
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    std::vector<int16_t> out(f ? static_cast<size_t>(info.frames * info.channels) : 0);
    if (f) sf_readf_short(f, out.data(), info.frames), sf_close(f);
    return out;
}

TEST(WavOutputTest, FramesAndIdleTicksLandInTheFileInOrderPacedByTheClock) {
    test::TempDir dir;
    test::LogCapture log;
    FakeClock clock;
    host::WavOutput out(dir.File("o.wav"), 16000, 2, &clock);
    Frame wide(new AudioFrame(SAMPLE_SIZE_32, 16000, 2, 20));
    for (uint32_t i = 0; i < 640; ++i) wide->Samples32()[i] = i % 3 == 0 ? 100000 : i % 3 == 1 ? -100000 : 5;
    ASSERT_EQ(out.Open(), 0);
    // A frame, an idle tick, a wide frame (clamped), two of other formats (refused, not fatal).
    EXPECT_EQ(V({out.WriteFrame(Ramp(SAMPLE_SIZE_16, 16000, 2, 100)), (out.IdleTick(), 0), out.WriteFrame(wide),
                 out.WriteFrame(Ramp(SAMPLE_SIZE_16, 8000, 2)), out.WriteFrame(Ramp(SAMPLE_SIZE_16, 16000, 1))}),
              (V{0, 0, 0, -1, -1}));
    EXPECT_EQ(V({out.state, int64_t(out.FramesWritten()), int64_t(out.SilenceWritten()), clock.now,
                 log.CountPrefix("W Mixerd_WavOutput:WriteFrame:format")}),
              (V{STATE_ACTIVE, 960, 320, 1000000 + 60000 - host::WavOutput::kLeadUs, 2}));
    std::vector<int16_t> s = ReadWav(dir.File("o.wav"));  // readable before Close: the header follows every write
    ASSERT_EQ(s.size(), 1920u);
    EXPECT_EQ(V({s[0], s[639], s[640], s[1279], s[1280], s[1281], s[1282]}), (V{100, 739, 0, 0, 32767, -32768, 5}));
}

TEST(AlsaDeviceTest, UnknownDevicesFaultWithALogLineAndTheNullDeviceTakesAndGivesPeriods) {
    test::LogCapture log;
    host::AlsaOutput out("mixerd_no_such_pcm", 48000, 2), null("null", 48000, 2);
    host::AlsaMicInput mic("mixerd_no_such_pcm", 16000, 1), nullMic("null", 16000, 1);
    EXPECT_EQ(V({out.Open(), mic.Open(), out.WriteFrame(Ramp(SAMPLE_SIZE_16, 48000, 2)), !mic.Process(), out.state,
                 mic.state, log.CountPrefix("E Mixerd_AlsaOutput:Open:mixerd_no_such_pcm:"),
                 log.CountPrefix("E Mixerd_AlsaMicInput:Open:mixerd_no_such_pcm:")}),
              (V{-1, -1, -1, 1, STATE_FAULT, STATE_FAULT, 1, 1}));
    // The null device takes either width, refuses the wrong channel count (not fatal), gives whole periods.
    EXPECT_EQ(V({null.Open(), nullMic.Open(), null.WriteFrame(Ramp(SAMPLE_SIZE_32, 48000, 2)),
                 null.WriteFrame(Ramp(SAMPLE_SIZE_16, 48000, 1)), nullMic.Process()->len, null.state}),
              (V{0, 0, 0, -1, 320, STATE_ACTIVE}));
}

TEST(ToneMicInputTest, ExactSamplesAtCaptureSpeed) {
    FakeClock clock;
    host::ToneMicInput tone(16000, 2, 1010.0, 0.5, &clock), full(8000, 1, 2000.0, 2.0, &clock);
    for (int n = 0; n < 3; ++n) {  // 1010 Hz: no whole number of periods in a frame
        Frame f = tone.Process();
        ASSERT_EQ(V({f->len, f->numCh}), (V{320, 2}));
        for (uint32_t k = 0; k < f->len; ++k) {
            ASSERT_NEAR(f->Samples16()[2 * k], 16383.5 * std::sin(2 * M_PI * 1010 * (n * 320 + k) / 16000), 1.0) << k;
            ASSERT_EQ(f->Samples16()[2 * k], f->Samples16()[2 * k + 1]);
        }
    }
    EXPECT_EQ(clock.now, 1060000);  // each frame once its 20 ms have passed
    EXPECT_EQ(S(*full.Process(), 0, 4), (V{0, 32767, 0, -32767}));  // level clamped to full scale

}

// Reads every ready block as the record client would.
V Drain(DataTrans& client) {
    V out;
    int err = 0;
    unsigned len = 0;
    char* id = nullptr;
    for (char* b; (b = client.GetReadBuff(err, len, 0, &id)) != nullptr; client.ReleaseReadBuff()) {
        EXPECT_STREQ(id, "mic");
        std::free(id);
        out.insert(out.end(), reinterpret_cast<int16_t*>(b), reinterpret_cast<int16_t*>(b + len));
        client.SubCount(len);
    }
    return out;
}

TEST(DataTransOutputTest, FramesAreSplitOverBlocksASlowClientLosesAudioAndALeftOneHangsUp) {
    test::ShmName name;
    test::LogCapture log;
    DataTrans client;
    boost::shared_ptr<DataTrans> mine(new DataTrans);
    ASSERT_EQ(client.Init(name.c_str(), 4, 256) + mine->Init(name.c_str()), 0);
    host::DataTransOutput out(mine, "micRaw");
    Frame f = Ramp(SAMPLE_SIZE_16, 16000, 1);  // 640 bytes: three blocks of the four
    std::strcpy(f->bufId, "mic");
    ASSERT_EQ(out.WriteFrame(f), 0);
    EXPECT_EQ(Drain(client), S(*f, 0, 320));
    // Full: the rest of a frame is dropped without waiting, and said once.
    EXPECT_EQ(V({out.WriteFrame(f), out.WriteFrame(f), out.WriteFrame(f), int64_t(out.BytesWritten()),
                 int64_t(out.BytesDropped()), int64_t(Drain(client).size()), out.WriteFrame(f), out.state}),
              (V{0, -1, -1, 1536, 1024, 448, 0, STATE_ACTIVE}));
    EXPECT_EQ(log.Count("W Mixerd_DataTransOutput:WriteFrame:micRaw: client behind, dropping audio:"), 1);
    client.DeInit();
    EXPECT_EQ(V({out.WriteFrame(f), out.WriteFrame(f), out.state}), (V{-1, -1, STATE_HANGUP}));  // gone for good
}

TEST(LatencyProbeTest, TheDelayIsToTheFirstLoudSampleCapturedAfterTheMark) {
    boost::shared_ptr<LatencyProbe> probe(new LatencyProbe);
    host::LatencyCarrierInput carrier(probe, 48000, 2, 1);
    host::LatencyListener listener(probe);
    int64_t delayUs = -1;
    EXPECT_FALSE(carrier.Process());  // no test armed
    probe->Arm();
    EXPECT_EQ(probe->Wait(0, delayUs), LatencyProbe::kNoMark);
    probe->Marked(5);  // outside a test: nothing
    EXPECT_FALSE(probe->Active());
    probe->Arm();
    EXPECT_EQ(S(*carrier.Process(), 0, 6), (V{1, 1, -1, -1, 1, 1}));  // faint, not silent
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
    // Once the test is over the listener leaves at its next frame.
    EXPECT_EQ(V({listener.WriteFrame(Ramp(SAMPLE_SIZE_16, 16000, 1)), listener.state}), (V{-1, STATE_HANGUP}));
    probe->Arm(), probe->Marked(10);
    EXPECT_EQ(probe->Wait(0, delayUs), LatencyProbe::kNoEcho);
    // The mark: a square wave at a quarter of the rate.
    const int L = LatencyProbe::kMarkLevel;
    AudioFrame mark(SAMPLE_SIZE_16, 48000, 2, 20);
    LatencyProbe::WriteMark(mark);
    EXPECT_EQ(S(mark, 0, 10), (V{L, L, L, L, -L, -L, -L, -L, L, L}));
    // The echo arriving on another thread ends the wait long before its limit.
    probe->Arm();
    std::thread record([&probe, &mark] { probe->Marked(0), probe->OnMicFrame(mark, 40000); });
    EXPECT_EQ(probe->Wait(60000, delayUs), LatencyProbe::kMeasured);
    EXPECT_EQ(delayUs, 20000);
    record.join();
}

}  // namespace
}  // namespace mixer
