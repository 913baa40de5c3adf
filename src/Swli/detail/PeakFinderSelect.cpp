#include <cstdlib>
#include <cstring>

#include "Swli/detail/PeakFinderKernel.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail {

PeakFinderFunction SelectPeakFinderFunction() {
  const char* cap = std::getenv("QUARN_SWLI_ISA");
  const bool allowAvx2 = !cap || std::strcmp(cap, "sse2") != 0;
  __builtin_cpu_init();
  if (allowAvx2 && __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return &FindPeaksAvx2;
  return &FindPeaksSse2;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::detail
