#include "mixer/algo/AlgoResample.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include <speex/speex_resampler.h>

#include "tests/support/LogCapture.h"
#include "tests/support/SineInput.h"

namespace mixer {
namespace {

boost::shared_ptr<AudioFrame> Frame(unsigned sampleSize, unsigned rate, unsigned numCh) {
    boost::shared_ptr<AudioFrame> f(new AudioFrame(sampleSize, rate, numCh));
    std::memset(f->data, 0, f->size);
    return f;
}

// The output latency speexdsp itself reports for these parameters.
uint32_t SpeexLatency(unsigned channels, unsigned inRate, unsigned outRate) {
    int err = 0;
    SpeexResamplerState* st = speex_resampler_init(channels, inRate, outRate, 7, &err);
    EXPECT_NE(st, nullptr);
    const uint32_t n = static_cast<uint32_t>(speex_resampler_get_output_latency(st));
    speex_resampler_destroy(st);
    return n;
}

TEST(AlgoResampleTest, BadParametersLeaveAnInertResampler) {
    test::LogCapture log;
    AlgoResample r(0, 48000, 16000);
    EXPECT_EQ(r.id, ALGO_ID_RESAMPLE);
    EXPECT_EQ(log.Count("E Mixer_AlgoResample:Constructor:Bad param in 48000 out 16000 c 0:"), 1);
    boost::shared_ptr<AudioFrame> f = Frame(2, 48000, 2);
    EXPECT_EQ(r.Process(f), f);
    EXPECT_EQ(r.Process(f), f);
    EXPECT_EQ(log.Count("E Mixer_AlgoResample:Process:No Resampler!:"), 2);
    EXPECT_EQ(r.GetLatencyUs(), 0u);

    AlgoResample noIn(2, 0, 16000), noOut(2, 48000, 0);
    EXPECT_EQ(log.Count("E Mixer_AlgoResample:Constructor:Bad param in 0 out 16000 c 2:"), 1);
    EXPECT_EQ(log.Count("E Mixer_AlgoResample:Constructor:Bad param in 48000 out 0 c 2:"), 1);
    EXPECT_EQ(noOut.Process(f), f);
}

TEST(AlgoResampleTest, FortyEightToSixteenKiloHertzFrames) {
    test::LogCapture log;
    AlgoResample r(2, 48000, 16000);
    EXPECT_EQ(log.Count("I Mixer_AlgoResample:Constructor:ResamplerReady:48000 to 16000"), 1);
    boost::shared_ptr<AudioFrame> in = Frame(2, 48000, 2);
    std::strcpy(in->bufId, "7 8 9");
    boost::shared_ptr<AudioFrame> out = r.Process(in);
    ASSERT_TRUE(out);
    EXPECT_NE(out, in);
    EXPECT_EQ(in->len, 960u);
    EXPECT_EQ(out->len, 320u);
    EXPECT_EQ(out->rate, 16000u);
    EXPECT_EQ(out->numCh, 2u);
    EXPECT_EQ(out->sampleSize, 2u);
    EXPECT_EQ(out->lenMs, 20u);
    EXPECT_EQ(out->size, 320u * 2 * 2);
    EXPECT_STREQ(out->bufId, "7 8 9");
    EXPECT_EQ(log.CountPrefix("D Mixer_AlgoResample:Process:In 960 960 Out 320 "), 1) << log.Dump();
}

TEST(AlgoResampleTest, ThirtyTwoBitFramesAndBypassPassUnchanged) {
    AlgoResample r(2, 48000, 16000);
    test::LogCapture log;
    boost::shared_ptr<AudioFrame> wide = Frame(4, 48000, 2);
    EXPECT_EQ(r.Process(wide), wide);
    EXPECT_EQ(log.Count("E Mixer_AlgoResample:Process:Supports only 16bits samples:"), 1);

    log.Clear();
    r.bypass = true;
    boost::shared_ptr<AudioFrame> f = Frame(2, 48000, 2);
    EXPECT_EQ(r.Process(f), f);
    EXPECT_EQ(r.GetLatencyUs(), 0u);
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();
    EXPECT_FALSE(r.Process(boost::shared_ptr<AudioFrame>()));
}

TEST(AlgoResampleTest, LatencyInMicrosecondsOfTheInputRate) {
    test::LogCapture log;
    AlgoResample down(2, 48000, 16000);
    const uint32_t n = SpeexLatency(2, 48000, 16000);
    const uint32_t expected = (1000000u * n + 24000u) / 48000u;
    EXPECT_GT(expected, 0u);
    EXPECT_EQ(down.GetLatencyUs(), expected);
    EXPECT_EQ(log.Count("I Mixer_AlgoResample:GetLatencyUs:" + std::to_string(expected) + ":"), 1);
}

TEST(AlgoResampleTest, LatencyNumeratorWrapsAtThirtyTwoBits) {
    // Upsampling 1000 Hz to 96000 Hz gives thousands of output samples of delay.
    AlgoResample up(1, 1000, 96000);
    const uint32_t n = SpeexLatency(1, 1000, 96000);
    ASSERT_GT(n, 4294u);
    ASSERT_LE(n, 131072u);
    const uint64_t exact = (1000000ull * n + 500) / 1000;
    const uint32_t wrapped = (1000000u * n + 500u) / 1000u;
    EXPECT_NE(exact, wrapped);
    EXPECT_EQ(up.GetLatencyUs(), wrapped);
}

TEST(AlgoResampleTest, TooLongALatencyReportsZero) {
    test::LogCapture log;
    AlgoResample up(1, 10, 96000);
    const uint32_t n = SpeexLatency(1, 10, 96000);
    ASSERT_GT(n, 131072u);
    EXPECT_EQ(up.GetLatencyUs(), 0u);
    EXPECT_EQ(log.Count("W Mixer_AlgoResample:GetLatencyUs:Num Samples " + std::to_string(n) +
                        " > 131072:"),
              1)
        << log.Dump();
}

// Frequency by counting upward zero crossings, and level as RMS, on one channel.
struct Measure {
    double hz;
    double rms;
};

Measure Analyse(const std::vector<int16_t>& s, unsigned rate) {
    int firstUp = -1, lastUp = -1, ups = 0;
    for (size_t i = 1; i < s.size(); ++i) {
        if (s[i - 1] < 0 && s[i] >= 0) {
            if (firstUp < 0) firstUp = static_cast<int>(i);
            lastUp = static_cast<int>(i);
            ++ups;
        }
    }
    double sum = 0;
    for (int16_t v : s) sum += static_cast<double>(v) * v;
    Measure m;
    m.hz = ups > 1 ? (ups - 1) * static_cast<double>(rate) / (lastUp - firstUp) : 0;
    m.rms = std::sqrt(sum / s.size());
    return m;
}

// Goertzel power at hz relative to the signal's total power: near 1 for a pure tone.
double ToneShare(const std::vector<int16_t>& s, unsigned rate, double hz) {
    const double w = 2 * M_PI * hz / rate, c = 2 * std::cos(w);
    double s1 = 0, s2 = 0, total = 0;
    for (int16_t v : s) {
        const double s0 = v + c * s1 - s2;
        s2 = s1;
        s1 = s0;
        total += static_cast<double>(v) * v;
    }
    const double power = s1 * s1 + s2 * s2 - c * s1 * s2;
    return 2 * power / (s.size() * total);
}

TEST(AlgoResampleTest, ToneSurvivesDownAndUpAgain) {
    const unsigned kChannels = 2;
    test::SineInput tone(48000, kChannels, 1000.0, 10000.0);
    AlgoResample down(kChannels, 48000, 16000), up(kChannels, 16000, 48000);
    std::vector<int16_t> source[kChannels], middle[kChannels], result[kChannels];
    const int kFrames = 50, kSettle = 5;  // one second; skip the filters' start-up
    for (int i = 0; i < kFrames; ++i) {
        boost::shared_ptr<AudioFrame> a = tone.Process();
        boost::shared_ptr<AudioFrame> b = down.Process(a);
        boost::shared_ptr<AudioFrame> c = up.Process(b);
        ASSERT_EQ(b->len, 320u);
        ASSERT_EQ(c->len, 960u);
        ASSERT_EQ(c->rate, 48000u);
        if (i < kSettle) continue;
        for (unsigned ch = 0; ch < kChannels; ++ch) {
            for (uint32_t k = 0; k < a->len; ++k) source[ch].push_back(a->Samples16()[k * kChannels + ch]);
            for (uint32_t k = 0; k < b->len; ++k) middle[ch].push_back(b->Samples16()[k * kChannels + ch]);
            for (uint32_t k = 0; k < c->len; ++k) result[ch].push_back(c->Samples16()[k * kChannels + ch]);
        }
    }
    for (unsigned ch = 0; ch < kChannels; ++ch) {
        const Measure in = Analyse(source[ch], 48000);
        const Measure mid = Analyse(middle[ch], 16000);
        const Measure out = Analyse(result[ch], 48000);
        EXPECT_NEAR(in.hz, 1000.0, 1.0);
        EXPECT_NEAR(mid.hz, 1000.0, 2.0) << "channel " << ch;
        EXPECT_NEAR(out.hz, 1000.0, 2.0) << "channel " << ch;
        EXPECT_LT(std::fabs(20 * std::log10(mid.rms / in.rms)), 1.0) << "channel " << ch;
        EXPECT_LT(std::fabs(20 * std::log10(out.rms / in.rms)), 1.0) << "channel " << ch;
        EXPECT_GT(ToneShare(result[ch], 48000, 1000.0), 0.95) << "channel " << ch;
        EXPECT_LT(ToneShare(result[ch], 48000, 3000.0), 0.01) << "channel " << ch;
    }
}

}  // namespace
}  // namespace mixer
