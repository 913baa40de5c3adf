// The block path compiled for SSE2; see PsiBlockKernelBody.inc.
#include <immintrin.h>
#include <sleef.h>

#include <cstdint>

#include "Psi/detail/PsiBlockKernel.h"

namespace {

// atan2 of `count` pairs, 2 at a time with SLEEF's 3.5-ulp kernel. The tail goes through the same
// kernel on a padded copy, so that a pixel's phase never depends on where a block or a thread's
// range happens to end (libm's atan2 may differ from SLEEF's by an ulp).
void VectorAtan2(const double* y, const double* x, double* out, int count) {
  int i = 0;
  for (; i + 2 <= count; i += 2)
    _mm_storeu_pd(out + i, Sleef_atan2d2_u35sse2(_mm_loadu_pd(y + i), _mm_loadu_pd(x + i)));
  if (i < count) {
    alignas(64) double yTail[2] = {}, xTail[2], outTail[2];
    for (int lane = 0; lane < 2; ++lane)
      xTail[lane] = 1.0;
    for (int lane = 0; i + lane < count; ++lane) {
      yTail[lane] = y[i + lane];
      xTail[lane] = x[i + lane];
    }
    _mm_storeu_pd(outTail, Sleef_atan2d2_u35sse2(_mm_loadu_pd(yTail), _mm_loadu_pd(xTail)));
    for (int lane = 0; i + lane < count; ++lane)
      out[i + lane] = outTail[lane];
  }
}

#include "Psi/detail/PsiBlockKernelBody.inc"

}  // namespace

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail {

void ConvertBlockSse2(const PsiBlockParams& params, int first, int end) {
  ConvertBlockDispatch(params, first, end);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail
