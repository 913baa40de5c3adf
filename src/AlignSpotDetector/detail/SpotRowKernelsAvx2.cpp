// Band moments of a row eight pixels at a time (AVX2); see SpotRowKernels.h.
#include <immintrin.h>

#include <algorithm>
#include <climits>

#include "AlignSpotDetector/detail/SpotRowKernels.h"
#include "Analysis/Core/IntMatrix2D.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment::detail {

int RowMomentsAvx2(const int* v, int n, int lo, int hi, RowMomentSums& sums) {
  constexpr int kInvalid = Analysis::Core::IntWindow2D::NoData();
  // Taken when lo <= x <= min(hi, last valid value), compared as "greater than one less" (lo - 1
  // would wrap for lo = INT_MIN, where nothing is below anyway).
  const bool unbounded = lo == INT_MIN;
  const __m256i belowLow = _mm256_set1_epi32(unbounded ? lo : lo - 1);
  const __m256i high = _mm256_set1_epi32(std::min(hi, kInvalid - 1));
  const __m256i all = _mm256_set1_epi32(-1);
  __m256i count = _mm256_setzero_si256();
  __m256i sum = _mm256_setzero_si256();
  __m256i squares = _mm256_setzero_si256();
  __m256i magnitudes = _mm256_setzero_si256();
  __m256i mins = _mm256_set1_epi32(INT_MAX);
  __m256i maxs = _mm256_set1_epi32(INT_MIN);
  int i = 0;
  for (; i + 8 <= n; i += 8) {
    const __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(v + i));
    const __m256i aboveHigh = _mm256_cmpgt_epi32(x, high);
    const __m256i take = _mm256_andnot_si256(aboveHigh, unbounded ? all : _mm256_cmpgt_epi32(x, belowLow));
    const __m256i kept = _mm256_and_si256(x, take);
    count = _mm256_sub_epi32(count, take);
    mins = _mm256_min_epi32(mins, x);
    maxs = _mm256_max_epi32(maxs, x);
    const __m256i sign = _mm256_srai_epi32(kept, 31);
    sum = _mm256_add_epi64(
        sum, _mm256_add_epi64(_mm256_unpacklo_epi32(kept, sign), _mm256_unpackhi_epi32(kept, sign)));
    // abs of INT_MIN stays 0x80000000, which read unsigned is its magnitude 2^31.
    const __m256i magnitude = _mm256_abs_epi32(kept);
    magnitudes = _mm256_or_si256(magnitudes, magnitude);
    const __m256i odd = _mm256_srli_epi64(magnitude, 32);
    squares = _mm256_add_epi64(
        squares, _mm256_add_epi64(_mm256_mul_epu32(magnitude, magnitude), _mm256_mul_epu32(odd, odd)));
  }
  alignas(32) std::int32_t counts[8];
  alignas(32) std::int64_t sumLanes[4];
  alignas(32) std::uint64_t squareLanes[4];
  alignas(32) std::uint32_t ors[8];
  alignas(32) std::int32_t minLanes[8];
  alignas(32) std::int32_t maxLanes[8];
  _mm256_store_si256(reinterpret_cast<__m256i*>(minLanes), mins);
  _mm256_store_si256(reinterpret_cast<__m256i*>(maxLanes), maxs);
  _mm256_store_si256(reinterpret_cast<__m256i*>(counts), count);
  _mm256_store_si256(reinterpret_cast<__m256i*>(sumLanes), sum);
  _mm256_store_si256(reinterpret_cast<__m256i*>(squareLanes), squares);
  _mm256_store_si256(reinterpret_cast<__m256i*>(ors), magnitudes);
  for (int k = 0; k < 8; ++k) {
    sums.count += counts[k];
    sums.magnitudeBits |= ors[k];
    sums.min = std::min(sums.min, minLanes[k]);
    sums.max = std::max(sums.max, maxLanes[k]);
  }
  for (int k = 0; k < 4; ++k) {
    sums.sum += sumLanes[k];
    sums.squares += squareLanes[k];
  }
  return i;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment::detail
