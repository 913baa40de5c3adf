// SLEEF's 8-lane sine and cosine, compiled for AVX-512; see VectorSinCos.h.
#include <immintrin.h>
#include <sleef.h>

#include "Swli/detail/VectorSinCos.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

void VectorSinCosAvx512(const double* x, double* sine, double* cosine, int count) {
  int i = 0;
  for (; i + 8 <= count; i += 8) {
    const Sleef___m512d_2 both = Sleef_sincosd8_u35avx512f(_mm512_loadu_pd(x + i));
    _mm512_storeu_pd(sine + i, both.x);
    _mm512_storeu_pd(cosine + i, both.y);
  }
  // A last four through the same function (lanes masked off), so that every value comes from one kernel.
  if (i < count) {
    const __mmask8 four = 0x0F;
    const Sleef___m512d_2 both = Sleef_sincosd8_u35avx512f(_mm512_maskz_loadu_pd(four, x + i));
    _mm512_mask_storeu_pd(sine + i, four, both.x);
    _mm512_mask_storeu_pd(cosine + i, four, both.y);
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail
