// The FDA's heights four pixels at a time with AVX2; see HeightFold.h. Compiled with
// -ffp-contract=off: every product is rounded before the sum that takes it, as in the reference.
#include <immintrin.h>

#include "Swli/detail/HeightFold.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

namespace {

// x, y and z of four consecutive records (twelve doubles from `at`), each in its own vector.
void LoadFits(const Analysis::Core::AdcPoint* at, __m256d& x, __m256d& y, __m256d& z) {
  const double* d = &at->x;
  const __m256d m0 = _mm256_loadu_pd(d);                   // x0 y0 z0 x1
  const __m256d m1 = _mm256_loadu_pd(d + 4);               // y1 z1 x2 y2
  const __m256d m2 = _mm256_loadu_pd(d + 8);               // z2 x3 y3 z3
  const __m256d p = _mm256_blend_pd(m0, m1, 0b1100);       // x0 y0 x2 y2
  const __m256d q = _mm256_permute2f128_pd(m0, m2, 0x21);  // z0 x1 z2 x3
  const __m256d r = _mm256_blend_pd(m1, m2, 0b1100);       // y1 z1 y3 z3
  x = _mm256_shuffle_pd(p, q, 0b1010);
  y = _mm256_shuffle_pd(p, r, 0b0101);
  z = _mm256_shuffle_pd(q, r, 0b1010);
}

__m256d Ceil4(__m256d v) {
  // The rounding instruction's ceiling is the library's, -0 and NaN included.
  return _mm256_round_pd(v, _MM_FROUND_TO_POS_INF | _MM_FROUND_NO_EXC);
}

}  // namespace

void FoldHeightsAvx2(const HeightFoldStep& step, std::int64_t first, std::int64_t end) {
  static_assert(sizeof(Analysis::Core::AdcPoint) == 3 * sizeof(double));
  const __m256d noData = _mm256_set1_pd(Analysis::Core::NoDataTraits<double>::Value());
  const __m256d c = _mm256_set1_pd(step.c), delta = _mm256_set1_pd(step.delta), k0 = _mm256_set1_pd(step.k0);
  const __m256d wavelength = _mm256_set1_pd(step.wavelength);
  const __m256d half = _mm256_set1_pd(step.halfWavelength);
  const __m256d minusHalf = _mm256_set1_pd(-step.halfWavelength);
  std::int64_t i = first;
  for (; i + 4 <= end; i += 4) {
    const __m256d heldCoherence = _mm256_loadu_pd(step.coherence + i);
    // A coherence height is there unless it is at or above no-data (NaN is: unordered is below).
    const __m256d there = _mm256_cmp_pd(heldCoherence, noData, _CMP_NGE_UQ);
    if (_mm256_testz_pd(there, there)) continue;
    __m256d x, y, z;
    LoadFits(step.fits + i, x, y, z);
    const __m256d coherence = _mm256_add_pd(heldCoherence, _mm256_mul_pd(c, y));
    __m256d phase = _mm256_add_pd(
        _mm256_mul_pd(z, delta), _mm256_div_pd(_mm256_mul_pd(_mm256_add_pd(_mm256_mul_pd(k0, y), x), c), k0));
    if (step.canFold) {
      // Each step only where a lane needs it: on a smooth surface most vectors need none, and a
      // step whose mask is empty would change nothing.
      const __m256d difference = _mm256_sub_pd(phase, coherence);
      const __m256d above = _mm256_cmp_pd(difference, half, _CMP_GT_OQ);
      const __m256d below = _mm256_cmp_pd(difference, minusHalf, _CMP_LT_OQ);
      if (!_mm256_testz_pd(above, above)) {
        const __m256d turns = Ceil4(_mm256_div_pd(_mm256_sub_pd(difference, half), wavelength));
        phase = _mm256_blendv_pd(phase, _mm256_sub_pd(phase, _mm256_mul_pd(wavelength, turns)), above);
      }
      if (!_mm256_testz_pd(below, below)) {
        const __m256d turns = Ceil4(_mm256_div_pd(_mm256_sub_pd(minusHalf, difference), wavelength));
        phase = _mm256_blendv_pd(phase, _mm256_add_pd(phase, _mm256_mul_pd(wavelength, turns)), below);
      }
      for (int settle = 0; settle < 4; ++settle) {
        const __m256d still = _mm256_cmp_pd(_mm256_sub_pd(phase, coherence), half, _CMP_GT_OQ);
        if (_mm256_testz_pd(still, still)) break;
        phase = _mm256_blendv_pd(phase, _mm256_sub_pd(phase, wavelength), still);
      }
      for (int settle = 0; settle < 4; ++settle) {
        const __m256d still = _mm256_cmp_pd(_mm256_sub_pd(phase, coherence), minusHalf, _CMP_LT_OQ);
        if (_mm256_testz_pd(still, still)) break;
        phase = _mm256_blendv_pd(phase, _mm256_add_pd(phase, wavelength), still);
      }
    }
    _mm256_storeu_pd(step.coherence + i, _mm256_blendv_pd(heldCoherence, coherence, there));
    _mm256_storeu_pd(step.phase + i, _mm256_blendv_pd(_mm256_loadu_pd(step.phase + i), phase, there));
  }
  FoldHeights(step, i, end);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail
