#include "mixer/algo/MixKernels.h"

#include "mixer/algo/Algo.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#define MIXER_SIMD_SSE2 1
#elif defined(MIXER_HAVE_NEON) && defined(__ARM_NEON)
#include <arm_neon.h>
#define MIXER_SIMD_NEON 1
#endif

namespace mixer {
namespace kernels {

namespace {

inline int32_t WrapAdd32(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

// Branch-free forms of the scalar rules, for loop tails and the portable path.
inline int16_t Clamp16(int32_t v) {
    v = v < -32768 ? -32768 : v;
    return static_cast<int16_t>(v > 32767 ? 32767 : v);
}
inline int16_t StickySum(int16_t a, int32_t sum) {
    const bool rail = (a == 32767) | (a == -32768);
    return rail ? a : Clamp16(sum);
}

}  // namespace

void AddSat16Scalar(int16_t* dst, const int16_t* src, size_t n) {
    for (size_t i = 0; i < n; ++i) dst[i] = Algo::sumSat16(dst[i], src[i]);
}

void AddSat16From32Scalar(int16_t* dst, const int32_t* src, size_t n) {
    for (size_t i = 0; i < n; ++i) dst[i] = Algo::sumSat16(dst[i], static_cast<int>(src[i]));
}

void Add32From16Scalar(int32_t* dst, const int16_t* src, size_t n) {
    for (size_t i = 0; i < n; ++i) dst[i] = WrapAdd32(dst[i], src[i]);
}

void Add32Scalar(int32_t* dst, const int32_t* src, size_t n) {
    for (size_t i = 0; i < n; ++i) dst[i] = WrapAdd32(dst[i], src[i]);
}

#if defined(MIXER_SIMD_SSE2)

const char* SimdPath() { return "sse2"; }

namespace {
inline __m128i Load(const void* p) { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }
inline void Store(void* p, __m128i v) { _mm_storeu_si128(static_cast<__m128i*>(p), v); }
// Lanes of a that sit at either rail keep a; the others take sum.
inline __m128i KeepRails(__m128i a, __m128i sum) {
    const __m128i rail = _mm_or_si128(_mm_cmpeq_epi16(a, _mm_set1_epi16(32767)),
                                      _mm_cmpeq_epi16(a, _mm_set1_epi16(-32768)));
    return _mm_or_si128(_mm_and_si128(rail, a), _mm_andnot_si128(rail, sum));
}
}  // namespace

void AddSat16(int16_t* dst, const int16_t* src, size_t n) {
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m128i a = Load(dst + i);
        Store(dst + i, KeepRails(a, _mm_adds_epi16(a, Load(src + i))));
    }
    for (; i < n; ++i) dst[i] = StickySum(dst[i], dst[i] + src[i]);
}

void AddSat16From32(int16_t* dst, const int32_t* src, size_t n) {
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m128i a = Load(dst + i);
        const __m128i lo = _mm_srai_epi32(_mm_unpacklo_epi16(a, a), 16);
        const __m128i hi = _mm_srai_epi32(_mm_unpackhi_epi16(a, a), 16);
        const __m128i sum = _mm_packs_epi32(_mm_add_epi32(lo, Load(src + i)),
                                            _mm_add_epi32(hi, Load(src + i + 4)));
        Store(dst + i, KeepRails(a, sum));
    }
    for (; i < n; ++i) dst[i] = StickySum(dst[i], WrapAdd32(dst[i], src[i]));
}

void Add32From16(int32_t* dst, const int16_t* src, size_t n) {
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m128i b = Load(src + i);
        const __m128i lo = _mm_srai_epi32(_mm_unpacklo_epi16(b, b), 16);
        const __m128i hi = _mm_srai_epi32(_mm_unpackhi_epi16(b, b), 16);
        Store(dst + i, _mm_add_epi32(Load(dst + i), lo));
        Store(dst + i + 4, _mm_add_epi32(Load(dst + i + 4), hi));
    }
    for (; i < n; ++i) dst[i] = WrapAdd32(dst[i], src[i]);
}

void Add32(int32_t* dst, const int32_t* src, size_t n) {
    size_t i = 0;
    for (; i + 4 <= n; i += 4) Store(dst + i, _mm_add_epi32(Load(dst + i), Load(src + i)));
    for (; i < n; ++i) dst[i] = WrapAdd32(dst[i], src[i]);
}

#elif defined(MIXER_SIMD_NEON)

const char* SimdPath() { return "neon"; }

namespace {
inline int16x8_t KeepRails(int16x8_t a, int16x8_t sum) {
    const uint16x8_t rail = vorrq_u16(vceqq_s16(a, vdupq_n_s16(32767)),
                                      vceqq_s16(a, vdupq_n_s16(-32768)));
    return vbslq_s16(rail, a, sum);
}
}  // namespace

void AddSat16(int16_t* dst, const int16_t* src, size_t n) {
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const int16x8_t a = vld1q_s16(dst + i);
        vst1q_s16(dst + i, KeepRails(a, vqaddq_s16(a, vld1q_s16(src + i))));
    }
    for (; i < n; ++i) dst[i] = StickySum(dst[i], dst[i] + src[i]);
}

void AddSat16From32(int16_t* dst, const int32_t* src, size_t n) {
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const int16x8_t a = vld1q_s16(dst + i);
        const int32x4_t lo = vaddq_s32(vmovl_s16(vget_low_s16(a)), vld1q_s32(src + i));
        const int32x4_t hi = vaddq_s32(vmovl_s16(vget_high_s16(a)), vld1q_s32(src + i + 4));
        vst1q_s16(dst + i, KeepRails(a, vcombine_s16(vqmovn_s32(lo), vqmovn_s32(hi))));
    }
    for (; i < n; ++i) dst[i] = StickySum(dst[i], WrapAdd32(dst[i], src[i]));
}

void Add32From16(int32_t* dst, const int16_t* src, size_t n) {
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const int16x8_t b = vld1q_s16(src + i);
        vst1q_s32(dst + i, vaddw_s16(vld1q_s32(dst + i), vget_low_s16(b)));
        vst1q_s32(dst + i + 4, vaddw_s16(vld1q_s32(dst + i + 4), vget_high_s16(b)));
    }
    for (; i < n; ++i) dst[i] = WrapAdd32(dst[i], src[i]);
}

void Add32(int32_t* dst, const int32_t* src, size_t n) {
    size_t i = 0;
    for (; i + 4 <= n; i += 4) vst1q_s32(dst + i, vaddq_s32(vld1q_s32(dst + i), vld1q_s32(src + i)));
    for (; i < n; ++i) dst[i] = WrapAdd32(dst[i], src[i]);
}

#else

const char* SimdPath() { return "portable"; }

// Branch-free loops that a vectorising compiler can widen on its own.
void AddSat16(int16_t* dst, const int16_t* src, size_t n) {
    for (size_t i = 0; i < n; ++i) dst[i] = StickySum(dst[i], dst[i] + src[i]);
}
void AddSat16From32(int16_t* dst, const int32_t* src, size_t n) {
    for (size_t i = 0; i < n; ++i) dst[i] = StickySum(dst[i], WrapAdd32(dst[i], src[i]));
}
void Add32From16(int32_t* dst, const int16_t* src, size_t n) {
    for (size_t i = 0; i < n; ++i) dst[i] = WrapAdd32(dst[i], src[i]);
}
void Add32(int32_t* dst, const int32_t* src, size_t n) {
    for (size_t i = 0; i < n; ++i) dst[i] = WrapAdd32(dst[i], src[i]);
}

#endif

}  // namespace kernels
}  // namespace mixer
