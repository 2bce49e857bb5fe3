#include "host/AlgoChannelMap.h"

#include <cstring>

namespace mixer {
namespace host {

namespace {

template <typename T>
void Map(const T* in, T* out, uint32_t len, unsigned inCh, unsigned outCh) {
    for (uint32_t i = 0; i < len; ++i, in += inCh, out += outCh) {
        if (outCh == 1) {
            int64_t sum = 0;
            for (unsigned c = 0; c < inCh; ++c) sum += in[c];
            out[0] = static_cast<T>(sum / static_cast<int64_t>(inCh));
        } else {
            for (unsigned c = 0; c < outCh; ++c) out[c] = in[c % inCh];
        }
    }
}

}  // namespace

AlgoChannelMap::AlgoChannelMap(unsigned inCh, unsigned outCh)
    : Algo(kId), inCh_(inCh), outCh_(outCh) {}

boost::shared_ptr<AudioFrame> AlgoChannelMap::Process(boost::shared_ptr<AudioFrame> frame) {
    if (!frame || bypass || frame->numCh != inCh_ || inCh_ == outCh_ || inCh_ == 0) return frame;
    boost::shared_ptr<AudioFrame> out(new AudioFrame(frame->sampleSize, frame->rate, outCh_, frame->lenMs));
    std::memcpy(out->bufId, frame->bufId, sizeof(out->bufId));
    uint32_t len = std::min(frame->len, out->len);
    if (frame->sampleSize == SAMPLE_SIZE_32)
        Map(frame->Samples32(), out->Samples32(), len, inCh_, outCh_);
    else
        Map(frame->Samples16(), out->Samples16(), len, inCh_, outCh_);
    return out;
}

}  // namespace host
}  // namespace mixer
