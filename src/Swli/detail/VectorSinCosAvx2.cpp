// SLEEF's 4-lane sine and cosine, compiled for AVX2 and FMA; see VectorSinCos.h.
#include <immintrin.h>
#include <sleef.h>

#include "Swli/detail/VectorSinCos.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

void VectorSinCosAvx2(const double* x, double* sine, double* cosine, int count) {
  for (int i = 0; i + 4 <= count; i += 4) {
    const Sleef___m256d_2 both = Sleef_sincosd4_u35avx2(_mm256_loadu_pd(x + i));
    _mm256_storeu_pd(sine + i, both.x);
    _mm256_storeu_pd(cosine + i, both.y);
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail
