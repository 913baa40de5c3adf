// The fringe-order step four pixels at a time with AVX2; see FringeOrders.h. Compiled with
// -ffp-contract=off: offset - order x wavelength must round the product before the subtraction, as
// the reference does, or the residual (and the pixels rejected on it) could change.
#include <immintrin.h>

#include "Analysis/Core/NoData.h"
#include "Swli/detail/FringeOrders.h"
#include "Swli/detail/Rounding.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

namespace {

// RoundHalfAway of four values: the truncation (the reference's conversion through a 64-bit integer
// gives the same value below 2^52, and the sign is restored at the end either way), one up or down
// by the fraction, the sign of x; magnitudes from 2^52, infinities and NaN are returned as they are.
__m256d RoundHalfAway4(__m256d x) {
  const __m256d sign = _mm256_set1_pd(-0.0);
  const __m256d one = _mm256_set1_pd(1.0);
  const __m256d whole = _mm256_cmp_pd(_mm256_andnot_pd(sign, x), _mm256_set1_pd(kWholeFrom), _CMP_NLT_UQ);
  const __m256d t = _mm256_round_pd(x, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
  const __m256d fraction = _mm256_sub_pd(x, t);
  const __m256d up = _mm256_and_pd(_mm256_cmp_pd(fraction, _mm256_set1_pd(0.5), _CMP_GE_OQ), one);
  const __m256d down = _mm256_and_pd(_mm256_cmp_pd(fraction, _mm256_set1_pd(-0.5), _CMP_LE_OQ), one);
  const __m256d rounded = _mm256_sub_pd(_mm256_add_pd(t, up), down);
  const __m256d signed_ = _mm256_or_pd(_mm256_andnot_pd(sign, rounded), _mm256_and_pd(sign, x));
  return _mm256_blendv_pd(signed_, x, whole);
}

}  // namespace

void ChooseFringeOrdersAvx2(const FringeOrderStep& step, std::int64_t first, std::int64_t end) {
  const __m256d noData = _mm256_set1_pd(Analysis::Core::NoDataTraits<double>::Value());
  const __m256d sign = _mm256_set1_pd(-0.0);
  const __m256d gap = _mm256_set1_pd(step.gap);
  const __m256d wavelength = _mm256_set1_pd(step.wavelength);
  const __m256d limit = _mm256_set1_pd(step.limit);
  std::int64_t i = first;
  for (; i + 4 <= end; i += 4) {
    const __m256d coherence = _mm256_loadu_pd(step.coherence + i);
    const __m256d phase = _mm256_loadu_pd(step.phase + i);
    // A height is there unless it is at or above no-data (NaN is there: unordered counts as below).
    const __m256d both = _mm256_and_pd(_mm256_cmp_pd(coherence, noData, _CMP_NGE_UQ),
                                       _mm256_cmp_pd(phase, noData, _CMP_NGE_UQ));
    if (_mm256_testz_pd(both, both)) continue;
    const __m256d offset = _mm256_sub_pd(_mm256_sub_pd(phase, coherence), gap);
    const __m256d order = RoundHalfAway4(_mm256_div_pd(offset, wavelength));
    const __m256d whole = _mm256_mul_pd(order, wavelength);
    const __m256d residual = _mm256_sub_pd(offset, whole);
    const __m256d rejected = _mm256_cmp_pd(_mm256_andnot_pd(sign, residual), limit, _CMP_GT_OQ);
    const __m256d height = _mm256_blendv_pd(_mm256_sub_pd(phase, whole), noData, rejected);
    _mm256_storeu_pd(step.surface + i, _mm256_blendv_pd(_mm256_loadu_pd(step.surface + i), height, both));
  }
  ChooseFringeOrders(step, i, end);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail
