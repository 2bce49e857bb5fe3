#include "mixer/algo/AlgoResample.h"

#include <gtest/gtest.h>

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

TEST(AlgoResampleTest, SamplesArriveOnTheirOwnChannelsAtTheirLevel) {
    // Two steady levels, one per channel: once the filter has settled, each comes out
    // on its channel at its level, down to 16000 Hz and up again.
    AlgoResample down(2, 48000, 16000), up(2, 16000, 48000);
    for (int i = 0; i < 5; ++i) {
        FramePtr a = Frame(2, 48000, 2);
        for (uint32_t k = 0; k < 2 * a->len; ++k) a->Samples16()[k] = k % 2 ? -5000 : 10000;
        FramePtr b = down.Process(a), c = up.Process(b);
        ASSERT_EQ(b->len, 320u);
        ASSERT_EQ(c->len, 960u);
        for (uint32_t k = 0; i >= 3 && k < 2 * c->len; ++k) {
            ASSERT_NEAR(b->Samples16()[k * 320 / 960 / 2 * 2 + k % 2], k % 2 ? -5000 : 10000, 50) << k;
            ASSERT_NEAR(c->Samples16()[k], k % 2 ? -5000 : 10000, 50) << k;
        }
    }
}

}  // namespace
}  // namespace mixer
