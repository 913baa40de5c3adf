// The block path compiled for AVX512; see PsiBlockKernelBody.inc.
#include <immintrin.h>
#include <sleef.h>

#include <cstdint>

#include "Psi/detail/PsiBlockKernel.h"

namespace {

// atan2 of `count` pairs, 8 at a time with SLEEF's 3.5-ulp kernel. The tail goes through the same
// kernel on a padded copy, so that a pixel's phase never depends on where a block or a thread's
// range happens to end (libm's atan2 may differ from SLEEF's by an ulp).
void VectorAtan2(const double* y, const double* x, double* out, int count) {
  int i = 0;
  for (; i + 8 <= count; i += 8)
    _mm512_storeu_pd(out + i, Sleef_atan2d8_u35avx512f(_mm512_loadu_pd(y + i), _mm512_loadu_pd(x + i)));
  if (i < count) {
    alignas(64) double yTail[8] = {}, xTail[8], outTail[8];
    for (int lane = 0; lane < 8; ++lane)
      xTail[lane] = 1.0;
    for (int lane = 0; i + lane < count; ++lane) {
      yTail[lane] = y[i + lane];
      xTail[lane] = x[i + lane];
    }
    _mm512_storeu_pd(outTail, Sleef_atan2d8_u35avx512f(_mm512_loadu_pd(yTail), _mm512_loadu_pd(xTail)));
    for (int lane = 0; i + lane < count; ++lane)
      out[i + lane] = outTail[lane];
  }
}

#include "Psi/detail/PsiBlockKernelBody.inc"

}  // namespace

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail {

void ConvertBlockAvx512(const PsiBlockParams& params, int first, int end) {
  ConvertBlockDispatch(params, first, end);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail
