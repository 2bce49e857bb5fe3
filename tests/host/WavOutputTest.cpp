#include "host/WavOutput.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <vector>

#include "tests/host/FakeClock.h"
#include "tests/host/TempDir.h"
#include "tests/support/LogCapture.h"

namespace mixer {
namespace {

using host::WavOutput;

boost::shared_ptr<AudioFrame> Ramp16(unsigned rate, unsigned numCh, int16_t start) {
    boost::shared_ptr<AudioFrame> f(new AudioFrame(SAMPLE_SIZE_16, rate, numCh, 20));
    for (uint32_t i = 0; i < f->len * numCh; ++i) f->Samples16()[i] = static_cast<int16_t>(start + i);
    return f;
}

std::vector<int16_t> ReadAll(const std::string& path, SF_INFO& info) {
    info = SF_INFO();
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    std::vector<int16_t> out;
    if (!f) return out;
    out.resize(static_cast<size_t>(info.frames * info.channels));
    sf_readf_short(f, out.data(), info.frames);
    sf_close(f);
    return out;
}

TEST(WavOutputTest, FramesAndIdleTicksLandInTheFileInOrder) {
    test::TempDir dir;
    test::FakeClock clock;
    std::string path = dir.File("out.wav");
    WavOutput out(path, 16000, 2, &clock);
    EXPECT_EQ(out.name, "WAV");  // never "ALSA": the engine must pace it
    ASSERT_EQ(out.Open(), 0);
    ASSERT_EQ(out.WriteFrame(Ramp16(16000, 2, 100)), 0);
    out.PostWrite();
    out.IdleTick();
    ASSERT_EQ(out.WriteFrame(Ramp16(16000, 2, -700)), 0);
    EXPECT_EQ(out.FramesWritten(), 3u * 320);
    EXPECT_EQ(out.SilenceWritten(), 320u);

    // Readable before Close: the header follows every write.
    SF_INFO info;
    std::vector<int16_t> s = ReadAll(path, info);
    EXPECT_EQ(info.samplerate, 16000);
    EXPECT_EQ(info.channels, 2);
    ASSERT_EQ(s.size(), 3u * 640);
    EXPECT_EQ(s[0], 100);
    EXPECT_EQ(s[639], 100 + 639);
    for (size_t i = 640; i < 1280; ++i) ASSERT_EQ(s[i], 0) << i;
    EXPECT_EQ(s[1280], -700);
    EXPECT_EQ(s[1919], -700 + 639);
    out.Close();
    EXPECT_EQ(ReadAll(path, info).size(), 3u * 640);
}

TEST(WavOutputTest, WideMixIsClampedAndForeignFormatsAreRefusedWithoutFault) {
    test::TempDir dir;
    test::FakeClock clock;
    WavOutput out(dir.File("o.wav"), 8000, 1, &clock);
    ASSERT_EQ(out.Open(), 0);
    boost::shared_ptr<AudioFrame> wide(new AudioFrame(SAMPLE_SIZE_32, 8000, 1, 20));
    for (uint32_t i = 0; i < wide->len; ++i) wide->Samples32()[i] = (i % 3 == 0) ? 100000 : (i % 3 == 1 ? -100000 : 5);
    ASSERT_EQ(out.WriteFrame(wide), 0);
    {
        test::LogCapture log;
        EXPECT_EQ(out.WriteFrame(Ramp16(16000, 1, 0)), -1);  // rate differs
        EXPECT_EQ(out.WriteFrame(Ramp16(8000, 2, 0)), -1);   // channels differ
        EXPECT_EQ(log.CountPrefix("W Mixerd_WavOutput:WriteFrame:format"), 2);
    }
    EXPECT_EQ(out.state, STATE_ACTIVE);
    out.Close();
    SF_INFO info;
    std::vector<int16_t> s = ReadAll(dir.File("o.wav"), info);
    ASSERT_EQ(s.size(), 160u);
    EXPECT_EQ(s[0], 32767);
    EXPECT_EQ(s[1], -32768);
    EXPECT_EQ(s[2], 5);
}

TEST(WavOutputTest, NeverRunsMoreThanItsLeadAheadOfTheClock) {
    test::TempDir dir;
    test::FakeClock clock;
    WavOutput out(dir.File("p.wav"), 48000, 2, &clock);
    ASSERT_EQ(out.Open(), 0);
    int64_t t0 = clock.now;
    for (int i = 0; i < 10; ++i) ASSERT_EQ(out.WriteFrame(Ramp16(48000, 2, 0)), 0);
    // 200 ms written: the clock must have reached 200 - 40 ms.
    EXPECT_EQ(clock.now - t0, 200000 - WavOutput::kLeadUs);
    // Paused and resumed later: a new timeline, no burst of catch-up sleeps.
    out.Pause();
    EXPECT_EQ(out.state, STATE_PAUSED);
    clock.now += 5000000;
    out.Resume();
    EXPECT_EQ(out.state, STATE_ACTIVE);
    size_t sleeps = clock.sleeps.size();
    out.IdleTick();
    out.IdleTick();
    EXPECT_EQ(clock.sleeps.size(), sleeps);
}

TEST(WavOutputTest, UnwritablePathFaultsTheOutput) {
    test::LogCapture log;
    WavOutput out("/nonexistent-dir/x/out.wav", 48000, 2);
    EXPECT_EQ(out.Open(), -1);
    EXPECT_EQ(out.state, STATE_FAULT);
    EXPECT_EQ(log.CountPrefix("E Mixerd_WavOutput:Open:/nonexistent-dir/x/out.wav:"), 1);
    EXPECT_EQ(out.WriteFrame(Ramp16(48000, 2, 0)), -1);
    EXPECT_EQ(out.state, STATE_FAULT);
}

}  // namespace
}  // namespace mixer
