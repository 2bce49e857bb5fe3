#pragma once

// What every benchmark of the audio path works on: one 20-ms period of 48-kHz stereo,
// filled with noise that stays clear of the rails.

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace mixer {
namespace bench {

const unsigned kRate = 48000;
const unsigned kChannels = 2;
const unsigned kPeriodMs = 20;
const size_t kSamples = kRate / 1000 * kPeriodMs * kChannels;  // 1920 interleaved samples
const double kPeriodSeconds = kPeriodMs / 1000.0;

// Noise of about 14 bits (16-bit samples) or 24 bits (32-bit samples): a few decibels
// of gain and a few dozen sums stay in range.
template <typename T>
std::vector<T> Noise(unsigned seed, size_t n = kSamples) {
    std::mt19937 rng(seed);
    std::vector<T> v(n);
    for (T& x : v) x = static_cast<T>(static_cast<int32_t>(rng()) >> (sizeof(T) == 2 ? 18 : 8));
    return v;
}

}  // namespace bench
}  // namespace mixer
