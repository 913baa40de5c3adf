#include <cstdlib>
#include <cstring>

#include "Swli/detail/PeakFinderKernel.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

PeakFinderFunction SelectPeakFinderFunction() {
  const char* cap = std::getenv("QUARN_SWLI_ISA");
  const bool allowAvx2 = !cap || std::strcmp(cap, "sse2") != 0;
  const bool allowAvx512 = allowAvx2 && (!cap || std::strcmp(cap, "avx2") != 0);
  __builtin_cpu_init();
  const bool avx2 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
  if (allowAvx512 && avx2 && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
      __builtin_cpu_supports("avx512vnni"))
    return &FindPeaksAvx512;
  if (allowAvx2 && avx2) return &FindPeaksAvx2;
  return &FindPeaksSse2;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail
