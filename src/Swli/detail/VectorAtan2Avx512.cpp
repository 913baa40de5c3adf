// SLEEF's 8-lane atan2, compiled for AVX-512; see VectorAtan2.h.
#include <immintrin.h>
#include <sleef.h>

#include "Swli/detail/VectorAtan2.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

void VectorAtan2Avx512(const double* y, const double* x, double* out, int count) {
  int i = 0;
  for (; i + 8 <= count; i += 8)
    _mm512_storeu_pd(out + i, Sleef_atan2d8_u35avx512f(_mm512_loadu_pd(y + i), _mm512_loadu_pd(x + i)));
  // A last four through the same function (lanes masked off), so that every value comes from one kernel.
  if (i < count) {
    const __mmask8 four = 0x0F;
    const __m512d angles = Sleef_atan2d8_u35avx512f(_mm512_maskz_loadu_pd(four, y + i),
                                                    _mm512_mask_loadu_pd(_mm512_set1_pd(1.0), four, x + i));
    _mm512_mask_storeu_pd(out + i, four, angles);
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail
