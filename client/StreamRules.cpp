#include "client/StreamRules.h"

#include "client/StreamQueueName.h"
#include "mixer/core/StreamNames.h"

namespace mixer {
namespace client {

bool StreamRules::IsRecordName(const std::string& name) {
    return name == kStreamMicAsr || name == kStreamMicHfp || name == kStreamMicRaw;
}

const char* StreamRules::FormatRefusal(unsigned rate, unsigned numCh) {
    if (numCh < 1 || numCh > kMaxChannels) return "channel count out of range 1..10";
    if (rate < kMinRate || rate > kMaxRate) return "rate out of range 8000..96000 Hz";
    // A frame is 20 ms: a rate without a whole number of samples in it would play slow
    // and leave the resampler part of each frame to fill.
    if (rate % 50 != 0) return "rate does not make whole 20-ms frames";
    return nullptr;
}

const char* StreamRules::Refusal(const std::string& name, const std::string& type, unsigned rate, unsigned numCh,
                                 unsigned sampleSize) {
    if (name.empty() || name.find('/') != std::string::npos) return "no usable stream name";
    if (sampleSize != 2) return "only 16-bit samples are mixed";
    if (const char* format = FormatRefusal(rate, numCh)) return format;
    const bool record = IsRecordName(name);
    if (record && type != kTypeDataTrans) return "record streams use the dataTrans transport";
    if (!record && type != kTypeDataTrans && type != kTypeShmQ && type != kTypeShmB) return "unknown transport type";
    return nullptr;
}

}  // namespace client
}  // namespace mixer
