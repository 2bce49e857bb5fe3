#include <gtest/gtest.h>
#include <sndfile.h>

#include <cmath>
#include <cstdlib>
#include <vector>

#include "host/ToneMicInput.h"
#include "host/WavMicInput.h"
#include "tests/host/FakeClock.h"
#include "tests/host/TempDir.h"
#include "tests/support/LogCapture.h"

namespace mixer {
namespace {

using host::ToneMicInput;
using host::WavMicInput;

TEST(ToneMicInputTest, DeliversAContinuousToneOfTheAskedLevelAtCaptureSpeed) {
    test::FakeClock clock;
    ToneMicInput mic(16000, 2, 1000.0, 0.5, &clock);
    EXPECT_EQ(mic.desc, "mic");
    int64_t t0 = clock.now;
    std::vector<int16_t> left;
    for (int i = 0; i < 5; ++i) {
        boost::shared_ptr<AudioFrame> f = mic.Process();
        ASSERT_TRUE(f);
        ASSERT_EQ(f->len, 320u);
        ASSERT_EQ(f->numCh, 2u);
        for (uint32_t k = 0; k < f->len; ++k) {
            ASSERT_EQ(f->Samples16()[2 * k], f->Samples16()[2 * k + 1]);
            left.push_back(f->Samples16()[2 * k]);
        }
    }
    // Each frame is handed out once its 20 ms have passed.
    EXPECT_EQ(clock.now - t0, 100000);
    int peak = 0, crossings = 0, maxStep = 0;
    for (size_t i = 0; i < left.size(); ++i) {
        peak = std::max(peak, std::abs(static_cast<int>(left[i])));
        if (i) {
            crossings += (left[i - 1] < 0) != (left[i] < 0);
            maxStep = std::max(maxStep, std::abs(left[i] - left[i - 1]));
        }
    }
    EXPECT_NEAR(peak, 16384, 20);
    EXPECT_NEAR(crossings, 200, 2);  // 1 kHz over 100 ms
    // No jump at the frame seams: the steepest step is the sine's own.
    EXPECT_LE(maxStep, static_cast<int>(16384 * 2 * M_PI * 1000 / 16000) + 2);
}

TEST(ToneMicInputTest, PauseAndResumeSwitchStateAndRestartTheClock) {
    test::FakeClock clock;
    ToneMicInput mic(8000, 1, 440.0, 2.0, &clock);  // level clamped to full scale
    mic.Process();
    mic.Pause();
    EXPECT_EQ(mic.state, STATE_PAUSED);
    clock.now += 3000000;
    mic.Resume();
    EXPECT_EQ(mic.state, STATE_ACTIVE);
    int64_t before = clock.now;
    boost::shared_ptr<AudioFrame> f = mic.Process();
    EXPECT_EQ(clock.now - before, 20000);
    int peak = 0;
    for (uint32_t k = 0; k < f->len; ++k) peak = std::max(peak, std::abs(static_cast<int>(f->Samples16()[k])));
    EXPECT_GT(peak, 32000);
}

std::string WriteWav(const std::string& path, int rate, int channels, const std::vector<int16_t>& s) {
    SF_INFO info = SF_INFO();
    info.samplerate = rate;
    info.channels = channels;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    if (f) {
        sf_writef_short(f, s.data(), static_cast<sf_count_t>(s.size() / channels));
        sf_close(f);
    }
    return path;
}

TEST(WavMicInputTest, MonoFileIsHeardOnEveryChannelAndLoops) {
    test::TempDir dir;
    test::FakeClock clock;
    std::vector<int16_t> s(240);  // 30 ms at 8 kHz: one and a half frames
    for (size_t i = 0; i < s.size(); ++i) s[i] = static_cast<int16_t>(i + 1);
    boost::shared_ptr<WavMicInput> mic = WavMicInput::Open(WriteWav(dir.File("m.wav"), 8000, 1, s), 2, true, &clock);
    ASSERT_TRUE(mic);
    EXPECT_EQ(mic->rate, 8000u);
    EXPECT_EQ(mic->numCh, 2u);
    boost::shared_ptr<AudioFrame> a = mic->Process();
    boost::shared_ptr<AudioFrame> b = mic->Process();
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a->Samples16()[0], 1);
    EXPECT_EQ(a->Samples16()[1], 1);
    EXPECT_EQ(a->Samples16()[2 * 159 + 1], 160);
    EXPECT_EQ(b->Samples16()[2 * 79], 240);     // end of the file...
    EXPECT_EQ(b->Samples16()[2 * 80], 1);       // ...and round again
    EXPECT_EQ(b->Samples16()[2 * 80 + 1], 1);
    EXPECT_FALSE(mic->AtEnd());
}

TEST(WavMicInputTest, WithoutLoopTheEndIsSilenceAndStereoFoldsOntoMono) {
    test::TempDir dir;
    test::FakeClock clock;
    std::vector<int16_t> s(2 * 100);
    for (size_t i = 0; i < 100; ++i) {
        s[2 * i] = 7;
        s[2 * i + 1] = -9;
    }
    boost::shared_ptr<WavMicInput> mic = WavMicInput::Open(WriteWav(dir.File("s.wav"), 8000, 2, s), 1, false, &clock);
    ASSERT_TRUE(mic);
    boost::shared_ptr<AudioFrame> f = mic->Process();
    ASSERT_TRUE(f);
    EXPECT_EQ(f->Samples16()[0], 7);  // channel 0 of the file
    EXPECT_EQ(f->Samples16()[99], 7);
    for (uint32_t k = 100; k < f->len; ++k) ASSERT_EQ(f->Samples16()[k], 0) << k;
    EXPECT_TRUE(mic->AtEnd());
    f = mic->Process();
    ASSERT_TRUE(f);
    for (uint32_t k = 0; k < f->len; ++k) ASSERT_EQ(f->Samples16()[k], 0) << k;
}

TEST(WavMicInputTest, MissingOrEmptyFileGivesNoInput) {
    test::TempDir dir;
    test::LogCapture log;
    EXPECT_FALSE(WavMicInput::Open(dir.File("none.wav"), 1, true));
    EXPECT_EQ(log.CountPrefix("E Mixerd_WavMicInput:Open:" + dir.File("none.wav")), 1);
    EXPECT_FALSE(WavMicInput::Open(WriteWav(dir.File("empty.wav"), 8000, 1, {}), 1, true));
    EXPECT_EQ(log.CountPrefix("E Mixerd_WavMicInput:Open:" + dir.File("empty.wav") + ": unusable"), 1);
}

}  // namespace
}  // namespace mixer
