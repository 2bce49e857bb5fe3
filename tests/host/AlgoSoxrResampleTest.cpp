#include <gtest/gtest.h>
#include <cmath>
#include "host/AlgoSoxrResample.h"
#include "mixer/algo/AlgoResample.h"
namespace mixer {
namespace {
using host::AlgoSoxrResample;
using Frame = boost::shared_ptr<AudioFrame>;

// 30 frames of input from sample(n) through r; the output from frame from on, and frames
// that were not new ones of the output rate counted in odd.
template <typename F>
std::vector<double> Pass(Algo& r, unsigned in, unsigned out, F sample, int& odd, int from = 20) {
    std::vector<double> y;
    for (int k = 0, n = 0; k < 30; ++k) {
        Frame f(new AudioFrame(SAMPLE_SIZE_16, in, 1, 20)), o;
        for (uint32_t i = 0; i < f->len; ++i, ++n) f->Samples16()[i] = static_cast<int16_t>(sample(n));
        std::snprintf(f->bufId, sizeof(f->bufId), "c:%d", k);
        o = r.Process(f);
        odd += o == f || o->len != out / 50 || o->rate != out || std::string(o->bufId) != f->bufId;
        for (uint32_t i = 0; k >= from && i < o->len; ++i) y.push_back(o->Samples16()[i]);
    }
    return y;
}

// A 20000-peak tone of hz: its gain through r in dB, and the level of all else the output
// holds (aliases, images, rounding) in dB below the input tone's.
struct Tone { double gainDb, restDb; };
Tone Measure(Algo& r, unsigned in, unsigned out, double hz, int& odd) {
    const double a = 20000, w = 2 * M_PI * hz;
    const std::vector<double> y = Pass(r, in, out, [&](int n) { return std::lrint(a * std::sin(w * n / in)); }, odd);
    double c = 0, s = 0, rest = 0;
    const bool heard = hz < out / 2.0;  // else nothing of it belongs in the output
    for (size_t i = 0; heard && i < y.size(); ++i) c += y[i] * std::cos(w * i / out), s += y[i] * std::sin(w * i / out);
    c *= 2.0 / y.size(), s *= 2.0 / y.size();
    for (size_t i = 0; i < y.size(); ++i) rest += std::pow(y[i] - c * std::cos(w * i / out) - s * std::sin(w * i / out), 2);
    return {20 * std::log10(std::hypot(c, s) / a + 1e-12), 10 * std::log10(rest / y.size() / (a * a / 2) + 1e-30)};
}

TEST(AlgoSoxrResampleTest, TonesPassAtLeastAsCleanlyAsThroughSpeexAtQualitySeven) {
    const unsigned pairs[][2] = {{44100, 48000}, {48000, 16000}, {16000, 48000}, {48000, 44100}, {22050, 48000}};
    // Fractions of the lower rate's Nyquist frequency: passband, band edge, stop band.
    for (const auto& p : pairs)
        for (double at : {0.1, 0.45, 0.85, 0.95, 1.1, 1.6}) {
            const double hz = at * std::min(p[0], p[1]) / 2;
            if (hz >= p[0] / 2.0) continue;
            SCOPED_TRACE(testing::Message() << p[0] << " -> " << p[1] << " Hz, tone " << hz);
            int odd = 0;
            AlgoSoxrResample soxr(1, p[0], p[1]);
            AlgoResample speex(1, p[0], p[1]);
            const Tone x = Measure(soxr, p[0], p[1], hz, odd), ref = Measure(speex, p[0], p[1], hz, odd);
            EXPECT_EQ(odd, 0);
            if (at < 0.9) {  // as flat and as clean
                EXPECT_LE(std::abs(x.gainDb), std::abs(ref.gainDb) + 0.01);
                EXPECT_LE(x.restDb, ref.restDb + 1);
            } else if (at < 1) {  // as wide
                EXPECT_GE(x.gainDb, ref.gainDb);
            } else {  // as deep
                EXPECT_LE(x.restDb, std::max(ref.restDb, -100.0));
            }
        }
}

TEST(AlgoSoxrResampleTest, AStepArrivesAfterTheLatencyFigureWithoutGapsAndUnusableInputPassesUnchanged) {
    for (const auto& p : {std::make_pair(44100u, 48000u), std::make_pair(16000u, 48000u), std::make_pair(8000u, 48000u),
                          std::make_pair(48000u, 16000u), std::make_pair(22050u, 48000u)}) {
        SCOPED_TRACE(testing::Message() << p.first << " -> " << p.second);
        AlgoSoxrResample r(1, p.first, p.second);
        int odd = 0, at = -1;
        const int step = 10 * p.first / 50;  // 200 ms in
        const std::vector<double> y = Pass(r, p.first, p.second, [&](int n) { return n >= step ? 10000 : 0; }, odd, 0);
        for (size_t i = 0; i < y.size() && at < 0; ++i) at = y[i] > 5000 ? int(i) : -1;
        ASSERT_GE(at, 0);
        const double delayUs = at * 1e6 / p.second - 200000;
        EXPECT_NEAR(delayUs, r.GetLatencyUs(), 1000);
        EXPECT_EQ(odd, 0);
        for (size_t i = at + p.second / 100; i < y.size(); ++i) ASSERT_NEAR(y[i], 10000, 30) << "gap at " << i;
    }
    AlgoSoxrResample inert(0, 44100, 48000), ok(2, 44100, 48000);
    Frame f(new AudioFrame(SAMPLE_SIZE_16, 44100, 2)), wide(new AudioFrame(SAMPLE_SIZE_32, 44100, 2));
    EXPECT_TRUE(inert.Process(f) == f && ok.Process(wide) == wide && inert.GetLatencyUs() == 0);
    ok.bypass = true;
    EXPECT_TRUE(ok.Process(f) == f && ok.GetLatencyUs() == 0);
}
}  // namespace
}  // namespace mixer
