// Band moments of a row four pixels at a time (SSE2, every x86-64 processor) and the run-time
// choice of the widest kernel; see SpotRowKernels.h.
#include "AlignSpotDetector/detail/SpotRowKernels.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "Analysis/Core/IntMatrix2D.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment::detail {

#if defined(__SSE2__)
// Counts run in 32-bit lanes, the sum in two 64-bit lanes (the pixels sign-extended), the squares
// of the magnitudes in two 64-bit lanes (32 x 32 -> 64-bit products of the even and the odd lanes).
int RowMomentsSse2(const int* v, int n, int lo, int hi, RowMomentSums& sums) {
  constexpr int kInvalid = Analysis::Core::IntWindow2D::NoData();
  // Taken when lo <= x <= min(hi, last valid value), compared as "greater than one less" (lo - 1
  // would wrap for lo = INT_MIN, where nothing is below anyway).
  const bool unbounded = lo == INT_MIN;
  const __m128i belowLow = _mm_set1_epi32(unbounded ? lo : lo - 1);
  const __m128i high = _mm_set1_epi32(std::min(hi, kInvalid - 1));
  __m128i count = _mm_setzero_si128();
  __m128i sum = _mm_setzero_si128();
  __m128i squares = _mm_setzero_si128();
  __m128i magnitudes = _mm_setzero_si128();
  __m128i mins = _mm_set1_epi32(INT_MAX);
  __m128i maxs = _mm_set1_epi32(INT_MIN);
  int i = 0;
  for (; i + 4 <= n; i += 4) {
    const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(v + i));
    const __m128i aboveHigh = _mm_cmpgt_epi32(x, high);
    const __m128i take = unbounded ? _mm_andnot_si128(aboveHigh, _mm_set1_epi32(-1))
                                   : _mm_andnot_si128(aboveHigh, _mm_cmpgt_epi32(x, belowLow));
    const __m128i kept = _mm_and_si128(x, take);
    count = _mm_sub_epi32(count, take);
    // SSE2 has no 32-bit minimum or maximum: select by comparison.
    const __m128i lower = _mm_cmplt_epi32(x, mins);
    mins = _mm_or_si128(_mm_and_si128(lower, x), _mm_andnot_si128(lower, mins));
    const __m128i higher = _mm_cmpgt_epi32(x, maxs);
    maxs = _mm_or_si128(_mm_and_si128(higher, x), _mm_andnot_si128(higher, maxs));
    const __m128i sign = _mm_srai_epi32(kept, 31);
    sum = _mm_add_epi64(sum, _mm_add_epi64(_mm_unpacklo_epi32(kept, sign), _mm_unpackhi_epi32(kept, sign)));
    const __m128i magnitude = _mm_sub_epi32(_mm_xor_si128(kept, sign), sign);
    magnitudes = _mm_or_si128(magnitudes, magnitude);
    const __m128i odd = _mm_srli_epi64(magnitude, 32);
    squares =
        _mm_add_epi64(squares, _mm_add_epi64(_mm_mul_epu32(magnitude, magnitude), _mm_mul_epu32(odd, odd)));
  }
  alignas(16) std::int32_t counts[4];
  alignas(16) std::int64_t sumLanes[2];
  alignas(16) std::uint64_t squareLanes[2];
  alignas(16) std::uint32_t ors[4];
  alignas(16) std::int32_t minLanes[4];
  alignas(16) std::int32_t maxLanes[4];
  _mm_store_si128(reinterpret_cast<__m128i*>(minLanes), mins);
  _mm_store_si128(reinterpret_cast<__m128i*>(maxLanes), maxs);
  for (int k = 0; k < 4; ++k) {
    sums.min = std::min(sums.min, minLanes[k]);
    sums.max = std::max(sums.max, maxLanes[k]);
  }
  _mm_store_si128(reinterpret_cast<__m128i*>(counts), count);
  _mm_store_si128(reinterpret_cast<__m128i*>(sumLanes), sum);
  _mm_store_si128(reinterpret_cast<__m128i*>(squareLanes), squares);
  _mm_store_si128(reinterpret_cast<__m128i*>(ors), magnitudes);
  sums.count += static_cast<std::int64_t>(counts[0]) + counts[1] + counts[2] + counts[3];
  sums.magnitudeBits |= ors[0] | ors[1] | ors[2] | ors[3];
  sums.sum += sumLanes[0] + sumLanes[1];
  sums.squares += static_cast<SpotUInt128>(squareLanes[0]) + squareLanes[1];
  return i;
}
#else
// No vector unit known here: the caller sums the whole row pixel by pixel.
int RowMomentsSse2(const int*, int, int, int, RowMomentSums&) {
  return 0;
}
#endif

RowMomentsFunction SelectRowMomentsFunction() {
#if defined(__x86_64__) || defined(__i386__)
  const char* cap = std::getenv("QUARN_SPOT_ISA");
  const bool allowAvx2 = !cap || std::strcmp(cap, "sse2") != 0;
  __builtin_cpu_init();
  if (allowAvx2 && __builtin_cpu_supports("avx2")) return &RowMomentsAvx2;
#endif
  return &RowMomentsSse2;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment::detail
