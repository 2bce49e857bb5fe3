#include "mixer/algo/AlgoResample.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include <speex/speex_resampler.h>

#include "tests/support/LogCapture.h"

namespace mixer {
namespace {

typedef boost::shared_ptr<AudioFrame> FramePtr;
const std::string kLog = "Mixer_AlgoResample:";

FramePtr Frame(unsigned sampleSize, unsigned rate, unsigned numCh) {
    FramePtr f(new AudioFrame(sampleSize, rate, numCh));
    std::memset(f->data, 0, f->size);
    return f;
}

TEST(AlgoResampleTest, BadParametersLeaveAnInertResampler) {
    const unsigned params[][3] = {{0, 48000, 16000}, {2, 0, 16000}, {2, 48000, 0}};  // channels, in, out
    for (const auto& p : params) {
        test::LogCapture log;
        AlgoResample r(p[0], p[1], p[2]);
        EXPECT_EQ(r.id, ALGO_ID_RESAMPLE);
        FramePtr f = Frame(2, 48000, 2);
        EXPECT_EQ(r.Process(f), f);
        EXPECT_EQ(r.GetLatencyUs(), 0u);
        EXPECT_EQ(log.Lines(), (std::vector<std::string>{
            "E " + kLog + "Constructor:Bad param in " + std::to_string(p[1]) + " out " + std::to_string(p[2]) +
                " c " + std::to_string(p[0]) + ":",
            "E " + kLog + "Process:No Resampler!:"}));
    }
}

TEST(AlgoResampleTest, SixteenBitFramesBecomeNewFramesOfTheOutputRate) {
    test::LogCapture log;
    AlgoResample r(2, 48000, 16000);
    EXPECT_EQ(log.Count("I " + kLog + "Constructor:ResamplerReady:48000 to 16000"), 1);
    FramePtr in = Frame(2, 48000, 2);
    std::strcpy(in->bufId, "7 8 9");
    FramePtr out = r.Process(in);
    ASSERT_TRUE(out);
    EXPECT_NE(out, in);
    EXPECT_EQ(out->len, 320u);
    EXPECT_EQ(out->rate, 16000u);
    EXPECT_EQ(out->numCh, 2u);
    EXPECT_EQ(out->sampleSize, 2u);
    EXPECT_EQ(out->lenMs, 20u);
    EXPECT_STREQ(out->bufId, "7 8 9");
    EXPECT_EQ(log.CountPrefix("D " + kLog + "Process:In 960 960 Out 320 "), 1) << log.Dump();
    // What it cannot convert passes unchanged: 32-bit frames, everything when bypassed.
    log.Clear();
    FramePtr wide = Frame(4, 48000, 2);
    EXPECT_EQ(r.Process(wide), wide);
    EXPECT_EQ(log.Lines(), std::vector<std::string>{"E " + kLog + "Process:Supports only 16bits samples:"});
    log.Clear();
    r.bypass = true;
    EXPECT_EQ(r.Process(in), in);
    EXPECT_EQ(r.GetLatencyUs(), 0u);
    EXPECT_FALSE(r.Process(FramePtr()));
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST(AlgoResampleTest, LatencyInMicrosecondsOfTheInputRate) {
    // The delay in output samples over the input rate, with a 32-bit numerator that wraps
    // above 4294 samples; nothing is reported above 131072 samples.
    struct Case { unsigned ch, in, out; uint32_t minN, maxN; };
    for (const Case& c : {Case{2, 48000, 16000, 1, 4294}, Case{1, 1000, 96000, 4295, 131072},
                          Case{1, 10, 96000, 131073, UINT32_MAX}}) {
        int err = 0;
        SpeexResamplerState* st = speex_resampler_init(c.ch, c.in, c.out, 7, &err);
        ASSERT_NE(st, nullptr);
        const uint32_t n = static_cast<uint32_t>(speex_resampler_get_output_latency(st));
        speex_resampler_destroy(st);
        ASSERT_GE(n, c.minN);
        ASSERT_LE(n, c.maxN);
        test::LogCapture log;
        AlgoResample r(c.ch, c.in, c.out);
        const uint32_t want = n > 131072 ? 0 : (1000000u * n + c.in / 2) / c.in;
        EXPECT_EQ(r.GetLatencyUs(), want) << c.in << " to " << c.out;
        EXPECT_EQ(log.Count(n > 131072 ? "W " + kLog + "GetLatencyUs:Num Samples " + std::to_string(n) + " > 131072:"
                                       : "I " + kLog + "GetLatencyUs:" + std::to_string(want) + ":"), 1)
            << log.Dump();
    }
}

// Share of the signal's power at hz (Goertzel; near 1 for a pure tone) and its RMS.
std::pair<double, double> Tone(const std::vector<int16_t>& s, unsigned rate, double hz) {
    const double c = 2 * std::cos(2 * M_PI * hz / rate);
    double s1 = 0, s2 = 0, total = 0;
    for (int16_t v : s) {
        const double s0 = v + c * s1 - s2;
        s2 = s1;
        s1 = s0;
        total += static_cast<double>(v) * v;
    }
    return {2 * (s1 * s1 + s2 * s2 - c * s1 * s2) / (s.size() * total), std::sqrt(total / s.size())};
}

TEST(AlgoResampleTest, TonesSurviveDownAndUpAgainOnTheirOwnChannels) {
    const double hz[2] = {1000.0, 1500.0};
    AlgoResample down(2, 48000, 16000), up(2, 16000, 48000);
    std::vector<int16_t> middle[2], result[2];
    for (int i = 0, k = 0; i < 50; ++i) {  // one second; the filters' start-up is skipped
        FramePtr a = Frame(2, 48000, 2);
        for (uint32_t j = 0; j < a->len; ++j, ++k)
            for (int ch = 0; ch < 2; ++ch)
                a->Samples16()[2 * j + ch] = static_cast<int16_t>(std::lround(10000 * std::sin(2 * M_PI * hz[ch] * k / 48000)));
        FramePtr b = down.Process(a), c = up.Process(b);
        ASSERT_EQ(b->len, 320u);
        ASSERT_EQ(c->len, 960u);
        for (int ch = 0; i >= 5 && ch < 2; ++ch) {
            for (uint32_t j = 0; j < b->len; ++j) middle[ch].push_back(b->Samples16()[2 * j + ch]);
            for (uint32_t j = 0; j < c->len; ++j) result[ch].push_back(c->Samples16()[2 * j + ch]);
        }
    }
    const double rms = 10000 / std::sqrt(2.0);
    for (int ch = 0; ch < 2; ++ch) {
        for (const auto& m : {Tone(middle[ch], 16000, hz[ch]), Tone(result[ch], 48000, hz[ch])}) {
            EXPECT_GT(m.first, 0.95) << "channel " << ch;
            EXPECT_LT(std::fabs(20 * std::log10(m.second / rms)), 1.0) << "channel " << ch;
        }
    }
}

}  // namespace
}  // namespace mixer
