// SLEEF's 2-lane sine and cosine on the x86-64 baseline, and the choice of implementation; see
// VectorSinCos.h.
#include "Swli/detail/VectorSinCos.h"
#include "Swli/detail/IsaCap.h"

#include <emmintrin.h>
#include <sleef.h>

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

void VectorSinCosSse2(const double* x, double* sine, double* cosine, int count) {
  for (int i = 0; i + 2 <= count; i += 2) {
    const Sleef___m128d_2 both = Sleef_sincosd2_u35sse2(_mm_loadu_pd(x + i));
    _mm_storeu_pd(sine + i, both.x);
    _mm_storeu_pd(cosine + i, both.y);
  }
}

VectorSinCosFunction SelectVectorSinCos() {
  const IsaCap allowed = ReadIsaCap();
  __builtin_cpu_init();
  if (allowed.avx512 && __builtin_cpu_supports("avx512f")) return &VectorSinCosAvx512;
  if (allowed.avx2 && __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma"))
    return &VectorSinCosAvx2;
  return &VectorSinCosSse2;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail
