// The phase extraction compiled for AVX2 (with contraction into FMA off, so that the rotation and
// the modulation match the reference bit for bit).
#include <immintrin.h>
#include <sleef.h>

#include <cstdint>

#include "Psi/Kinephase/detail/KpPhaseKernel.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase::detail {

namespace {

template <bool kStream, bool kModulation>
void Row(const KpPhaseRow& row) {
  const __m256d two = _mm256_set1_pd(2.0);
  const __m256d threshold = _mm256_set1_pd(row.threshold);
  const __m256d scale = _mm256_set1_pd(row.scale);
  const __m256d noData = _mm256_set1_pd(row.noData);
  const __m128i invalidId = _mm_set1_epi32(row.invalidId);
  const __m256i lowHalves = _mm256_setr_epi32(0, 2, 4, 6, 1, 3, 5, 7);
  int c = 0;
  for (; c + 4 <= row.columns; c += 4) {
    const __m256d a = _mm256_loadu_pd(row.z + 2 * c);      // re0 im0 re1 im1
    const __m256d b = _mm256_loadu_pd(row.z + 2 * c + 4);  // re2 im2 re3 im3
    // Within each 128-bit lane: re0 re2 re1 re3 and im0 im2 im1 im3. Everything up to the outputs
    // works pixel by pixel in that order; the outputs are put back in pixel order.
    __m256d re = _mm256_unpacklo_pd(a, b);
    __m256d im = _mm256_unpackhi_pd(a, b);
    if (row.rotators) {
      const __m256d ra = _mm256_loadu_pd(row.rotators + 2 * c);
      const __m256d rb = _mm256_loadu_pd(row.rotators + 2 * c + 4);
      const __m256d cosine = _mm256_unpacklo_pd(ra, rb);
      const __m256d sine = _mm256_unpackhi_pd(ra, rb);
      const __m256d rotatedRe = _mm256_sub_pd(_mm256_mul_pd(re, cosine), _mm256_mul_pd(im, sine));
      const __m256d rotatedIm = _mm256_add_pd(_mm256_mul_pd(re, sine), _mm256_mul_pd(im, cosine));
      re = rotatedRe;
      im = rotatedIm;
      _mm256_storeu_pd(row.z + 2 * c, _mm256_unpacklo_pd(re, im));
      _mm256_storeu_pd(row.z + 2 * c + 4, _mm256_unpackhi_pd(re, im));
    }
    const __m256d m =
        _mm256_mul_pd(two, _mm256_sqrt_pd(_mm256_add_pd(_mm256_mul_pd(re, re), _mm256_mul_pd(im, im))));
    const __m256d rejected = _mm256_cmp_pd(threshold, m, _CMP_GT_OQ);
    const __m256d phase =
        _mm256_blendv_pd(_mm256_mul_pd(Sleef_atan2d4_u35avx2(im, re), scale), noData, rejected);
    const __m256d ordered = _mm256_permute4x64_pd(phase, 0xD8);
    if constexpr (kStream) {
      if constexpr (kModulation) _mm256_stream_pd(row.modulation + c, _mm256_permute4x64_pd(m, 0xD8));
      _mm256_stream_pd(row.phase + c, ordered);
    } else {
      if constexpr (kModulation) _mm256_storeu_pd(row.modulation + c, _mm256_permute4x64_pd(m, 0xD8));
      _mm256_storeu_pd(row.phase + c, ordered);
    }
    if (row.noDataIds) {
      // One 32-bit half of each 64-bit comparison result, in pixel order.
      const __m256i isNoData = _mm256_castpd_si256(_mm256_cmp_pd(ordered, noData, _CMP_GE_OQ));
      const __m128i flags = _mm256_castsi256_si128(_mm256_permutevar8x32_epi32(isNoData, lowHalves));
      const __m128i ids = _mm_andnot_si128(flags, invalidId);
      if constexpr (kStream) {
        _mm_stream_si128(reinterpret_cast<__m128i*>(row.noDataIds + c), ids);
      } else {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(row.noDataIds + c), ids);
      }
    }
  }
  if (c < row.columns) {
    KpPhaseRow tail = row;
    tail.z = row.z + 2 * c;
    tail.columns = row.columns - c;
    tail.phase = row.phase + c;
    if (row.modulation) tail.modulation = row.modulation + c;
    if (row.rotators) tail.rotators = row.rotators + 2 * c;
    if (row.noDataIds) tail.noDataIds = row.noDataIds + c;
    PhaseRowReference(tail);
  }
  // Streamed stores are weakly ordered: they are made visible before the row counts as done.
  if constexpr (kStream) _mm_sfence();
}

bool Aligned(const void* p, std::uintptr_t bytes) {
  return reinterpret_cast<std::uintptr_t>(p) % bytes == 0;
}

}  // namespace

void PhaseRowAvx2(const KpPhaseRow& row) {
  const bool stream = row.stream && Aligned(row.phase, 32) &&
                      (!row.modulation || Aligned(row.modulation, 32)) &&
                      (!row.noDataIds || Aligned(row.noDataIds, 16));
  if (row.modulation) {
    stream ? Row<true, true>(row) : Row<false, true>(row);
  } else {
    stream ? Row<true, false>(row) : Row<false, false>(row);
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase::detail
