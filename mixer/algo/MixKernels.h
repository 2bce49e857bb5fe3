#pragma once

#include <cstddef>
#include <cstdint>

#include "mixer/core/Api.h"

namespace mixer {
namespace kernels {

// The per-sample loops of frame summing. Each has a plain scalar reference (the rule
// as stated, one sample at a time) beside the fast path that the library uses: SSE2 on
// x86-64, NEON when built with MIXER_NEON, and a branch-free portable loop otherwise.
// The fast paths must equal the references bit for bit; the tests compare them. The
// references are compiled without auto-vectorisation, so that the benchmarks compare
// against a loop that really handles one sample at a time.
//
// Threading: pure functions; no allocation, no locks.

// dst[i] = sumSat16(dst[i], src[i]): clamped sum, a sample at either rail stays.
MIXER_API void AddSat16Scalar(int16_t* dst, const int16_t* src, size_t n);
MIXER_API void AddSat16(int16_t* dst, const int16_t* src, size_t n);

// dst[i] = sumSat16(dst[i], src[i]) with a 32-bit addend (32-bit wrapping sum).
MIXER_API void AddSat16From32Scalar(int16_t* dst, const int32_t* src, size_t n);
MIXER_API void AddSat16From32(int16_t* dst, const int32_t* src, size_t n);

// dst[i] += src[i] sign-extended, wrapping, no clamp.
MIXER_API void Add32From16Scalar(int32_t* dst, const int16_t* src, size_t n);
MIXER_API void Add32From16(int32_t* dst, const int16_t* src, size_t n);

// dst[i] += src[i], wrapping, no clamp.
MIXER_API void Add32Scalar(int32_t* dst, const int32_t* src, size_t n);
MIXER_API void Add32(int32_t* dst, const int32_t* src, size_t n);

// The per-sample gain of a stream: s[i] = (s[i] * gain + 16384) >> 15 (Q15, rounded,
// arithmetic shift) formed in 64 bits. The 16-bit form clamps the low 32 bits of the
// result to 16 bits; the 32-bit form keeps the low 32 bits unclamped (an accumulator
// has headroom). The fast 16-bit path is exact for gains below 1 << 22 (every row of
// the gain table is); the 32-bit path for any gain.
MIXER_API void ApplyGain16Scalar(int16_t* s, uint32_t gain, size_t n);
MIXER_API void ApplyGain16(int16_t* s, uint32_t gain, size_t n);
MIXER_API void ApplyGain32Scalar(int32_t* s, uint32_t gain, size_t n);
MIXER_API void ApplyGain32(int32_t* s, uint32_t gain, size_t n);

// Which fast path this build uses: "sse2", "neon" or "portable".
MIXER_API const char* SimdPath();

}  // namespace kernels
}  // namespace mixer
