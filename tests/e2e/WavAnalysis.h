#pragma once

#include <sndfile.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace mixer {
namespace test {

// A WAV file read whole, first channel only, for level checks of the daemon's output.
struct WavTrack {
    int rate = 0;
    int channels = 0;
    std::vector<int16_t> left;

    bool Load(const std::string& path) {
        SF_INFO info = SF_INFO();
        SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
        if (!f) return false;
        rate = info.samplerate;
        channels = info.channels;
        std::vector<int16_t> all(static_cast<size_t>(info.frames * info.channels));
        sf_readf_short(f, all.data(), info.frames);
        sf_close(f);
        left.resize(static_cast<size_t>(info.frames));
        for (size_t i = 0; i < left.size(); ++i) left[i] = all[i * channels];
        return true;
    }

    // Amplitude of the component at freq (Goertzel) in samples [from, from + n).
    double ToneAmplitude(size_t from, size_t n, double freq) const {
        double k = 2 * std::cos(2 * M_PI * freq / rate), s1 = 0, s2 = 0;
        for (size_t i = from; i < from + n && i < left.size(); ++i) {
            double s0 = left[i] + k * s1 - s2;
            s2 = s1;
            s1 = s0;
        }
        double power = s1 * s1 + s2 * s2 - k * s1 * s2;
        return 2 * std::sqrt(std::max(power, 0.0)) / n;
    }

    // Largest difference between neighbouring samples in [from, to).
    int MaxStep(size_t from, size_t to, size_t* where = nullptr) const {
        int best = 0;
        for (size_t i = std::max<size_t>(from, 1); i < to && i < left.size(); ++i) {
            int d = std::abs(left[i] - left[i - 1]);
            if (d > best) {
                best = d;
                if (where) *where = i;
            }
        }
        return best;
    }
};

inline double Db(double ratio) { return 20 * std::log10(ratio); }

// Writes a sine with 10-ms fades at both ends (so the source itself has no step).
inline bool WriteSine(const std::string& path, int rate, int channels, double freq, double amplitude,
                      double seconds) {
    SF_INFO info = SF_INFO();
    info.samplerate = rate;
    info.channels = channels;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    if (!f) return false;
    size_t n = static_cast<size_t>(seconds * rate), fade = static_cast<size_t>(rate / 100);
    std::vector<int16_t> s(n * channels);
    for (size_t i = 0; i < n; ++i) {
        double g = 1;
        if (i < fade) g = double(i) / fade;
        if (n - i < fade) g = double(n - i) / fade;
        int16_t v = static_cast<int16_t>(std::lround(g * amplitude * std::sin(2 * M_PI * freq * i / rate)));
        for (int c = 0; c < channels; ++c) s[i * channels + c] = v;
    }
    sf_writef_short(f, s.data(), static_cast<sf_count_t>(n));
    sf_close(f);
    return true;
}

}  // namespace test
}  // namespace mixer
