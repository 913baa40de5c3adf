// SLEEF's 4-lane atan2, compiled for AVX2 and FMA; see VectorAtan2.h.
#include <immintrin.h>
#include <sleef.h>

#include "Swli/detail/VectorAtan2.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

void VectorAtan2Avx2(const double* y, const double* x, double* out, int count) {
  for (int i = 0; i + 4 <= count; i += 4)
    _mm256_storeu_pd(out + i, Sleef_atan2d4_u35avx2(_mm256_loadu_pd(y + i), _mm256_loadu_pd(x + i)));
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail
