#include <gtest/gtest.h>
#include <sndfile.h>
#include <vector>
#include "host/devices/WavMicInput.h"
#include "host/devices/WavOutput.h"
#include "tests/host/TempDir.h"
#include "tests/support/LogCapture.h"
namespace mixer {
namespace {
using host::WavOutput;
using Frame = boost::shared_ptr<AudioFrame>;

// Time that moves only when slept on.
struct StepClock : client::RealTimePacer::Clock {
    int64_t now = 1000000; int sleeps = 0;
    int64_t NowUs() override { return now; }
    void SleepUntilUs(int64_t when) override { ++sleeps, now = std::max(now, when); }
};

Frame Ramp(unsigned ss, unsigned rate, unsigned numCh, int start) {
    Frame f(new AudioFrame(ss, rate, numCh, 20));
    for (uint32_t i = 0; i < f->len * numCh; ++i)
        ss == SAMPLE_SIZE_32 ? f->Samples32()[i] = start + static_cast<int>(i) * 50000 : f->Samples16()[i] = start + i;
    return f;
}

std::vector<short> Samples(const std::string& path) {
    SF_INFO info = SF_INFO();
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    std::vector<short> out(f ? info.frames * info.channels : 0);
    if (f) sf_readf_short(f, out.data(), info.frames), sf_close(f);
    return out;
}

TEST(WavOutputTest, FramesSilenceAndClampedMixesLandInOrderPacedByTheClockAndOtherFormatsAreRefused) {
    test::TempDir dir;
    StepClock clock;
    test::LogCapture log;
    WavOutput out(dir.File("o.wav"), 8000, 1, &clock);
    ASSERT_EQ(out.Open(), 0);
    ASSERT_EQ(out.WriteFrame(Ramp(SAMPLE_SIZE_16, 8000, 1, 100)), 0);
    ASSERT_EQ(out.WriteFrame(Ramp(SAMPLE_SIZE_32, 8000, 1, -50000)), 0);  // a wide mix: clamped
    out.IdleTick();
    // 60 ms written: the clock has been slept up to that less the lead.
    EXPECT_EQ(clock.now, 1000000 + 60000 - WavOutput::kLeadUs);
    EXPECT_EQ(out.WriteFrame(Ramp(SAMPLE_SIZE_16, 16000, 1, 0)), -1);  // rate differs
    EXPECT_EQ(out.WriteFrame(Ramp(SAMPLE_SIZE_16, 8000, 2, 0)), -1);   // channels differ
    EXPECT_EQ(log.CountPrefix("W Mixerd_WavOutput:WriteFrame:format"), 2);
    EXPECT_EQ(out.state, STATE_ACTIVE);
    out.PostWrite();  // synced at most once a second while playing, and at pause
    EXPECT_EQ(out.Syncs(), 0u);
    // Paused and resumed much later: a new timeline, no catch-up.
    out.Pause(), clock.now += 5000000, out.Resume();
    const int sleeps = clock.sleeps;
    out.IdleTick();
    out.PostWrite(), out.PostWrite();
    EXPECT_EQ(std::vector<int64_t>({clock.sleeps, int64_t(out.Syncs()), int64_t(out.FramesWritten())}),
              std::vector<int64_t>({sleeps, 2, 4 * 160}));
    EXPECT_EQ(Samples(dir.File("o.wav")).size(), 4u * 160);  // readable before the close, as after a kill
    out.Close();
    const std::vector<short> s = Samples(dir.File("o.wav"));
    ASSERT_EQ(s.size(), 4u * 160);
    EXPECT_EQ(std::vector<short>({s[0], s[159], s[160], s[161], s[162], s[319], s[320], s[639]}),
              std::vector<short>({100, 259, -32768, 0, 32767, 32767, 0, 0}));
    WavOutput bad("/nonexistent-dir/x.wav", 8000, 1, &clock);
    EXPECT_EQ(bad.Open() + bad.WriteFrame(Ramp(SAMPLE_SIZE_16, 8000, 1, 0)), -2);
    EXPECT_EQ(bad.state, STATE_FAULT);
}

void Write(const std::string& path, int rate, int channels, const std::vector<short>& s) {
    SF_INFO info = SF_INFO();
    info.samplerate = rate, info.channels = channels, info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    if (f) sf_writef_short(f, s.data(), static_cast<sf_count_t>(s.size() / channels)), sf_close(f);
}

TEST(WavMicInputTest, MonoIsHeardOnEveryChannelAndLoopsUnusableFilesAreRefused) {
    test::TempDir dir;
    StepClock clock;
    std::vector<short> s(240);  // 30 ms at 8 kHz: one and a half frames
    for (size_t i = 0; i < s.size(); ++i) s[i] = static_cast<short>(i + 1);
    Write(dir.File("m.wav"), 8000, 1, s);
    auto mic = host::WavMicInput::Open(dir.File("m.wav"), 2, true, &clock);
    ASSERT_TRUE(mic);
    Frame a = mic->Process(), b = mic->Process();
    ASSERT_TRUE(a && b);
    EXPECT_EQ(std::vector<short>({a->Samples16()[0], a->Samples16()[1], a->Samples16()[2 * 159 + 1],
                                  b->Samples16()[2 * 79], b->Samples16()[2 * 80], b->Samples16()[2 * 80 + 1]}),
              std::vector<short>({1, 1, 160, 240, 1, 1}));  // the end of the file, then round again
    Write(dir.File("fast.wav"), 192000, 1, s);
    Write(dir.File("empty.wav"), 8000, 1, {});
    for (const char* name : {"fast.wav", "empty.wav", "missing.wav"}) EXPECT_FALSE(host::WavMicInput::Open(dir.File(name), 1, true));
}
}  // namespace
}  // namespace mixer
