// The phase extraction compiled for AVX2 (with contraction into FMA off, so that the modulation
// matches the reference bit for bit).
#include <immintrin.h>
#include <sleef.h>

#include "Psi/Kinephase/detail/KpPhaseKernel.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase::detail {

void PhaseRowAvx2(const KpPhaseRow& row) {
  const __m256d two = _mm256_set1_pd(2.0);
  const __m256d threshold = _mm256_set1_pd(row.threshold);
  const __m256d scale = _mm256_set1_pd(row.scale);
  const __m256d noData = _mm256_set1_pd(row.noData);
  int c = 0;
  for (; c + 4 <= row.columns; c += 4) {
    const __m256d a = _mm256_loadu_pd(row.z + 2 * c);      // re0 im0 re1 im1
    const __m256d b = _mm256_loadu_pd(row.z + 2 * c + 4);  // re2 im2 re3 im3
    // unpack gives re0 re2 re1 re3; the permutation puts the pixels back in order.
    const __m256d re = _mm256_permute4x64_pd(_mm256_unpacklo_pd(a, b), 0xD8);
    const __m256d im = _mm256_permute4x64_pd(_mm256_unpackhi_pd(a, b), 0xD8);
    const __m256d m =
        _mm256_mul_pd(two, _mm256_sqrt_pd(_mm256_add_pd(_mm256_mul_pd(re, re), _mm256_mul_pd(im, im))));
    _mm256_storeu_pd(row.modulation + c, m);
    const __m256d phase = _mm256_mul_pd(Sleef_atan2d4_u35avx2(im, re), scale);
    const __m256d rejected = _mm256_cmp_pd(threshold, m, _CMP_GT_OQ);
    _mm256_storeu_pd(row.phase + c, _mm256_blendv_pd(phase, noData, rejected));
  }
  if (c < row.columns) {
    KpPhaseRow tail = row;
    tail.z = row.z + 2 * c;
    tail.columns = row.columns - c;
    tail.phase = row.phase + c;
    tail.modulation = row.modulation + c;
    PhaseRowReference(tail);
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::Kinephase::detail
