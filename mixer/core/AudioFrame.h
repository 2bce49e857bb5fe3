#pragma once

#include <cstdint>
#include <cstring>

#include "mixer/core/Api.h"
#include "mixer/core/Log.h"

namespace mixer {

// Bytes per sample of one channel: 2 is signed 16-bit (clients and the output), 4 is a
// signed 32-bit accumulator for a wide mix.
enum tSampleSize : uint32_t {
    SAMPLE_SIZE_16 = 2,
    SAMPLE_SIZE_32 = 4,
};

static const unsigned kBufIdLen = 150;

// Appends src to the 150-byte trace string dst, separated by sep; returns dst, or null
// when src is empty and nothing changed.
MIXER_API char* UtilConcatBufId(char* dst, char* src, char sep);

// One period of interleaved PCM and the trace of the client buffers mixed into it.
// Always held by boost::shared_ptr. Out-of-range formats are replaced by defaults with a
// warning, never refused.
//
// Threading: a frame is owned by whichever engine thread holds it; it has no lock.
// Construction allocates the sample buffer (the only allocation).
class MIXER_API AudioFrame {
public:
    AudioFrame(unsigned sampleSize_, unsigned rate_, unsigned numCh_, unsigned lenMs_ = 20)
        : sampleSize(sampleSize_), rate(rate_), numCh(numCh_), lenMs(lenMs_) {
        if (rate == 0 || rate > 96000) {
            MIXER_LOG_W("AudioFrame:AudioFrame:rate %u -> %u:", rate, 48000u);
            rate = 48000;
        }
        if (numCh == 0 || numCh > 10) {
            MIXER_LOG_W("AudioFrame:AudioFrame:numCh %u -> %u:", numCh, 1u);
            numCh = 1;
        }
        if (lenMs == 0 || lenMs > 100) {
            MIXER_LOG_W("AudioFrame:AudioFrame:Frame len in ms %u -> %u:", lenMs, 20u);
            lenMs = 20;
        }
        if (sampleSize == 0 || sampleSize > 4) {
            // Same text as the rate check on purpose: only the numbers tell them apart.
            MIXER_LOG_W("AudioFrame:AudioFrame:rate %u -> %u:", sampleSize, 2u);
            sampleSize = 2;
        }
        // The byte count is divided once from the full product; it can exceed
        // len * numCh * sampleSize at rates that do not divide into milliseconds.
        size = allocSize = sampleSize * numCh * rate * lenMs / 1000;
        data = new char[size];
        len = rate * lenMs / 1000;
        std::memset(bufId, 0, sizeof(bufId));
    }

    AudioFrame(const AudioFrame& other)
        : sampleSize(other.sampleSize), rate(other.rate), numCh(other.numCh),
          lenMs(other.lenMs), len(other.len), size(other.size), data(new char[other.size]),
          allocSize(other.allocSize) {
        std::memcpy(data, other.data, size);
        std::memcpy(bufId, other.bufId, sizeof(bufId));
    }

    AudioFrame& operator=(const AudioFrame&) = delete;

    ~AudioFrame() { delete[] data; }

    int16_t* Samples16() { return reinterpret_cast<int16_t*>(data); }
    int32_t* Samples32() { return reinterpret_cast<int32_t*>(data); }

    uint32_t sampleSize;  // a tSampleSize value, 1..4
    uint32_t rate;        // Hz, 1..96000
    uint32_t numCh;       // 1..10
    uint32_t lenMs;       // 1..100
    uint32_t len;         // samples per channel: rate * lenMs / 1000
    uint32_t size;        // valid bytes in data
    char* data;           // owned, size bytes, not cleared at construction
    char bufId[kBufIdLen];
    uint32_t allocSize;   // bytes allocated for data
};

}  // namespace mixer
