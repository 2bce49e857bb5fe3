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
#include "host/WavMicInput.h"
#include "host/WavOutput.h"
#include "tests/host/TempDir.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ShmName.h"

namespace mixer {
namespace {

using host::LatencyProbe;
using Frame = boost::shared_ptr<AudioFrame>;
using V = std::vector<int64_t>;

// A clock that moves only when slept on or moved by the test; it records every deadline.
struct FakeClock : host::RealTimePacer::Clock {
    int64_t now = 1000000;
    std::vector<int64_t> sleeps;
    int64_t NowUs() override { return now; }
    void SleepUntilUs(int64_t when) override { sleeps.push_back(when), now = std::max(now, when); }
};

// A 20-ms frame whose samples count up from start.
Frame Ramp(unsigned ss, unsigned rate, unsigned numCh, int start = 0) {
    Frame f(new AudioFrame(ss, rate, numCh, 20));
    for (uint32_t i = 0; i < f->len * numCh; ++i)
        ss == SAMPLE_SIZE_32 ? f->Samples32()[i] = start + static_cast<int>(i) : f->Samples16()[i] = start + i;
    return f;
}

// n samples of a frame (or of a file's samples) from index `from`, whatever their width.
V S(AudioFrame& f, size_t from, size_t n) {
    V v;
    for (size_t i = from; i < from + n; ++i) v.push_back(f.sampleSize == 4 ? f.Samples32()[i] : f.Samples16()[i]);
    return v;
}

TEST(RealTimePacerTest, PeriodsAreDueOnTheTimelineLessTheLeadAndAStalledCallerIsReanchored) {
    FakeClock clock;
    host::RealTimePacer capture(0, 100000, &clock), playback(40000, 200000, &clock);
    std::vector<int64_t> slept;
    for (int64_t late : {0, 15000, 120000, 500000, 0}) {  // the caller's own time beyond the last period
        clock.now += late;
        slept.push_back(capture.Advance(20000));
    }
    // 15 ms taken leaves 5 to wait; 100 ms behind (the limit) catches up at once; further
    // behind, the timeline is re-anchored and the next period is a full one away.
    EXPECT_EQ(slept, (std::vector<int64_t>{20000, 5000, 0, 0, 20000}));
    EXPECT_EQ(clock.sleeps, (std::vector<int64_t>{1020000, 1040000, 1680000}));
    EXPECT_EQ(capture.Reanchors(), 1u);
    // A playback timeline runs ahead of the clock by up to its lead.
    EXPECT_EQ(V({int(playback.Advance(20000)), int(playback.Advance(20000)), int(playback.Advance(20000))}),
              (V{0, 0, 20000}));
    EXPECT_EQ(playback.PositionUs(), 60000);
}

TEST(AlgoChannelMapTest, ChannelsAreRepeatedInTurnOrAveragedIntoMono) {
    host::AlgoChannelMap up(1, 2), down(2, 1);
    Frame mono = Ramp(SAMPLE_SIZE_16, 8000, 1), loud(new AudioFrame(SAMPLE_SIZE_16, 8000, 2, 20));
    std::strcpy(mono->bufId, "7");
    Frame out = up.Process(mono);
    EXPECT_EQ(S(*out, 0, 4), (V{0, 0, 1, 1}));
    EXPECT_EQ(V({out->Samples16()[319], int(out->numCh), int(out->size), out->bufId[0]}), (V{159, 2, 640, '7'}));
    EXPECT_EQ(S(*down.Process(Ramp(SAMPLE_SIZE_32, 8000, 2, 1000)), 0, 2), (V{1000, 1002}));
    for (uint32_t i = 0; i < loud->len * 2; ++i) loud->Samples16()[i] = i % 4 == 1 ? -32767 : 32767;
    EXPECT_EQ(S(*down.Process(loud), 0, 2), (V{0, 32767}));  // no overflow
    // Frames of another width, none, and a bypassed map pass untouched.
    EXPECT_EQ(up.Process(loud), loud);
    EXPECT_FALSE(up.Process(Frame()));
    up.bypass = true;
    EXPECT_EQ(up.Process(mono), mono);
}

std::vector<int16_t> ReadWav(const std::string& path) {
    SF_INFO info = SF_INFO();
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    std::vector<int16_t> out(f ? static_cast<size_t>(info.frames * info.channels) : 0);
    if (f) sf_readf_short(f, out.data(), info.frames), sf_close(f);
    return out;
}

std::string WriteWav(const std::string& path, int rate, int channels, const std::vector<int16_t>& s) {
    SF_INFO info = SF_INFO();
    info.samplerate = rate, info.channels = channels, info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    if (f) sf_writef_short(f, s.data(), static_cast<sf_count_t>(s.size() / channels)), sf_close(f);
    return path;
}

TEST(WavOutputTest, FramesAndIdleTicksLandInTheFileInOrderPacedByTheClock) {
    test::TempDir dir;
    FakeClock clock;
    test::LogCapture log;
    const std::string path = dir.File("out.wav");
    host::WavOutput out(path, 16000, 2, &clock), bad("/nonexistent-dir/out.wav", 48000, 2);
    EXPECT_EQ(out.name, "WAV");  // never "ALSA": the engine must pace it
    ASSERT_EQ(out.Open(), 0);
    ASSERT_EQ(out.WriteFrame(Ramp(SAMPLE_SIZE_16, 16000, 2, 100)), 0);
    out.IdleTick();
    Frame wide(new AudioFrame(SAMPLE_SIZE_32, 16000, 2, 20));
    for (uint32_t i = 0; i < 640; ++i) wide->Samples32()[i] = i % 3 == 0 ? 100000 : i % 3 == 1 ? -100000 : 5;
    ASSERT_EQ(out.WriteFrame(wide), 0);  // clamped
    EXPECT_EQ(out.WriteFrame(Ramp(SAMPLE_SIZE_16, 8000, 2)) + out.WriteFrame(Ramp(SAMPLE_SIZE_16, 16000, 1)), -2);
    EXPECT_EQ(log.CountPrefix("W Mixerd_WavOutput:WriteFrame:format"), 2);
    EXPECT_EQ(V({out.state, int(out.FramesWritten()), int(out.SilenceWritten())}), (V{STATE_ACTIVE, 960, 320}));
    EXPECT_EQ(clock.now, 1000000 + 60000 - host::WavOutput::kLeadUs);
    std::vector<int16_t> s = ReadWav(path);  // readable before Close: the header follows every write
    ASSERT_EQ(s.size(), 3u * 640);
    EXPECT_EQ(V({s[0], s[639], s[640], s[1279], s[1280], s[1281], s[1282]}), (V{100, 739, 0, 0, 32767, -32768, 5}));
    // Resumed after a pause: a new timeline, on which the third period sleeps again.
    out.Pause();
    EXPECT_EQ(out.state, STATE_PAUSED);
    clock.now += 5000000;
    out.Resume();
    for (int i = 0; i < 3; ++i) out.IdleTick();
    EXPECT_EQ(V({out.state, int(clock.now - 6000000)}), (V{STATE_ACTIVE, 40000}));
    out.Close();
    EXPECT_EQ(ReadWav(path).size(), 6u * 640);
    EXPECT_EQ(bad.Open() + bad.WriteFrame(Ramp(SAMPLE_SIZE_16, 48000, 2)), -2);
    EXPECT_EQ(bad.state, STATE_FAULT);
    EXPECT_EQ(log.CountPrefix("E Mixerd_WavOutput:Open:/nonexistent-dir/out.wav:"), 1);
}

TEST(AlsaDeviceTest, UnknownDevicesFaultWithALogLineAndTheNullDeviceTakesAndGivesPeriods) {
    test::LogCapture log;
    host::AlsaOutput out("mixerd_no_such_pcm", 48000, 2), null("null", 48000, 2);
    host::AlsaMicInput mic("mixerd_no_such_pcm", 16000, 1), nullMic("null", 16000, 1);
    EXPECT_EQ(out.name + mic.desc, "ALSAmic");  // the engine lets an "ALSA" output's blocking writes pace it
    testing::internal::CaptureStderr();
    EXPECT_EQ(out.Open() + mic.Open() + out.WriteFrame(Ramp(SAMPLE_SIZE_16, 48000, 2)) + int(out.GetDelayUs()), -3);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");  // alsa-lib's complaints go to the log instead
    EXPECT_EQ(log.CountPrefix("E Mixerd_AlsaOutput:Open:mixerd_no_such_pcm:") +
                  log.CountPrefix("E Mixerd_AlsaMicInput:Open:mixerd_no_such_pcm:"), 2) << log.Dump();
    EXPECT_FALSE(mic.Process());
    EXPECT_EQ(V({out.state, mic.state}), V(2, STATE_FAULT));

    ASSERT_EQ(null.Open() + nullMic.Open(), 0);
    EXPECT_EQ(null.WriteFrame(Ramp(SAMPLE_SIZE_32, 48000, 2)), 0);
    null.IdleTick();
    EXPECT_EQ(null.WriteFrame(Ramp(SAMPLE_SIZE_16, 48000, 1)), -1);  // wrong channel count: refused, not fatal
    EXPECT_EQ(log.CountPrefix("W Mixerd_AlsaOutput:WriteFrame:format 1 ch"), 1);
    EXPECT_EQ(V({int(nullMic.Process()->len), null.state}), (V{320, STATE_ACTIVE}));
    null.Pause(), nullMic.Pause();
    EXPECT_EQ(V({null.state, nullMic.state}), V(2, STATE_PAUSED));
    null.Resume(), nullMic.Resume();
    EXPECT_EQ(V({null.state, nullMic.state}), V(2, STATE_ACTIVE));
    EXPECT_TRUE(nullMic.Process());
    null.Close();
    EXPECT_EQ(V({null.WriteFrame(Ramp(SAMPLE_SIZE_16, 48000, 2)), null.state}), (V{-1, STATE_FAULT}));
}

TEST(MicInputTest, ToneAndFileMicsGiveExactSamplesAtCaptureSpeed) {
    test::TempDir dir;
    test::LogCapture log;
    FakeClock clock;
    host::ToneMicInput tone(16000, 2, 1010.0, 0.5, &clock), full(8000, 1, 2000.0, 2.0, &clock);
    for (int n = 0; n < 3; ++n) {  // 1010 Hz: no whole number of periods in a frame
        Frame f = tone.Process();
        ASSERT_EQ(V({int(f->len), int(f->numCh)}), (V{320, 2}));
        for (uint32_t k = 0; k < f->len; ++k) {
            ASSERT_NEAR(f->Samples16()[2 * k], 16383.5 * std::sin(2 * M_PI * 1010 * (n * 320 + k) / 16000), 1.0) << k;
            ASSERT_EQ(f->Samples16()[2 * k], f->Samples16()[2 * k + 1]);
        }
    }
    EXPECT_EQ(clock.now, 1060000);  // each frame once its 20 ms have passed
    EXPECT_EQ(S(*full.Process(), 0, 4), (V{0, 32767, 0, -32767}));  // level clamped to full scale
    full.Pause();
    EXPECT_EQ(full.state, STATE_PAUSED);
    clock.now += 3000000;
    full.Resume();
    full.Process();
    EXPECT_EQ(V({full.state, int(clock.now)}), (V{STATE_ACTIVE, 4100000}));  // the clock restarted, no burst

    std::vector<int16_t> ramp(240), stereo(200);  // 30 ms at 8 kHz, then 12.5 ms of 7|-9
    for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = static_cast<int16_t>(i + 1);
    for (size_t i = 0; i < stereo.size(); ++i) stereo[i] = i % 2 ? -9 : 7;
    auto looping = host::WavMicInput::Open(WriteWav(dir.File("m.wav"), 8000, 1, ramp), 2, true, &clock);
    auto once = host::WavMicInput::Open(WriteWav(dir.File("s.wav"), 8000, 2, stereo), 1, false, &clock);
    ASSERT_TRUE(looping && once);
    Frame a = looping->Process(), b = looping->Process(), c = once->Process();
    EXPECT_EQ(V({int(looping->rate), int(looping->numCh), a->Samples16()[0], a->Samples16()[1], a->Samples16()[319]}),
              (V{8000, 2, 1, 1, 160}));                      // mono heard on every channel
    EXPECT_EQ(S(*b, 158, 4), (V{240, 240, 1, 1}));          // the end of the file and round again
    EXPECT_EQ(S(*c, 98, 4), (V{7, 7, 0, 0}));                // channel 0 of the file, then silence
    EXPECT_EQ(V({looping->AtEnd(), once->AtEnd()}), (V{0, 1}));
    EXPECT_EQ(S(*once->Process(), 0, 160), V(160, 0));
    EXPECT_FALSE(host::WavMicInput::Open(dir.File("none.wav"), 1, true));
    EXPECT_FALSE(host::WavMicInput::Open(WriteWav(dir.File("empty.wav"), 8000, 1, {}), 1, true));
    EXPECT_EQ(log.CountPrefix("E Mixerd_WavMicInput:Open:" + dir.File("none.wav") + ": ") +
                  log.Count("E Mixerd_WavMicInput:Open:" + dir.File("empty.wav") + ": unusable (8000 Hz, 1 ch, 0 frames):"),
              2);
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
    EXPECT_EQ(out.WriteFrame(f) + out.WriteFrame(f) + out.WriteFrame(f), -2);
    EXPECT_EQ(V({int(out.BytesWritten()), int(out.BytesDropped()), int(Drain(client).size())}), (V{1536, 1024, 448}));
    EXPECT_EQ(log.Count("W Mixerd_DataTransOutput:WriteFrame:micRaw: client behind, dropping audio:"), 1);
    EXPECT_EQ(V({out.WriteFrame(f), out.state}), (V{0, STATE_ACTIVE}));  // room again
    client.DeInit();
    EXPECT_EQ(V({out.WriteFrame(f), out.WriteFrame(f), out.state}), (V{-1, -1, STATE_HANGUP}));  // gone for good
}

TEST(LatencyProbeTest, TheDelayIsToTheFirstLoudSampleCapturedAfterTheMark) {
    LatencyProbe probe;
    int64_t delayUs = -1;
    probe.Arm();
    EXPECT_EQ(probe.Wait(0, delayUs), LatencyProbe::kNoMark);
    probe.Marked(5);  // outside a test: nothing
    EXPECT_FALSE(probe.Active());
    probe.Arm();
    EXPECT_TRUE(probe.WantsMark());
    probe.Marked(1000000);
    probe.Marked(2000000);  // only the first mark counts
    EXPECT_FALSE(probe.WantsMark());
    // Sound captured before the mark is not taken for it; below the level it is nothing.
    AudioFrame early(SAMPLE_SIZE_16, 8000, 1, 20), heard(SAMPLE_SIZE_16, 16000, 2, 20);
    LatencyProbe::WriteMark(early);
    probe.OnMicFrame(early, 1000000);
    for (uint32_t i = 0; i < heard.len * 2; ++i) heard.Samples16()[i] = i % 2 ? 1 - LatencyProbe::kDetectLevel : 3000;
    probe.OnMicFrame(heard, 1050000);
    EXPECT_TRUE(probe.Active());
    // Heard at sample 80 of a frame that ended at 1 100 000 us: taken at 1 085 000 us.
    heard.Samples16()[2 * 80 + 1] = -LatencyProbe::kDetectLevel;
    probe.OnMicFrame(heard, 1100000);
    EXPECT_EQ(probe.Wait(0, delayUs), LatencyProbe::kMeasured);
    EXPECT_EQ(delayUs, 85000);
    probe.Arm();
    probe.Marked(10);
    EXPECT_EQ(probe.Wait(0, delayUs), LatencyProbe::kNoEcho);
    EXPECT_FALSE(probe.Active());
    // The mark: a square wave at a quarter of the rate, in both widths.
    const int L = LatencyProbe::kMarkLevel;
    AudioFrame f16(SAMPLE_SIZE_16, 48000, 2, 20), f32(SAMPLE_SIZE_32, 48000, 1, 20);
    LatencyProbe::WriteMark(f16);
    LatencyProbe::WriteMark(f32);
    EXPECT_EQ(S(f16, 0, 10), (V{L, L, L, L, -L, -L, -L, -L, L, L}));
    EXPECT_EQ(S(f32, 0, 5), (V{L, L, -L, -L, L}));
    EXPECT_EQ(f32.Samples32()[f32.len - 1], -L);
    // The echo arriving on another thread ends the wait long before its limit.
    probe.Arm();
    std::thread record([&probe, &f32] { probe.Marked(0), probe.OnMicFrame(f32, 40000); });
    EXPECT_EQ(probe.Wait(60000, delayUs), LatencyProbe::kMeasured);
    EXPECT_EQ(delayUs, 20000);
    record.join();
}

TEST(LatencyProbeTest, ListenerAndCarrierLastAsLongAsTheTest) {
    boost::shared_ptr<LatencyProbe> probe(new LatencyProbe);
    host::LatencyListener listener(probe), late(probe);
    host::LatencyCarrierInput idle(probe, 48000, 2, 2), carrier(probe, 48000, 2, 2);
    EXPECT_FALSE(idle.Process());  // no test armed
    probe->Arm();
    for (int i = 0; i < 2; ++i) EXPECT_EQ(S(*carrier.Process(), 0, 6), (V{1, 1, -1, -1, 1, 1}));  // faint, not silent
    EXPECT_FALSE(carrier.Process());  // its frame budget spent
    probe->Marked(0);
    Frame f(new AudioFrame(SAMPLE_SIZE_16, 16000, 1, 20));
    LatencyProbe::WriteMark(*f);
    EXPECT_EQ(listener.WriteFrame(f), 0);  // heard: the test is over
    EXPECT_EQ(late.WriteFrame(f), -1);     // posted after its test ended: leaves at its first frame
    EXPECT_EQ(V({idle.state, carrier.state, listener.state, late.state}), V(4, STATE_HANGUP));
}

}  // namespace
}  // namespace mixer
