#include "mixer/algo/MixKernels.h"

#include "mixer/algo/Algo.h"

#if defined(MIXER_PORTABLE_KERNELS)
// The portable loops only, whatever the target offers: the build that tests them.
#elif defined(__SSE2__)
#include <emmintrin.h>
#define MIXER_SIMD_SSE2 1
#elif defined(MIXER_HAVE_NEON) && defined(__ARM_NEON)
#include <arm_neon.h>
#define MIXER_SIMD_NEON 1
#endif

// The scalar references must stay one sample at a time even at -O2/-O3, or the
// benchmarks would compare the fast paths against a loop the compiler widened itself.
#if defined(__clang__)
#define MIXER_SCALAR_FN
#define MIXER_SCALAR_LOOP _Pragma("clang loop vectorize(disable) interleave(disable)")
#elif defined(__GNUC__)
#define MIXER_SCALAR_FN __attribute__((optimize("no-tree-vectorize")))
#define MIXER_SCALAR_LOOP
#else
#define MIXER_SCALAR_FN
#define MIXER_SCALAR_LOOP
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

// (sample * gain + 16384) >> 15 in 64 bits, the shift arithmetic.
inline int64_t GainProduct(int32_t sample, uint32_t gain) {
    return (static_cast<int64_t>(sample) * static_cast<int64_t>(gain) + 16384) >> 15;
}
inline int32_t Low32(int64_t v) { return static_cast<int32_t>(static_cast<uint32_t>(v)); }

// The 16-bit gain split as gain = high * 32768 + low with low < 32768: then
// (s * gain + 16384) >> 15 == s * high + ((s * low + 16384) >> 15) exactly, and for
// gains below 1 << 22 both terms and their sum fit 32 bits.
inline int16_t GainHigh(uint32_t gain) { return static_cast<int16_t>(gain >> 15); }
inline int16_t GainLow(uint32_t gain) { return static_cast<int16_t>(gain & 0x7FFF); }

}  // namespace

MIXER_SCALAR_FN void AddSat16Scalar(int16_t* dst, const int16_t* src, size_t n) {
    MIXER_SCALAR_LOOP
    for (size_t i = 0; i < n; ++i) dst[i] = Algo::sumSat16(dst[i], src[i]);
}

MIXER_SCALAR_FN void AddSat16From32Scalar(int16_t* dst, const int32_t* src, size_t n) {
    MIXER_SCALAR_LOOP
    for (size_t i = 0; i < n; ++i) dst[i] = Algo::sumSat16(dst[i], static_cast<int>(src[i]));
}

MIXER_SCALAR_FN void Add32From16Scalar(int32_t* dst, const int16_t* src, size_t n) {
    MIXER_SCALAR_LOOP
    for (size_t i = 0; i < n; ++i) dst[i] = WrapAdd32(dst[i], src[i]);
}

MIXER_SCALAR_FN void Add32Scalar(int32_t* dst, const int32_t* src, size_t n) {
    MIXER_SCALAR_LOOP
    for (size_t i = 0; i < n; ++i) dst[i] = WrapAdd32(dst[i], src[i]);
}

MIXER_SCALAR_FN void ApplyGain16Scalar(int16_t* s, uint32_t gain, size_t n) {
    MIXER_SCALAR_LOOP
    for (size_t i = 0; i < n; ++i) s[i] = Algo::saturate16(Low32(GainProduct(s[i], gain)));
}

MIXER_SCALAR_FN void ApplyGain32Scalar(int32_t* s, uint32_t gain, size_t n) {
    MIXER_SCALAR_LOOP
    for (size_t i = 0; i < n; ++i) s[i] = Low32(GainProduct(s[i], gain));
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
// All ones in the lanes of a at either rail: a ^ (a >> 15) folds -32768 onto 32767.
inline __m128i RailMask(__m128i a) {
    return _mm_cmpeq_epi16(_mm_xor_si128(a, _mm_srai_epi16(a, 15)), _mm_set1_epi16(32767));
}
// The sticky sum: a rail lane adds 0 and so keeps its value through the saturating add.
inline __m128i StickyAdd(__m128i a, __m128i b) {
    return _mm_adds_epi16(a, _mm_andnot_si128(RailMask(a), b));
}
}  // namespace

void AddSat16(int16_t* dst, const int16_t* src, size_t n) {
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {  // two independent vectors per pass
        const __m128i a0 = Load(dst + i), a1 = Load(dst + i + 8);
        const __m128i b0 = Load(src + i), b1 = Load(src + i + 8);
        Store(dst + i, StickyAdd(a0, b0));
        Store(dst + i + 8, StickyAdd(a1, b1));
    }
    if (i + 8 <= n) {
        Store(dst + i, StickyAdd(Load(dst + i), Load(src + i)));
        i += 8;
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

namespace {

// (s * low + 16384) >> 15 for 0 <= low < 32768 in 16-bit lanes, exactly: with m = 2 * low
// the rounded shift is the high half of s * m plus the top bit of its low half. m is
// taken as a signed 16-bit value, so when low >= 16384 the multiplier is m - 65536 and
// the high half comes out s too small: kAddBack adds it back.
template <bool kAddBack>
inline __m128i ScaleLow(__m128i v, __m128i m) {
    __m128i t = _mm_add_epi16(_mm_mulhi_epi16(v, m), _mm_srli_epi16(_mm_mullo_epi16(v, m), 15));
    return kAddBack ? _mm_add_epi16(t, v) : t;
}

// Gains below 65536: high is 0 (t alone fits 16 bits) or 1 (s + t, clamped by the
// saturating add, equals the clamp of the exact sum).
template <bool kAddBack, bool kHighOne>
void ApplyGainNarrow(int16_t* s, uint32_t gain, size_t n) {
    const __m128i m = _mm_set1_epi16(static_cast<int16_t>(static_cast<uint16_t>(GainLow(gain) * 2)));
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m128i v0 = Load(s + i), v1 = Load(s + i + 8);
        __m128i r0 = ScaleLow<kAddBack>(v0, m), r1 = ScaleLow<kAddBack>(v1, m);
        if (kHighOne) {
            r0 = _mm_adds_epi16(v0, r0);
            r1 = _mm_adds_epi16(v1, r1);
        }
        Store(s + i, r0);
        Store(s + i + 8, r1);
    }
    for (; i + 8 <= n; i += 8) {
        const __m128i v = Load(s + i);
        const __m128i r = ScaleLow<kAddBack>(v, m);
        Store(s + i, kHighOne ? _mm_adds_epi16(v, r) : r);
    }
    for (; i < n; ++i) s[i] = Algo::saturate16(Low32(GainProduct(s[i], gain)));
}

// Any gain below 1 << 22: madd of the pairs (s, 1) with (low, 16384) gives
// s * low + 16384, and with (high, 0) gives s * high: one unpack feeds both products.
void ApplyGainWide(int16_t* s, uint32_t gain, size_t n) {
    const __m128i ones = _mm_set1_epi16(1);
    const __m128i lowRound = _mm_set1_epi32(static_cast<int32_t>(
        static_cast<uint32_t>(static_cast<uint16_t>(GainLow(gain))) | (16384u << 16)));
    const __m128i high = _mm_set1_epi32(static_cast<uint16_t>(GainHigh(gain)));
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m128i v = Load(s + i);
        const __m128i lo = _mm_unpacklo_epi16(v, ones);
        const __m128i hi = _mm_unpackhi_epi16(v, ones);
        const __m128i rlo = _mm_add_epi32(_mm_srai_epi32(_mm_madd_epi16(lo, lowRound), 15),
                                          _mm_madd_epi16(lo, high));
        const __m128i rhi = _mm_add_epi32(_mm_srai_epi32(_mm_madd_epi16(hi, lowRound), 15),
                                          _mm_madd_epi16(hi, high));
        Store(s + i, _mm_packs_epi32(rlo, rhi));
    }
    for (; i < n; ++i) s[i] = Algo::saturate16(Low32(GainProduct(s[i], gain)));
}

}  // namespace

void ApplyGain16(int16_t* s, uint32_t gain, size_t n) {
    // The form is chosen once per call; every row up to +6 dB takes a narrow one.
    const bool addBack = GainLow(gain) >= 16384;
    switch (gain >> 15) {
        case 0:
            return addBack ? ApplyGainNarrow<true, false>(s, gain, n)
                           : ApplyGainNarrow<false, false>(s, gain, n);
        case 1:
            return addBack ? ApplyGainNarrow<true, true>(s, gain, n)
                           : ApplyGainNarrow<false, true>(s, gain, n);
        default:
            return ApplyGainWide(s, gain, n);
    }
}

namespace {
// Four samples: SSE2 multiplies only unsigned 32 x 32 -> 64 (even lanes), so the sample is
// taken biased, u = s + 2^31. Then s * gain = u * gain - gain * 2^31, a multiple of 2^15,
// and (s * gain + 16384) >> 15 = ((u * gain + 16384) >> 15) - gain * 2^16 exactly; in the
// low 32 bits kept, the correction is one subtraction of gain << 16 for every lane.
inline __m128i Gain32x4(__m128i v, __m128i g, __m128i off) {
    const __m128i u = _mm_xor_si128(v, _mm_set1_epi32(INT32_MIN));
    const __m128i round = _mm_set_epi32(0, 16384, 0, 16384), low = _mm_set_epi32(0, -1, 0, -1);
    const __m128i even = _mm_add_epi64(_mm_mul_epu32(u, g), round);
    const __m128i odd = _mm_add_epi64(_mm_mul_epu32(_mm_srli_epi64(u, 32), g), round);
    // Bits 15..46 of each product: the even ones down into the low half, the odd ones up
    // into the high half.
    const __m128i r = _mm_or_si128(_mm_and_si128(_mm_srli_epi64(even, 15), low),
                                   _mm_andnot_si128(low, _mm_slli_epi64(odd, 17)));
    return _mm_sub_epi32(r, off);
}
}  // namespace

void ApplyGain32(int32_t* s, uint32_t gain, size_t n) {
    const __m128i g = _mm_set1_epi32(static_cast<int32_t>(gain));
    const __m128i off = _mm_set1_epi32(static_cast<int32_t>(gain << 16));
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {  // two independent vectors per pass
        const __m128i v0 = Load(s + i), v1 = Load(s + i + 4);
        Store(s + i, Gain32x4(v0, g, off));
        Store(s + i + 4, Gain32x4(v1, g, off));
    }
    if (i + 4 <= n) {
        Store(s + i, Gain32x4(Load(s + i), g, off));
        i += 4;
    }
    for (; i < n; ++i) s[i] = Low32(GainProduct(s[i], gain));
}

#elif defined(MIXER_SIMD_NEON)

const char* SimdPath() { return "neon"; }

namespace {
inline int16x8_t KeepRails(int16x8_t a, int16x8_t sum) {
    const uint16x8_t rail = vorrq_u16(vceqq_s16(a, vdupq_n_s16(32767)),
                                      vceqq_s16(a, vdupq_n_s16(-32768)));
    return vbslq_s16(rail, a, sum);
}
// The sticky sum: a ^ (a >> 15) folds -32768 onto 32767, and a rail lane adds 0, which
// keeps its value through the saturating add.
inline int16x8_t StickyAdd(int16x8_t a, int16x8_t b) {
    const uint16x8_t rail = vceqq_s16(veorq_s16(a, vshrq_n_s16(a, 15)), vdupq_n_s16(32767));
    return vqaddq_s16(a, vbicq_s16(b, vreinterpretq_s16_u16(rail)));
}
}  // namespace

void AddSat16(int16_t* dst, const int16_t* src, size_t n) {
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {  // two independent vectors per pass
        const int16x8_t a0 = vld1q_s16(dst + i), a1 = vld1q_s16(dst + i + 8);
        const int16x8_t b0 = vld1q_s16(src + i), b1 = vld1q_s16(src + i + 8);
        vst1q_s16(dst + i, StickyAdd(a0, b0));
        vst1q_s16(dst + i + 8, StickyAdd(a1, b1));
    }
    for (; i + 8 <= n; i += 8) vst1q_s16(dst + i, StickyAdd(vld1q_s16(dst + i), vld1q_s16(src + i)));
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

namespace {

// Gains below 65536. vqrdmulh is (2 * s * low + 32768) >> 16, which is
// (s * low + 16384) >> 15; it saturates only for -32768 * -32768, and low is never
// negative. A gain of 1 and more adds s itself with a saturating add, which is the clamp
// of the exact sum.
template <bool kHighOne>
size_t ApplyGainNarrow(int16_t* s, uint32_t gain, size_t n) {
    const int16x8_t low = vdupq_n_s16(GainLow(gain));
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const int16x8_t v = vld1q_s16(s + i);
        const int16x8_t t = vqrdmulhq_s16(v, low);
        vst1q_s16(s + i, kHighOne ? vqaddq_s16(v, t) : t);
    }
    return i;
}

size_t ApplyGainWide(int16_t* s, uint32_t gain, size_t n) {
    const int16x4_t low = vdup_n_s16(GainLow(gain));
    const int16x4_t high = vdup_n_s16(GainHigh(gain));
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const int16x8_t v = vld1q_s16(s + i);
        const int16x4_t a = vget_low_s16(v), b = vget_high_s16(v);
        // vrshrq_n_s32(x, 15) is (x + 16384) >> 15 without intermediate overflow.
        const int32x4_t ra = vmlal_s16(vrshrq_n_s32(vmull_s16(a, low), 15), a, high);
        const int32x4_t rb = vmlal_s16(vrshrq_n_s32(vmull_s16(b, low), 15), b, high);
        vst1q_s16(s + i, vcombine_s16(vqmovn_s32(ra), vqmovn_s32(rb)));
    }
    return i;
}

}  // namespace

void ApplyGain16(int16_t* s, uint32_t gain, size_t n) {
    // The form is chosen once per call; every row up to +6 dB takes a narrow one.
    const uint32_t high = gain >> 15;
    size_t i = high == 0   ? ApplyGainNarrow<false>(s, gain, n)
               : high == 1 ? ApplyGainNarrow<true>(s, gain, n)
                           : ApplyGainWide(s, gain, n);
    for (; i < n; ++i) s[i] = Algo::saturate16(Low32(GainProduct(s[i], gain)));
}

void ApplyGain32(int32_t* s, uint32_t gain, size_t n) {
    if (gain > 0x7FFFFFFFu) {  // beyond the signed multiply; never a table row
        ApplyGain32Scalar(s, gain, n);
        return;
    }
    const int32x2_t g = vdup_n_s32(static_cast<int32_t>(gain));
    size_t i = 0;
    for (; i + 4 <= n; i += 4) {
        const int32x4_t v = vld1q_s32(s + i);
        // Rounding shift then narrowing keeps the low 32 bits, as the rule wants.
        const int32x2_t a = vrshrn_n_s64(vmull_s32(vget_low_s32(v), g), 15);
        const int32x2_t b = vrshrn_n_s64(vmull_s32(vget_high_s32(v), g), 15);
        vst1q_s32(s + i, vcombine_s32(a, b));
    }
    for (; i < n; ++i) s[i] = Low32(GainProduct(s[i], gain));
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
void ApplyGain16(int16_t* s, uint32_t gain, size_t n) {
    const int32_t low = GainLow(gain), high = GainHigh(gain);
    for (size_t i = 0; i < n; ++i) s[i] = Clamp16(s[i] * high + ((s[i] * low + 16384) >> 15));
}
void ApplyGain32(int32_t* s, uint32_t gain, size_t n) {
    for (size_t i = 0; i < n; ++i) s[i] = Low32(GainProduct(s[i], gain));
}

#endif

}  // namespace kernels
}  // namespace mixer
