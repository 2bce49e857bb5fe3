#include "mixer/algo/Algo.h"

#include <algorithm>

#include "mixer/algo/MixKernels.h"
#include "mixer/core/Log.h"

namespace mixer {

Algo::Algo(tAlgoID id_) : bypass(false), id(id_) {}

Algo::~Algo() {}

uint32_t Algo::GetLatencyUs() { return 0; }

int Algo::AddFrames(boost::shared_ptr<AudioFrame> dst, boost::shared_ptr<AudioFrame> src) {
    if (dst->len != src->len) {
        MIXER_LOG_W("Mixer_Algo:AddFrames:Frame len mismatch %u != %u:", dst->len, src->len);
        return -1;
    }
    if (dst->numCh != src->numCh) {
        MIXER_LOG_W("Mixer_Algo:AddFrames:numCh mismatch %u != %u:", dst->numCh, src->numCh);
        return -1;
    }
    const bool dst32 = dst->sampleSize == SAMPLE_SIZE_32;
    const bool src32 = src->sampleSize == SAMPLE_SIZE_32;
    size_t n = static_cast<size_t>(dst->len) * dst->numCh;
    // Sizes 1 and 3 are summed as 16-bit samples; never read or write past a buffer
    // that holds fewer of them than len * numCh.
    n = std::min(n, static_cast<size_t>(dst->size) / (dst32 ? 4 : 2));
    n = std::min(n, static_cast<size_t>(src->size) / (src32 ? 4 : 2));
    if (dst32) {
        if (src32) kernels::Add32(dst->Samples32(), src->Samples32(), n);
        else kernels::Add32From16(dst->Samples32(), src->Samples16(), n);
    } else {
        if (src32) kernels::AddSat16From32(dst->Samples16(), src->Samples32(), n);
        else kernels::AddSat16(dst->Samples16(), src->Samples16(), n);
    }
    UtilConcatBufId(dst->bufId, src->bufId, ' ');
    return 0;
}

}  // namespace mixer
