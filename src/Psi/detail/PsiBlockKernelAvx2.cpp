// The block path compiled for AVX2; see PsiBlockKernelBody.inc.
#include <immintrin.h>
#include <sleef.h>

#include <cmath>
#include <cstdint>

#include "Psi/detail/PsiBlockKernel.h"

namespace {

// atan2 of `count` pairs, 4 at a time with SLEEF's 1-ulp kernel; the tail with libm.
void VectorAtan2(const double* y, const double* x, double* out, int count) {
  int i = 0;
  for (; i + 4 <= count; i += 4)
    _mm256_storeu_pd(out + i, Sleef_atan2d4_u10avx2(_mm256_loadu_pd(y + i), _mm256_loadu_pd(x + i)));
  for (; i < count; ++i)
    out[i] = std::atan2(y[i], x[i]);
}

#include "Psi/detail/PsiBlockKernelBody.inc"

}  // namespace

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail {

void ConvertBlockAvx2(const PsiBlockParams& params, int first, int end) {
  ConvertBlockDispatch(params, first, end);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail
