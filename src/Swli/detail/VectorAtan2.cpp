// SLEEF's 2-lane atan2 on the x86-64 baseline, and the choice of implementation; see VectorAtan2.h.
#include "Swli/detail/VectorAtan2.h"
#include "Swli/detail/IsaCap.h"

#include <emmintrin.h>
#include <sleef.h>

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

void VectorAtan2Sse2(const double* y, const double* x, double* out, int count) {
  for (int i = 0; i + 2 <= count; i += 2)
    _mm_storeu_pd(out + i, Sleef_atan2d2_u35sse2(_mm_loadu_pd(y + i), _mm_loadu_pd(x + i)));
}

VectorAtan2Function SelectVectorAtan2() {
  const IsaCap allowed = ReadIsaCap();
  const bool allowAvx2 = allowed.avx2;
  const bool allowAvx512 = allowed.avx512;
  __builtin_cpu_init();
  if (allowAvx512 && __builtin_cpu_supports("avx512f")) return &VectorAtan2Avx512;
  if (allowAvx2 && __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return &VectorAtan2Avx2;
  return &VectorAtan2Sse2;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail
