#include "Swli/detail/IsaCap.h"
#include "Swli/detail/PeakFinderKernel.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

PeakFinderFunction SelectPeakFinderFunction() {
  const IsaCap allowed = ReadIsaCap();
  const bool allowAvx2 = allowed.avx2;
  const bool allowAvx512 = allowed.avx512;
  __builtin_cpu_init();
  const bool avx2 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
  if (allowAvx512 && avx2 && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
      __builtin_cpu_supports("avx512vnni"))
    return &FindPeaksAvx512;
  if (allowAvx2 && avx2) return &FindPeaksAvx2;
  return &FindPeaksSse2;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail
